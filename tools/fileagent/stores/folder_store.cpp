#include "stores/folder_store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <ctime>
#include <utility>

namespace velagent {

namespace {

const char kNotRegular[] = "not a regular file";

// A change within this long of a version's modification time may leave
// the version as it was (file systems stamp times from a clock that ticks
// in steps, a second on some): such a version is not settled yet.
constexpr long long kSettleNs = 1000000000LL;

long long nanosOf(const struct timespec& t) {
  return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec;
}

// A file's version: its inode, size and modification time. An upload
// replaces the file by a rename, so the inode alone changes with every
// upload; the size and the time catch a change made in place.
std::string versionOf(const struct stat& st) {
  return std::to_string(st.st_ino) + "-" + std::to_string(st.st_size) + "-" +
         std::to_string(nanosOf(st.st_mtim));
}

void fill(const struct stat& st, StoreStat& out) {
  out.isDir = S_ISDIR(st.st_mode);
  out.isLink = S_ISLNK(st.st_mode);
  out.size = static_cast<long long>(st.st_size);
  out.mtime = st.st_mtime;
  out.mode = st.st_mode & 07777;
  out.version.clear();
  out.settled = false;
  out.identity = false;
  out.hashKnown = false;
  if (S_ISREG(st.st_mode)) {
    struct timespec now;
    ::clock_gettime(CLOCK_REALTIME, &now);
    out.version = versionOf(st);
    out.settled = nanosOf(now) - nanosOf(st.st_mtim) >= kSettleNs;
    // A rename keeps the inode, the size and the time.
    out.identity = true;
  }
}

// The note of a file's content hash: "<32 hex digits> <version>", in an
// extended attribute of the file. Written on the temporary file of an
// upload just before it is renamed into place; a file changed in place
// afterwards has another version, and its note no longer counts.
const char kHashNote[] = "user.vel.content";

void noteHash(int fd, const ContentHash& hash) {
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    return;
  }
  std::string note = hash.hex() + " " + versionOf(st);
  // A file system without user attributes keeps no note: renames there are
  // recognised by the version alone.
  ::fsetxattr(fd, kHashNote, note.data(), note.size(), 0);
}

// Reads the note of the open file `fd`, whose version is `out.version`.
void readHashNote(int fd, StoreStat& out) {
  char note[128];
  ssize_t n = ::fgetxattr(fd, kHashNote, note, sizeof note);
  out.hashKnown = false;
  if (n < 34) {
    return;
  }
  std::string text(note, static_cast<size_t>(n));
  ContentHash hash;
  if (text[32] == ' ' && text.compare(33, std::string::npos, out.version) == 0 &&
      ContentHash::fromHex(text.substr(0, 32), hash)) {
    out.hash = hash;
    out.hashKnown = true;
  }
}

// Reads the note of the regular file `name` in `dirFd`.
void readHashNoteAt(int dirFd, const std::string& name, StoreStat& out) {
  UniqueFd fd(::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (fd) {
    readHashNote(fd.get(), out);
  }
}

// Holds an advisory lock on a folder while a change checks the version of
// a name in it and then replaces or removes that name, so that agents on
// other machines or mirrors serving the same folder never slip a change
// between the check and the act. A folder that cannot be opened for
// reading is changed without the lock.
class FolderLock {
 public:
  explicit FolderLock(int dirFd) : fd_(::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    if (fd_) {
      while (::flock(fd_.get(), LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }

 private:
  UniqueFd fd_;  // closing it releases the lock
};

// Ok when `name` in `dirFd` is what `expect` says; kConflict otherwise.
Status checkExpected(int dirFd, const std::string& name, const Expect& expect) {
  if (expect.kind == Expect::Kind::kAnything) {
    return Status::ok();
  }
  struct stat st;
  if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno != ENOENT) {
      return Status::fromErrno(errno);
    }
    return expect.kind == Expect::Kind::kAbsent
               ? Status::ok()
               : Status::error(Status::Code::kConflict, "the file is gone");
  }
  if (expect.kind == Expect::Kind::kAbsent) {
    return Status::error(Status::Code::kConflict, "a file of that name is there");
  }
  return S_ISREG(st.st_mode) && versionOf(st) == expect.version
             ? Status::ok()
             : Status::error(Status::Code::kConflict, "the file changed");
}

// The names in the open folder `dirFd` (not "." and ".."), with whether
// each is a folder (a link never is). 0 or errno.
int readFolder(int dirFd, std::vector<StoreEntry>& out) {
  int fd = ::openat(dirFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    int err = errno;
    ::close(fd);
    return err;
  }
  std::unique_ptr<DIR, int (*)(DIR*)> guard(dir, ::closedir);
  errno = 0;
  while (struct dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") {
      continue;
    }
    bool isDir = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat st;
      isDir = ::fstatat(::dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
              S_ISDIR(st.st_mode);
    }
    StoreEntry item;
    item.name = name;
    item.isDir = isDir;
    out.push_back(std::move(item));
    errno = 0;
  }
  return errno;
}

// Where a path stands beneath the store: the folder that holds it, its
// name there, and 0 or the errno of Root::locate.
struct Place {
  UniqueFd dir;
  std::string name;
  int err = 0;
};

Place locate(const Root& root, const std::string& path, bool followLast) {
  Place place;
  place.err = root.locate(path, followLast, place.dir, place.name);
  return place;
}

// The entries of the folder `name` in `dirFd` (never through a link), and
// in `sub` that folder. 0 or errno.
int readSubFolder(int dirFd, const std::string& name, UniqueFd& sub,
                  std::vector<StoreEntry>& children) {
  sub.reset(::openat(dirFd, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  return sub ? readFolder(sub.get(), children) : errno;
}

// A place where something is to be created: a link out of the store is
// refused, anything else that stands in the way (a missing folder too) is a
// failure.
Status placeFailure(int err) {
  return err == EXDEV ? Status::fromResolve(err) : Status::fromErrno(err);
}

// Ok when the open `fd` is a regular file; `st` gets its status.
Status regularFile(int fd, struct stat& st) {
  if (::fstat(fd, &st) != 0) {
    return Status::fromErrno(errno);
  }
  return S_ISREG(st.st_mode) ? Status::ok() : Status::error(Status::Code::kFailed, kNotRegular);
}

// Removes `name` in `dirFd` and, for a folder, everything in it, never
// following a link. 0 or errno.
int removeTreeAt(int dirFd, const std::string& name) {
  struct stat st;
  if (::fstatat(dirFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? 0 : errno;
  }
  if (!S_ISDIR(st.st_mode)) {
    return ::unlinkat(dirFd, name.c_str(), 0) == 0 || errno == ENOENT ? 0 : errno;
  }
  UniqueFd sub;
  std::vector<StoreEntry> children;
  int err = readSubFolder(dirFd, name, sub, children);
  if (err != 0) {
    return err;
  }
  for (const StoreEntry& child : children) {
    err = removeTreeAt(sub.get(), child.name);
    if (err != 0) {
      return err;
    }
  }
  return ::unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT ? 0 : errno;
}

// Removes the folder `name` in `dirFd` when all it holds are temporary
// files of copies a killed agent left: listings hide them, so the folder
// looks empty to clients. Callers hold the folder's change lock, so no copy
// of this agent is writing there. 0, ENOTEMPTY or errno.
int removeFolderOfLeftovers(int dirFd, const std::string& name) {
  UniqueFd sub;
  std::vector<StoreEntry> children;
  int err = readSubFolder(dirFd, name, sub, children);
  if (err != 0) {
    return err;
  }
  for (const StoreEntry& child : children) {
    if (child.isDir || !isPartialName(child.name)) {
      return ENOTEMPTY;
    }
  }
  for (const StoreEntry& child : children) {
    ::unlinkat(sub.get(), child.name.c_str(), 0);
  }
  return ::unlinkat(dirFd, name.c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
}

class FolderHandle : public StoreHandle {
 public:
  explicit FolderHandle(UniqueFd fd) : fd_(std::move(fd)) {}

  Status size(long long& out) override {
    struct stat st;
    if (::fstat(fd_.get(), &st) != 0) {
      return Status::fromErrno(errno);
    }
    out = static_cast<long long>(st.st_size);
    return Status::ok();
  }

  Status readAt(long long offset, char* buffer, size_t n, size_t& got) override {
    got = 0;
    while (got < n) {
      ssize_t r = ::pread(fd_.get(), buffer + got, n - got, static_cast<off_t>(offset + got));
      if (r < 0 && errno == EINTR) {
        continue;
      }
      if (r < 0) {
        return Status::fromErrno(errno);
      }
      if (r == 0) {
        break;
      }
      got += static_cast<size_t>(r);
    }
    return Status::ok();
  }

  Status write(const char* data, size_t n) override {
    int err = writeAll(fd_.get(), data, n);
    return err == 0 ? Status::ok() : Status::fromErrno(err);
  }

  Status close() override {
    int fd = fd_.release();
    return fd < 0 || ::close(fd) == 0 ? Status::ok() : Status::fromErrno(errno);
  }

 private:
  UniqueFd fd_;
};

}  // namespace

Status FolderStore::stat(const std::string& path, bool followLast, StoreStat& out) {
  return statAt(path, followLast, true, out);
}

Status FolderStore::statBrief(const std::string& path, bool followLast, StoreStat& out) {
  return statAt(path, followLast, false, out);
}

Status FolderStore::statAt(const std::string& path, bool followLast, bool withNote,
                           StoreStat& out) {
  UniqueFd dir;
  std::string name = ".";
  int err = path.empty() ? root_.openDir("", dir) : root_.locate(path, followLast, dir, name);
  if (err != 0) {
    return Status::fromResolve(err);
  }
  struct stat st;
  if (::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return Status::fromResolve(errno);
  }
  fill(st, out);
  if (withNote && S_ISREG(st.st_mode)) {
    readHashNoteAt(dir.get(), name, out);
  }
  return Status::ok();
}

Status FolderStore::list(const std::string& path, std::vector<StoreEntry>& out) {
  StoreStat st;
  Status status = stat(path, true, st);
  if (!status.isOk()) {
    return status;
  }
  if (!st.isDir) {
    return Status::error(Status::Code::kNotDirectory);
  }
  UniqueFd folder;
  int err = root_.openDir(path, folder);
  if (err != 0) {
    return Status::fromResolve(err);
  }
  std::vector<StoreEntry> all;
  err = readFolder(folder.get(), all);
  if (err != 0) {
    return Status::fromErrno(err);
  }
  for (StoreEntry& entry : all) {
    if (!isPartialName(entry.name)) {
      out.push_back(std::move(entry));
    }
  }
  return Status::ok();
}

void FolderStore::describe(const std::string& path, std::vector<StoreEntry>& entries) {
  // One resolution of the folder, then each name below it.
  UniqueFd folder;
  if (root_.openDir(path, folder) != 0) {
    return;
  }
  for (StoreEntry& entry : entries) {
    struct stat st;
    if (entry.described ||
        ::fstatat(folder.get(), entry.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
      continue;
    }
    fill(st, entry.stat);
    if (S_ISREG(st.st_mode)) {
      readHashNoteAt(folder.get(), entry.name, entry.stat);
    }
    entry.described = true;
  }
}

std::string FolderStore::identity() const {
  char real[PATH_MAX];
  return std::string("folder:") +
         (::realpath(root_.path().c_str(), real) != nullptr ? real : root_.path());
}

Status FolderStore::download(const std::string& path, ByteSink& target, StoreStat& copied,
                             const std::string& ifNoneMatch) {
  auto [dir, name, err] = locate(root_, path, true);
  if (err != 0) {
    return Status::fromResolve(err);
  }
  // Non-blocking: a FIFO or device must not hold the agent; it is refused
  // below anyway.
  UniqueFd in(::openat(dir.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!in) {
    return errno == ENOENT ? Status::error(Status::Code::kNotFound) : Status::fromErrno(errno);
  }
  struct stat st;
  Status status = regularFile(in.get(), st);
  if (!status.isOk()) {
    return status;
  }
  fill(st, copied);
  readHashNote(in.get(), copied);
  if (!ifNoneMatch.empty() && copied.version == ifNoneMatch) {
    return Status::error(Status::Code::kNotModified);
  }
  err = target.copyFrom(in.get());
  if (err != 0) {
    return Status::fromErrno(err);
  }
  // Changed in place while it was copied: the copy may mix two versions.
  struct stat after;
  if (::fstat(in.get(), &after) == 0 && versionOf(after) != copied.version) {
    return Status::error(Status::Code::kFailed, "the file changed while it was copied");
  }
  return Status::ok();
}

Status FolderStore::upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                           StoreStat& written, ContentHash& sent) {
  auto [dir, name, err] = locate(root_, path, true);
  if (err != 0) {
    return Status::fromResolve(err);
  }
  struct stat st;
  if (::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode)) {
    return Status::fromErrno(EISDIR);
  }
  Status status = checkExpected(dir.get(), name, expect);
  if (!status.isOk()) {
    return status;  // refused before a byte is copied
  }
  AtomicFile out;
  if ((err = out.begin(dir.get(), name)) != 0 || (err = out.copyFrom(source)) != 0) {
    return Status::fromErrno(err);
  }
  noteHash(out.fd(), out.hash());
  {
    // Checked again just before the rename, under the folder's lock.
    FolderLock lock(dir.get());
    status = checkExpected(dir.get(), name, expect);
    if (!status.isOk()) {
      return status;
    }
    if ((err = out.commit(mode)) != 0) {
      return Status::fromErrno(err);
    }
  }
  sent = out.hash();
  if (::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      st.st_ino == out.committedInode()) {
    fill(st, written);
    written.hashKnown = true;
    written.hash = sent;
  } else {
    written = StoreStat();  // replaced again meanwhile: the caller asks
  }
  return Status::ok();
}

Status FolderStore::makeDirs(const std::string& path) {
  std::vector<std::string> names = splitNames(path);
  UniqueFd current;
  int err = root_.openDir("", current);
  if (err != 0) {
    return Status::fromErrno(err);
  }
  for (size_t i = 0; i < names.size(); ++i) {
    if (::mkdirat(current.get(), names[i].c_str(), 0755) != 0 && errno != EEXIST) {
      return Status::fromErrno(errno);
    }
    // Whatever stands there now (made here, by someone else, or a link)
    // must be a folder beneath the store.
    UniqueFd next;
    err = root_.openDir(joinNames(names, i + 1), next);
    if (err == EXDEV) {
      return Status::error(Status::Code::kRefused);
    }
    if (err != 0) {
      return Status::fromErrno(err == ENOENT ? ENOTDIR : err);
    }
    current = std::move(next);
  }
  return Status::ok();
}

Status FolderStore::createFile(const std::string& path, mode_t mode) {
  auto [dir, name, err] = locate(root_, path, true);
  if (err != 0) {
    return placeFailure(err);
  }
  UniqueFd fd(::openat(dir.get(), name.c_str(),
                       O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
  return fd ? Status::ok() : Status::fromErrno(errno);
}

Status FolderStore::move(const std::string& from, const std::string& to) {
  auto [fromDir, fromName, err] = locate(root_, from, false);
  if (err != 0) {
    return Status::fromResolve(err);
  }
  auto [toDir, toName, toErr] = locate(root_, to, false);
  if (toErr != 0) {
    return placeFailure(toErr);
  }
  if (::renameat(fromDir.get(), fromName.c_str(), toDir.get(), toName.c_str()) != 0) {
    return Status::fromErrno(errno);
  }
  return Status::ok();
}

Status FolderStore::chmod(const std::string& path, mode_t mode) {
  auto [dir, name, err] = locate(root_, path, true);
  if (err != 0) {
    return Status::fromResolve(err);
  }
  struct stat st;
  if (::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return Status::fromResolve(errno);
  }
  // The name is no link (it was followed above); should one be swapped in
  // meanwhile, AT_SYMLINK_NOFOLLOW refuses it instead of following.
  if (::fchmodat(dir.get(), name.c_str(), mode, AT_SYMLINK_NOFOLLOW) == 0) {
    return Status::ok();
  }
  // Without /proc the C library cannot do the above; a descriptor can.
  if (errno == ENOENT || errno == ENOSYS) {
    UniqueFd fd(::openat(dir.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (fd && ::fchmod(fd.get(), mode) == 0) {
      return Status::ok();
    }
  }
  return Status::fromErrno(errno);
}

Status FolderStore::remove(const std::string& path, bool recursive, const Expect& expect) {
  auto [dir, name, err] = locate(root_, path, false);
  if (err == ENOENT || err == ENOTDIR) {
    return Status::ok();
  }
  if (err != 0) {
    return Status::fromResolve(err);
  }
  struct stat st;
  if (::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT ? Status::ok() : Status::fromErrno(errno);
  }
  if (recursive) {
    err = removeTreeAt(dir.get(), name);
    return err == 0 ? Status::ok() : Status::fromErrno(err);
  }
  if (!S_ISDIR(st.st_mode)) {
    FolderLock lock(dir.get());
    Status status = checkExpected(dir.get(), name, expect);
    if (!status.isOk()) {
      return status;
    }
    return ::unlinkat(dir.get(), name.c_str(), 0) == 0 || errno == ENOENT
               ? Status::ok()
               : Status::fromErrno(errno);
  }
  if (::unlinkat(dir.get(), name.c_str(), AT_REMOVEDIR) == 0) {
    return Status::ok();
  }
  err = errno;
  if (err == ENOTEMPTY || err == EEXIST) {
    err = removeFolderOfLeftovers(dir.get(), name);
    if (err == 0) {
      return Status::ok();
    }
    if (err == ENOTEMPTY || err == EEXIST) {
      return Status::error(Status::Code::kNotEmpty);
    }
  }
  return Status::fromErrno(err);
}

Status FolderStore::open(const std::string& path, const OpenMode& mode,
                         std::unique_ptr<StoreHandle>& out) {
  auto [dir, name, err] = locate(root_, path, true);
  if (err != 0) {
    return placeFailure(err);
  }
  int flags = mode.read && mode.write ? O_RDWR : (mode.write ? O_WRONLY : O_RDONLY);
  flags |=
      (mode.create ? O_CREAT : 0) | (mode.truncate ? O_TRUNC : 0) | (mode.append ? O_APPEND : 0);
  UniqueFd fd(::openat(dir.get(), name.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644));
  if (!fd) {
    return Status::fromErrno(errno);
  }
  struct stat st;
  Status status = regularFile(fd.get(), st);
  if (!status.isOk()) {
    return status;
  }
  ::fcntl(fd.get(), F_SETFL, mode.append ? O_APPEND : 0);  // blocking again
  out.reset(new FolderHandle(std::move(fd)));
  return Status::ok();
}

}  // namespace velagent
