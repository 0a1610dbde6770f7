// The commands that move content between the mirror and the service
// (tarn.downloadlocal, tarn.uploadlocal, tarn.remove) and what a listing
// of the service (tarn.dir) tells the mirror, through the sync record: each
// one detects how both sides stand against the record, asks the decision
// table what to do (asking it again as facts come in: a hash of the
// mirror copy, the service's content) and acts. A copy is put in place
// first and recorded after, so a crash in between costs a comparison at
// the next command, never an edit.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <time.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>

#include "command_replies.h"
#include "commands.h"
#include "faults.h"
#include "fs/atomic_file.h"
#include "fs/content_hash.h"
#include "fs/kept_copy.h"
#include "server/agent_log.h"
#include "sync/detect.h"

namespace velagent {

using sync::Action;
using sync::Contents;
using sync::Facts;
using sync::Side;

// A path in the mirror: the folder that holds its last name, that name, and
// what stands there.
struct Commands::Place {
  UniqueFd dir;
  std::string name;
  bool exists = false;
  struct stat st {};
};

namespace {

// Rounds of the decision table one command may take (facts come in a few
// at a time; a service that keeps changing under a conditional upload
// ends it).
constexpr int kMaxRounds = 12;
// Bounds of the walk that looks for the new names of moved files below a
// folder that appeared in a listing.
constexpr int kMaxWalkDepth = 64;
constexpr size_t kMaxWalkEntries = 100000;
constexpr mode_t kMirrorFolderMode = 0750;
// A time this far in the past is in no clock tick of a file system to come
// (two seconds: the coarsest stamps kept, on FAT).
constexpr time_t kPastSeconds = 2;

void syncLog(const std::string& text) { logLine("sync: " + text); }

// The mirror file `name` in `dirFd`: its hash (and its status in `st`).
// 0, or errno (EINVAL for something other than a regular file).
int hashMirror(int dirFd, const std::string& name, ContentHash& out, struct stat* st = nullptr) {
  UniqueFd fd(::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    return errno;
  }
  struct stat own;
  struct stat& status = st != nullptr ? *st : own;
  if (::fstat(fd.get(), &status) != 0) {
    return errno;
  }
  if (!S_ISREG(status.st_mode)) {
    return EINVAL;
  }
  return hashFile(fd.get(), out);
}

bool sameFile(const struct stat& a, const struct stat& b) {
  return a.st_ino == b.st_ino && a.st_dev == b.st_dev && a.st_size == b.st_size &&
         sync::nanosOf(a.st_mtim) == sync::nanosOf(b.st_mtim);
}

void describeService(RecordEntry& entry, const StoreStat& st) {
  entry.version = st.version;
  entry.settled = st.settled;
  entry.identity = st.identity;
}

void describeCopy(RecordEntry& entry, const struct stat& st) {
  entry.mirrorInode = st.st_ino;
  entry.mirrorSize = static_cast<long long>(st.st_size);
  entry.mirrorMtimeNs = sync::nanosOf(st.st_mtim);
  entry.mirrorSettled = sync::mirrorStampSettled(st, sync::nowNanos());
}

// True when the service's file `st` is the content `record` vouched for,
// wherever it now stands: the same version that names its content through
// moves, or the same content hash noted on the service.
bool carries(const StoreStat& st, const RecordEntry& record) {
  return (st.identity && record.identity && !st.version.empty() && st.version == record.version) ||
         (st.hashKnown && st.hash == record.hash && st.size == record.mirrorSize);
}

// The reply that refuses a change for a conflict, with the way out.
Reply conflict(const std::string& path, bool madeElsewhere, const char* notDone) {
  std::string what = madeElsewhere ? "was made on the service with other content"
                                   : "changed on the service since this mirror last synced it";
  return Reply::error("ERR conflict: '" + path + "' " + what + "; nothing was " + notDone +
                      ". Run 'vel update " + path +
                      "' to fetch the service's version: your copy is then kept beside it as '" +
                      path + ".vel.keep.NNNNNNNN'");
}

}  // namespace

sync::Action Commands::decide(Action (*table)(const Facts&), const Facts& facts) const {
  Action action = table(facts);
  if (!sync_.lastWriterWins) {
    return action;
  }
  // The acting side wins what would otherwise be a conflict.
  if (action == Action::kKeepAsideAndFetch) {
    return Action::kFetch;
  }
  if (action == Action::kConflict) {
    return table == &sync::decideRemove ? Action::kRemove : Action::kSend;
  }
  return action;
}

// ---------------------------------------------------------------------------
// tarn.downloadlocal

Reply Commands::download(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  std::vector<std::string> lockPaths = {clean};
  std::vector<RecordEntry> movedFrom;
  for (int attempt = 0;; ++attempt) {
    PathLocks::Guard guard = locks_.lock(lockPaths);
    StoreStat st;
    Status status = store_.stat(clean, true, st);
    if (!status.isOk()) {
      return lookupFailure(status, path, Reply::bulk(kNotFoundText));
    }
    if (attempt == 0 && !st.isDir && ((st.identity && !st.version.empty()) || st.hashKnown)) {
      // A file new to this mirror may be one it holds under the name it had
      // before another device renamed it: those names are locked as well.
      RecordEntry own;
      if (!record_.get(clean, own)) {
        std::vector<RecordEntry> found;
        if (st.identity && !st.version.empty()) {
          found = record_.withVersion(st.version);
        }
        if (st.hashKnown) {
          for (RecordEntry& same : record_.withHash(st.hash)) {
            found.push_back(std::move(same));
          }
        }
        for (RecordEntry& candidate : found) {
          if (candidate.path != clean) {
            lockPaths.push_back(candidate.path);
            movedFrom.push_back(std::move(candidate));
          }
        }
        if (!movedFrom.empty()) {
          continue;
        }
      }
    }
    const std::string parentRel = joinNames(names, names.size() - 1);
    UniqueFd parent;
    int err = mirror_.openDir(parentRel, parent);
    if (err == EXDEV) {
      return refused(path);
    }
    if (err != 0) {
      return Reply::error("ERR mirror folder missing: '" + under(mirror_.path(), parentRel) + "'");
    }
    // The mirror copy goes where the name leads, links included, as long as
    // that stays in the mirror.
    Place place;
    err = mirror_.locate(clean, true, place.dir, place.name);
    if (err == EXDEV) {
      return refused(path);
    }
    if (err != 0) {
      return Reply::error(errnoText("download failed", err));
    }
    place.exists =
        ::fstatat(place.dir.get(), place.name.c_str(), &place.st, AT_SYMLINK_NOFOLLOW) == 0;
    if (st.isDir) {
      if (!place.exists && ::mkdirat(place.dir.get(), place.name.c_str(), st.mode) != 0 &&
          errno != EEXIST) {
        return Reply::error(errnoText("cannot create folder", errno));
      }
      struct stat made;
      if (::fstatat(place.dir.get(), place.name.c_str(), &made, AT_SYMLINK_NOFOLLOW) != 0 ||
          !S_ISDIR(made.st_mode)) {
        return Reply::error("ERR not a directory: '" + under(mirror_.path(), clean) + "'");
      }
      ::fchmodat(place.dir.get(), place.name.c_str(), st.mode, AT_SYMLINK_NOFOLLOW);
      return Reply::ok();
    }
    if (place.exists && S_ISDIR(place.st.st_mode)) {
      return Reply::error(errnoText("download failed", EISDIR));
    }
    if (!movedFrom.empty() && !place.exists && adoptMovedCopy(clean, st, movedFrom)) {
      place.exists =
          ::fstatat(place.dir.get(), place.name.c_str(), &place.st, AT_SYMLINK_NOFOLLOW) == 0;
    }
    return downloadFile(path, clean, st, place);
  }
}

bool Commands::recall(const std::string& clean, const Place& place, RecordEntry& record) {
  bool recorded = record_.get(clean, record);
  RecordEntry noted;
  if (!record_.expected(clean, noted)) {
    return recorded;
  }
  // A copy was about to be put in place when the agent last stopped: if
  // it is there, untouched, it counts as recorded (not as an edit).
  ContentHash hash;
  struct stat now;
  if (place.exists && S_ISREG(place.st.st_mode) &&
      static_cast<long long>(place.st.st_size) == noted.mirrorSize &&
      hashMirror(place.dir.get(), place.name, hash, &now) == 0 && hash == noted.hash &&
      sameFile(now, place.st)) {
    describeCopy(noted, place.st);
    noted.mirrorSettled = false;
    if (record_.put(noted)) {
      syncLog("took up the copy of '" + clean + "' put in place before the agent stopped");
    }
    record = noted;
    return true;
  }
  // Not there: the note goes, the record (if any) stays as it was.
  if (recorded) {
    record_.put(record);
  } else {
    record_.drop(clean, false);
  }
  return recorded;
}

Reply Commands::downloadFile(const std::string& path, const std::string& clean, const StoreStat& st,
                             Place& place) {
  RecordEntry record;
  const bool recorded = recall(clean, place, record);
  Facts facts;
  facts.recorded = recorded;
  facts.service = recorded ? sync::serviceAgainst(record, st) : Side::kChanged;
  if (!place.exists) {
    facts.mirror = Side::kAbsent;
  } else if (!S_ISREG(place.st.st_mode)) {
    facts.mirror = Side::kChanged;  // a FIFO or a device holds no edit to compare
    facts.contents = Contents::kDiffer;
  } else {
    facts.mirror = recorded ? sync::mirrorAgainst(record, place.st) : Side::kChanged;
  }

  AtomicFile target;
  bool fetched = false;
  StoreStat copied = st;
  ContentHash mirrorHash;
  bool mirrorHashed = false;
  bool mirrorConfirmed = false;   // hashed: unchanged since the record
  bool serviceConfirmed = false;  // fetched: the recorded content
  // Copies the service's file into the mirror's temporary file (not yet in
  // place); with `ifNoneMatch`, kNotModified when the service still holds
  // that version.
  auto fetch = [&](const std::string& ifNoneMatch) -> Status {
    int err = target.begin(place.dir.get(), place.name);
    if (err != 0) {
      return Status::fromErrno(err);
    }
    copied = st;
    Status status = store_.download(clean, target, copied, ifNoneMatch);
    fetched = status.isOk();
    return status;
  };
  auto fetchFailed = [&](const Status& status) {
    if (status.code() == Status::Code::kNotFound) {
      return Reply::error(errnoText("download failed", ENOENT));
    }
    return changeReply(status, path, "download failed");
  };
  auto hashOfMirror = [&]() -> int {
    if (mirrorHashed) {
      return 0;
    }
    int err = hashMirror(place.dir.get(), place.name, mirrorHash);
    mirrorHashed = err == 0;
    return err;
  };
  // Puts the fetched copy in place and records it.
  auto commit = [&]() -> Reply {
    RecordEntry coming;
    coming.path = clean;
    describeService(coming, copied);
    coming.mirrorSize = target.size();
    coming.hash = target.hash();
    record_.expect(coming);
    // The copy is stamped safely in the past: with the service's
    // modification time when that lies far enough back, otherwise with
    // the latest time that does. An edit made afterwards stamps it anew,
    // so its time alone tells it from this copy (a copy stamped now could
    // share its clock tick with an edit, and only its hash could: every
    // later removal or rename of it would read it all again).
    const time_t pastLimit = ::time(nullptr) - kPastSeconds;
    const time_t stamp = copied.mtime > 0 && copied.mtime <= pastLimit ? copied.mtime : pastLimit;
    struct timespec times[2] = {{0, UTIME_OMIT}, {stamp, 0}};
    const bool stampedInThePast = ::futimens(target.fd(), times) == 0;
    int err = target.commit(copied.mode);
    if (err != 0) {
      return Reply::error(errnoText("download failed", err));
    }
    crashPoint(kCrashAfterRename);
    RecordEntry entry;
    entry.path = clean;
    describeService(entry, copied);
    entry.mirrorInode = target.committedInode();
    entry.mirrorSize = target.size();
    entry.mirrorMtimeNs = target.committedMtimeNs();
    entry.mirrorSettled = stampedInThePast;
    entry.hash = target.hash();
    record_.put(entry);
    crashPoint(kCrashAfterRecord);
    return Reply::ok();
  };

  for (int round = 0; round < kMaxRounds; ++round) {
    Action action = decide(&sync::decideDownload, facts);
    switch (action) {
      case Action::kCheckMirror: {
        int err = hashOfMirror();
        if (err != 0) {
          return Reply::error(errnoText("download failed", err));
        }
        mirrorConfirmed = mirrorHash == record.hash;
        facts.mirror = mirrorConfirmed ? Side::kUnchanged : Side::kChanged;
        break;
      }
      case Action::kCheckService:
      case Action::kCompare: {
        if (!fetched) {
          Status status = fetch("");
          if (!status.isOk()) {
            return fetchFailed(status);
          }
        }
        if (action == Action::kCheckService) {
          serviceConfirmed = target.hash() == record.hash;
          facts.service = serviceConfirmed ? Side::kUnchanged : Side::kChanged;
          break;
        }
        int err = hashOfMirror();
        if (err != 0) {
          return Reply::error(errnoText("download failed", err));
        }
        facts.contents = mirrorHash == target.hash() ? Contents::kSame : Contents::kDiffer;
        break;
      }
      case Action::kNothing:
      case Action::kKeepMirror: {
        target.discard();
        // What the checks learnt saves them next time.
        if (serviceConfirmed || mirrorConfirmed) {
          if (serviceConfirmed) {
            describeService(record, copied);
          }
          if (mirrorConfirmed) {
            describeCopy(record, place.st);
          }
          record_.put(record);
        }
        return Reply::ok();
      }
      case Action::kRecordOnly: {
        target.discard();
        RecordEntry entry;
        entry.path = clean;
        describeService(entry, copied);
        describeCopy(entry, place.st);
        entry.hash = mirrorHash;
        record_.put(entry);
        return Reply::ok();
      }
      case Action::kFetch: {
        if (!fetched) {
          // The record's settled version, asked for again: a service at it
          // sends no bytes (the stat before may have been an older answer).
          bool askAgain = recorded && record.settled && facts.mirror == Side::kUnchanged;
          Status status = fetch(askAgain ? record.version : "");
          if (status.code() == Status::Code::kNotModified) {
            target.discard();
            return Reply::ok();
          }
          if (!status.isOk()) {
            return fetchFailed(status);
          }
        }
        return commit();
      }
      case Action::kKeepAsideAndFetch: {
        if (!fetched) {
          Status status = fetch("");
          if (!status.isOk()) {
            return fetchFailed(status);
          }
        }
        std::string kept;
        int err = keepAside(place.dir.get(), place.name, kept);
        if (err != 0) {
          return Reply::error(errnoText("cannot keep the mirror copy aside", err));
        }
        syncLog("kept the mirror copy of '" + clean + "' as '" + kept +
                "': it changed here, and the service holds other content");
        return commit();
      }
      default:
        return Reply::error(std::string("ERR download failed: unexpected step ") +
                            sync::actionName(action));
    }
  }
  return Reply::error("ERR download failed: the service keeps changing");
}

bool Commands::adoptMovedCopy(const std::string& clean, const StoreStat& st,
                              const std::vector<RecordEntry>& candidates) {
  for (const RecordEntry& candidate : candidates) {
    if (!carries(st, candidate)) {
      continue;
    }
    StoreStat old;
    Status status = store_.stat(candidate.path, false, old);
    if (status.code() != Status::Code::kNotFound) {
      continue;  // still there: a copy, not a rename
    }
    if (settleGone(candidate, clean, &st)) {
      return true;
    }
  }
  return false;
}

// ---------------------------------------------------------------------------
// tarn.uploadlocal

Reply Commands::upload(const std::string& path) {
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  PathLocks::Guard guard = locks_.lock({clean});
  {
    Place place;
    int err = mirror_.locate(clean, true, place.dir, place.name);
    if (err == EXDEV) {
      return refused(path);
    }
    if (err != 0 ||
        ::fstatat(place.dir.get(), place.name.c_str(), &place.st, AT_SYMLINK_NOFOLLOW) != 0) {
      return Reply::bulk(kNotFoundText);
    }
    if (S_ISDIR(place.st.st_mode)) {
      return changeReply(store_.makeDirs(clean), path, "cannot create folder");
    }
    // Non-blocking: a FIFO or device in the mirror must not hold the agent.
    UniqueFd source(::openat(place.dir.get(), place.name.c_str(),
                             O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!source) {
      return Reply::error(errnoText("upload failed", errno));
    }
    struct stat& copy = place.st;
    if (::fstat(source.get(), &copy) != 0) {
      return Reply::error(errnoText("upload failed", errno));
    }
    if (!S_ISREG(copy.st_mode)) {
      return Reply::error("ERR upload failed: not a regular file");
    }

    StoreStat st;
    Status status = store_.stat(clean, true, st);
    bool servicePresent = status.isOk();
    if (!servicePresent && status.code() != Status::Code::kNotFound) {
      return lookupFailure(status, path, Reply::error(failureText("upload failed", status)));
    }
    if (servicePresent && st.isDir) {
      return Reply::error(errnoText("upload failed", EISDIR));
    }
    RecordEntry record;
    place.exists = true;
    bool recorded = recall(clean, place, record);
    Facts facts;
    facts.recorded = recorded;
    facts.mirror = recorded ? sync::mirrorAgainst(record, copy) : Side::kChanged;
    facts.service = !servicePresent ? Side::kAbsent
                    : recorded      ? sync::serviceAgainst(record, st)
                                    : Side::kChanged;
    ContentHash mirrorHash;
    ContentHash serviceHash;
    bool mirrorHashed = false;
    bool serviceHashed = false;
    bool mirrorConfirmed = false;
    bool serviceConfirmed = false;
    StoreStat current = st;  // the latest the agent learnt of the service's file

    for (int round = 0; round < kMaxRounds; ++round) {
      Action action = decide(&sync::decideUpload, facts);
      switch (action) {
        case Action::kCheckMirror:
        case Action::kCheckService:
        case Action::kCompare: {
          if (action != Action::kCheckService && !mirrorHashed) {
            if ((err = hashFile(source.get(), mirrorHash)) != 0) {
              return Reply::error(errnoText("upload failed", err));
            }
            mirrorHashed = true;
          }
          if (action == Action::kCheckMirror) {
            mirrorConfirmed = mirrorHash == record.hash;
            facts.mirror = mirrorConfirmed ? Side::kUnchanged : Side::kChanged;
            break;
          }
          if (!serviceHashed) {
            HashSink sink;
            StoreStat got = current;
            status = store_.download(clean, sink, got, "");
            if (status.code() == Status::Code::kNotFound) {
              facts.service = Side::kAbsent;
              facts.contents = Contents::kUnknown;
              break;
            }
            if (!status.isOk()) {
              return changeReply(status, path, "upload failed");
            }
            serviceHash = sink.hash();
            serviceHashed = true;
            current = got;
          }
          if (action == Action::kCheckService) {
            serviceConfirmed = serviceHash == record.hash;
            facts.service = serviceConfirmed ? Side::kUnchanged : Side::kChanged;
          } else {
            facts.contents = mirrorHash == serviceHash ? Contents::kSame : Contents::kDiffer;
          }
          break;
        }
        case Action::kNothing:
        case Action::kStale: {
          if (action == Action::kStale) {
            syncLog("nothing sent for '" + clean +
                    "': unchanged here, and the service holds a newer version (update to "
                    "fetch it)");
          }
          if (mirrorConfirmed || (serviceConfirmed && action == Action::kNothing)) {
            if (mirrorConfirmed) {
              describeCopy(record, copy);
            }
            if (serviceConfirmed) {
              describeService(record, current);
            }
            record_.put(record);
          }
          return Reply::ok();
        }
        case Action::kRecordOnly: {
          RecordEntry entry;
          entry.path = clean;
          describeService(entry, current);
          describeCopy(entry, copy);
          entry.hash = mirrorHash;
          record_.put(entry);
          return Reply::ok();
        }
        case Action::kRemoveMirror: {
          struct stat now;
          if (::fstatat(place.dir.get(), place.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
              sameFile(now, copy)) {
            ::unlinkat(place.dir.get(), place.name.c_str(), 0);
          }
          record_.drop(clean, false);
          syncLog("removed '" + clean + "' from the mirror: it was removed on the service");
          return Reply::ok();
        }
        case Action::kConflict:
          return conflict(path, !recorded, "sent");
        case Action::kSend:
        case Action::kSendNew: {
          if (action == Action::kSendNew && recorded) {
            // The edit wins over the removal: it counts as a new file.
            record_.drop(clean, false);
            recorded = false;
            facts.recorded = false;
          }
          status = store_.makeDirs(parentOf(clean));
          if (!status.isOk()) {
            return changeReply(status, path, "cannot create folder");
          }
          Expect expect = sync_.lastWriterWins         ? Expect::anything()
                          : action == Action::kSendNew ? Expect::absent()
                                                       : Expect::at(current.version);
          if (::lseek(source.get(), 0, SEEK_SET) != 0) {
            return Reply::error(errnoText("upload failed", errno));
          }
          StoreStat written;
          ContentHash sent;
          status = store_.upload(source.get(), clean, copy.st_mode & 07777, expect, written, sent);
          if (status.code() == Status::Code::kConflict) {
            // The service changed in the meantime: what does it hold now?
            StoreStat again;
            Status restat = store_.stat(clean, true, again);
            if (!restat.isOk() && restat.code() != Status::Code::kNotFound) {
              return changeReply(restat, path, "upload failed");
            }
            current = again;
            serviceHashed = false;
            facts.contents = Contents::kUnknown;
            facts.service = !restat.isOk() ? Side::kAbsent
                            : recorded     ? sync::serviceAgainst(record, again)
                                           : Side::kChanged;
            if (facts.service == Side::kUnchanged) {
              facts.service = Side::kUnsure;  // refused at that version: look closer
            }
            break;
          }
          if (!status.isOk()) {
            return changeReply(status, path, "upload failed");
          }
          crashPoint(kCrashAfterRename);
          RecordEntry entry;
          entry.path = clean;
          entry.hash = sent;
          if (written.version.empty()) {
            // Asked again: someone may have written since, so it vouches
            // for nothing until the content is compared.
            StoreStat after;
            if (store_.stat(clean, true, after).isOk()) {
              written = after;
            }
            written.settled = false;
          }
          describeService(entry, written);
          struct stat after;
          if (::fstat(source.get(), &after) == 0 && sameFile(after, copy)) {
            describeCopy(entry, copy);
          }  // else the copy changed while it was sent: its hash will tell
          record_.put(entry);
          crashPoint(kCrashAfterRecord);
          return Reply::ok();
        }
        default:
          return Reply::error(std::string("ERR upload failed: unexpected step ") +
                              sync::actionName(action));
      }
    }
    return Reply::error("ERR upload failed: the service keeps changing");
  }
}

// ---------------------------------------------------------------------------
// tarn.remove

Reply Commands::remove(const std::string& path, const std::string& recursive) {
  if (recursive != "false" && recursive != "true") {
    return Reply::refusal("ERR bad recursion flag '" + recursive + "'");
  }
  std::vector<std::string> names;
  std::string clean;
  if (!resolve(path, false, names, clean)) {
    return refused(path);
  }
  PathLocks::Guard guard = locks_.lock({clean});
  auto removed = [&](const Status& status) {
    switch (status.code()) {
      case Status::Code::kOk:
        record_.drop(clean, true);
        return Reply::ok();
      case Status::Code::kRefused:
        return refused(path);
      case Status::Code::kNotEmpty:
        return Reply::error("ERR directory not empty");
      case Status::Code::kConflict:
        return conflict(path, false, "removed");
      default:
        return Reply::error(failureText("remove failed", status));
    }
  };
  StoreStat st;
  Status status = store_.stat(clean, false, st);
  if (status.code() == Status::Code::kNotFound) {
    record_.drop(clean, true);
    return Reply::ok();  // nothing there
  }
  if (!status.isOk()) {
    return removed(status);
  }
  if (st.isDir) {
    if (recursive == "true") {
      Reply refusal = removeTree(path, clean);
      if (refusal.kind == Reply::Kind::kError) {
        return refusal;
      }
    }
    return removed(store_.remove(clean, recursive == "true", Expect::anything()));
  }
  RecordEntry record;
  const bool recorded = !st.isLink && record_.get(clean, record);
  Facts facts;
  facts.recorded = recorded;
  facts.service = recorded ? sync::serviceAgainst(record, st) : Side::kChanged;
  StoreStat current = st;
  for (int round = 0; round < kMaxRounds; ++round) {
    Action action = decide(&sync::decideRemove, facts);
    switch (action) {
      case Action::kCheckService: {
        HashSink sink;
        StoreStat got = current;
        status = store_.download(clean, sink, got, "");
        if (status.code() == Status::Code::kNotFound) {
          facts.service = Side::kAbsent;
          break;
        }
        if (!status.isOk()) {
          return removed(status);
        }
        current = got;
        facts.service = sink.hash() == record.hash ? Side::kUnchanged : Side::kChanged;
        break;
      }
      case Action::kForget:
        record_.drop(clean, true);
        return Reply::ok();
      case Action::kConflict:
        return conflict(path, false, "removed");
      case Action::kRemove: {
        Expect expect = recorded && !sync_.lastWriterWins && !current.version.empty()
                            ? Expect::at(current.version)
                            : Expect::anything();
        return removed(store_.remove(clean, recursive == "true", expect));
      }
      default:
        return Reply::error(std::string("ERR remove failed: unexpected step ") +
                            sync::actionName(action));
    }
  }
  return Reply::error("ERR remove failed: the service keeps changing");
}

Reply Commands::removeTree(const std::string& path, const std::string& clean) {
  if (sync_.lastWriterWins) {
    return Reply::ok();
  }
  // Every recorded file below must still be what this mirror saw: a file
  // someone else changed since is not removed with the folder.
  for (const RecordEntry& record : record_.below(clean, false)) {
    StoreStat st;
    Status status = store_.stat(record.path, false, st);
    if (status.code() == Status::Code::kNotFound || (status.isOk() && st.isDir)) {
      continue;
    }
    if (!status.isOk()) {
      return Reply::error(failureText("remove failed", status));
    }
    Side side = sync::serviceAgainst(record, st);
    if (side == Side::kUnsure) {
      HashSink sink;
      StoreStat got = st;
      status = store_.download(record.path, sink, got, "");
      if (status.code() == Status::Code::kNotFound) {
        continue;
      }
      if (!status.isOk()) {
        return Reply::error(failureText("remove failed", status));
      }
      side = sink.hash() == record.hash ? Side::kUnchanged : Side::kChanged;
    }
    if (side == Side::kChanged) {
      return conflict(path, false, "removed");
    }
  }
  return Reply::ok();
}

// ---------------------------------------------------------------------------
// What a listing tells the mirror

// The mirror folders that one pass over a listing works in, each opened
// once beneath the mirror (a folder of a thousand moved files is resolved
// once, not twice per file). A folder that could not be opened is asked
// for again, since the pass may make it. The descriptors follow their
// folders if the mirror is rearranged meanwhile, as a descriptor opened
// for one file would. One pass, one thread.
class Commands::MirrorFolders {
 public:
  explicit MirrorFolders(const Root& mirror) : mirror_(mirror) {}

  // The folder `rel` of the mirror, open; -1 with errno set (as Root::openDir).
  int at(const std::string& rel) {
    auto it = open_.find(rel);
    if (it == open_.end()) {
      UniqueFd fd;
      int err = mirror_.openDir(rel, fd);
      if (err != 0) {
        errno = err;
        return -1;
      }
      it = open_.emplace(rel, std::move(fd)).first;
    }
    return it->second.get();
  }

 private:
  const Root& mirror_;
  std::map<std::string, UniqueFd> open_;
};

bool Commands::settleGone(const RecordEntry& record, const std::string& to, const StoreStat* there,
                          MirrorFolders* folders) {
  MirrorFolders own(mirror_);
  if (folders == nullptr) {
    folders = &own;
  }
  // A recorded path is clean: its folder, then its last name.
  Place place;
  const std::string parent = parentOf(record.path);
  place.name = record.path.substr(parent.empty() ? 0 : parent.size() + 1);
  const int dirFd = folders->at(parent);
  const int err = dirFd < 0 ? errno : 0;
  Facts facts;
  facts.recorded = true;
  facts.service = Side::kAbsent;
  if (err == EXDEV) {
    record_.drop(record.path, false);  // a link out of the mirror: never touched
    return false;
  }
  place.exists =
      err == 0 && ::fstatat(dirFd, place.name.c_str(), &place.st, AT_SYMLINK_NOFOLLOW) == 0;
  if (!place.exists) {
    facts.mirror = Side::kAbsent;
  } else if (!S_ISREG(place.st.st_mode)) {
    facts.mirror = Side::kChanged;  // something else stands there now
  } else {
    facts.mirror = sync::mirrorAgainst(record, place.st);
  }
  for (int round = 0; round < kMaxRounds; ++round) {
    switch (sync::decideGone(facts, !to.empty())) {
      case Action::kCheckMirror: {
        ContentHash hash;
        struct stat now;
        facts.mirror = hashMirror(dirFd, place.name, hash, &now) == 0 && sameFile(now, place.st) &&
                               hash == record.hash
                           ? Side::kUnchanged
                           : Side::kChanged;
        break;
      }
      case Action::kMoveMirror: {
        const std::string toParent = parentOf(to);
        int toDir = folders->at(toParent);
        if (toDir < 0 && errno == ENOENT && makeMirrorDirs(toParent)) {
          toDir = folders->at(toParent);
        }
        const std::string toName = to.substr(toParent.empty() ? 0 : toParent.size() + 1);
        if (toDir >= 0 &&
            ::renameat2(dirFd, place.name.c_str(), toDir, toName.c_str(), RENAME_NOREPLACE) == 0) {
          record_.move(record.path, to);
          if (there != nullptr &&
              (there->version != record.version || there->settled != record.settled ||
               there->identity != record.identity)) {
            // The same content, perhaps at another version (a copy that
            // kept the content's note): the record takes the new one.
            RecordEntry moved;
            if (record_.get(to, moved)) {
              describeService(moved, *there);
              record_.put(moved);
            }
          }
          syncLog("moved '" + record.path + "' to '" + to +
                  "' in the mirror: it was renamed on the service");
          return true;
        }
        // The new name is taken: fetched there instead.
        return settleGone(record, "", nullptr, folders);
      }
      case Action::kRemoveMirror: {
        struct stat now;
        if (::fstatat(dirFd, place.name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 &&
            sameFile(now, place.st)) {
          ::unlinkat(dirFd, place.name.c_str(), 0);
        }
        record_.drop(record.path, false);
        syncLog("removed '" + record.path + "' from the mirror: it was removed on the service");
        return false;
      }
      case Action::kForget:
      default:
        record_.drop(record.path, false);
        if (facts.mirror == Side::kChanged) {
          syncLog("kept '" + record.path +
                  "' in the mirror although it was removed on the service: it changed here "
                  "(commit it to bring it back)");
        }
        return false;
    }
  }
  return false;
}

bool Commands::makeMirrorDirs(const std::string& rel) {
  std::vector<std::string> names = splitNames(rel);
  for (size_t i = 1; i <= names.size(); ++i) {
    UniqueFd parent;
    if (mirror_.openDir(joinNames(names, i - 1), parent) != 0) {
      return false;
    }
    if (::mkdirat(parent.get(), names[i - 1].c_str(), kMirrorFolderMode) != 0 && errno != EEXIST) {
      return false;
    }
  }
  UniqueFd made;
  return mirror_.openDir(rel, made) == 0;
}

void Commands::pruneMirrorFolder(const std::string& rel) {
  UniqueFd folder;
  if (rel.empty() || mirror_.openDir(rel, folder) != 0) {
    return;
  }
  // Below first; links are never followed (openDir of a child that is a
  // link would lead elsewhere: only real folders are walked).
  UniqueFd readable(::openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (readable) {
    std::vector<std::string> subfolders;
    if (DIR* dir = ::fdopendir(::dup(readable.get()))) {
      while (struct dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        struct stat st;
        if (name != "." && name != ".." &&
            ::fstatat(readable.get(), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISDIR(st.st_mode)) {
          subfolders.push_back(name);
        }
      }
      ::closedir(dir);
    }
    for (const std::string& name : subfolders) {
      pruneMirrorFolder(rel + "/" + name);
    }
  }
  Place place;
  if (mirror_.locate(rel, false, place.dir, place.name) == 0 &&
      ::unlinkat(place.dir.get(), place.name.c_str(), AT_REMOVEDIR) == 0) {
    syncLog("removed the folder '" + rel + "' from the mirror: it was removed on the service");
  }
}

void Commands::reconcile(const std::string& folder, const std::vector<StoreEntry>& entries) {
  std::vector<SyncRecord::Child> recorded = record_.children(folder);
  if (recorded.empty()) {
    return;
  }
  const std::string prefix = folder.empty() ? "" : folder + "/";
  std::map<std::string, const StoreEntry*> listed;
  for (const StoreEntry& entry : entries) {
    listed[entry.name] = &entry;
  }
  // The recorded files that went, and the folders whose recorded files
  // all went with them.
  std::vector<RecordEntry> gone;
  std::vector<std::string> goneFolders;
  std::set<std::string> recordedNames;
  for (const SyncRecord::Child& child : recorded) {
    recordedNames.insert(child.name);
    auto it = listed.find(child.name);
    const std::string full = prefix + child.name;
    if (child.file && (it == listed.end() || it->second->isDir)) {
      RecordEntry record;
      if (record_.get(full, record)) {
        gone.push_back(record);
      }
    }
    if (child.folder && (it == listed.end() || !it->second->isDir)) {
      std::vector<RecordEntry> below = record_.below(full, false);
      gone.insert(gone.end(), below.begin(), below.end());
      goneFolders.push_back(full);
    }
  }
  if (gone.empty()) {
    return;
  }
  // Where did they go? A new name of this listing (or below a new folder
  // of it) that carries a gone file's content is that file, moved.
  std::vector<std::pair<std::string, StoreStat>> newFiles;
  size_t walked = 0;
  // The files of the new names of the listing, and of the folders below
  // them, with their versions.
  std::function<void(const std::string&, std::vector<StoreEntry>&, int)> visit;
  visit = [&](const std::string& folderPath, std::vector<StoreEntry>& children, int depth) {
    store_.describe(folderPath, children);
    for (StoreEntry& entry : children) {
      const std::string full = folderPath.empty() ? entry.name : folderPath + "/" + entry.name;
      if (++walked > kMaxWalkEntries) {
        return;
      }
      if (!entry.isDir) {
        const StoreStat& st = entry.stat;
        if (entry.described && !st.isLink &&
            ((st.identity && !st.version.empty()) || st.hashKnown)) {
          newFiles.emplace_back(full, st);
        }
        continue;
      }
      std::vector<StoreEntry> below;
      if (depth < kMaxWalkDepth && store_.list(full, below).isOk()) {
        visit(full, below, depth + 1);
      }
    }
  };
  std::vector<StoreEntry> fresh;
  for (const StoreEntry& entry : entries) {
    if (recordedNames.count(entry.name) == 0) {
      fresh.push_back(entry);
    }
  }
  visit(folder, fresh, 0);
  // A gone file's new name, by its version or by its content note.
  std::multimap<std::string, size_t> byVersion;
  std::multimap<std::string, size_t> byHash;
  for (size_t i = 0; i < newFiles.size(); ++i) {
    const StoreStat& st = newFiles[i].second;
    if (st.identity && !st.version.empty()) {
      byVersion.emplace(st.version, i);
    }
    if (st.hashKnown) {
      byHash.emplace(st.hash.hex(), i);
    }
  }
  // The name at the top of the listing that `path` lies in or below.
  const auto topOf = [&prefix](const std::string& path) {
    return path.substr(0, path.find('/', prefix.size()));
  };
  // Whether a new name has a record already: one read for each new name of
  // the listing, and all below it.
  std::map<std::string, std::set<std::string>> recordedUnder;
  const auto recordedNew = [&](const std::string& path) {
    const std::string top = topOf(path);
    auto it = recordedUnder.find(top);
    if (it == recordedUnder.end()) {
      std::set<std::string> paths;
      RecordEntry own;
      if (record_.get(top, own)) {
        paths.insert(top);
      }
      for (const RecordEntry& entry : record_.below(top, false)) {
        paths.insert(entry.path);
      }
      it = recordedUnder.emplace(top, std::move(paths)).first;
    }
    return it->second.count(path) != 0;
  };
  std::vector<std::string> lockPaths;
  std::map<std::string, const std::pair<std::string, StoreStat>*> moves;  // gone path -> new
  std::set<size_t> taken;
  for (const RecordEntry& record : gone) {
    lockPaths.push_back(record.path);
    std::vector<size_t> candidates;
    for (auto range = byVersion.equal_range(record.version); range.first != range.second;
         ++range.first) {
      candidates.push_back(range.first->second);
    }
    for (auto range = byHash.equal_range(record.hash.hex()); range.first != range.second;
         ++range.first) {
      candidates.push_back(range.first->second);
    }
    for (size_t i : candidates) {
      if (carries(newFiles[i].second, record) && taken.count(i) == 0 &&
          !recordedNew(newFiles[i].first)) {
        taken.insert(i);
        moves[record.path] = &newFiles[i];
        lockPaths.push_back(newFiles[i].first);
        break;
      }
    }
  }
  for (const std::string& path : goneFolders) {
    lockPaths.push_back(path);
  }
  PathLocks::Guard guard = locks_.lock(lockPaths);
  SyncRecord::Batch batch(record_);
  MirrorFolders folders(mirror_);
  // Whether a gone name is still gone, asked once per name of the listing.
  std::map<std::string, bool> stillGone;
  // The records below each gone folder, read again under the lock (a
  // command may have changed them since): one read per folder.
  std::map<std::string, std::map<std::string, RecordEntry>> nowBelow;
  for (const std::string& path : goneFolders) {
    std::map<std::string, RecordEntry>& now = nowBelow[path];
    for (RecordEntry& entry : record_.below(path, false)) {
      now.emplace(entry.path, std::move(entry));
    }
  }
  for (const RecordEntry& listedRecord : gone) {
    const std::string top = topOf(listedRecord.path);
    RecordEntry record;
    auto below = nowBelow.find(top);
    if (below != nowBelow.end() && top != listedRecord.path) {
      auto it = below->second.find(listedRecord.path);
      if (it == below->second.end()) {
        continue;
      }
      record = it->second;
    } else if (!record_.get(listedRecord.path, record)) {
      continue;
    }
    auto known = stillGone.find(top);
    if (known == stillGone.end()) {
      StoreStat st;
      Status status = store_.stat(top, false, st);
      bool absent = status.code() == Status::Code::kNotFound ||
                    (status.isOk() && (top == record.path ? st.isDir : !st.isDir));
      known = stillGone.emplace(top, absent).first;
    }
    if (!known->second) {
      continue;  // back already
    }
    auto move = moves.find(record.path);
    std::string to;
    const StoreStat* there = nullptr;
    if (move != moves.end()) {
      const std::string& newPath = move->second->first;
      const std::string newParent = parentOf(newPath);
      const int newDir = folders.at(newParent);
      struct stat standing;
      if (newDir < 0 ||
          ::fstatat(newDir, newPath.c_str() + (newParent.empty() ? 0 : newParent.size() + 1),
                    &standing, AT_SYMLINK_NOFOLLOW) != 0) {
        to = newPath;  // free in the mirror
        there = &move->second->second;
      }
    }
    settleGone(record, to, there, &folders);
  }
  for (const std::string& path : goneFolders) {
    StoreStat st;
    if (store_.stat(path, false, st).code() == Status::Code::kNotFound) {
      pruneMirrorFolder(path);
    }
  }
}

}  // namespace velagent
