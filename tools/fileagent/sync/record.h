// The sync record: for each path of one mirror and one service, what the
// agent last synced. It keeps the service's version of the file at that
// moment and the mirror copy's inode, size, modification time and content
// hash right after the copy, so that the next command can tell which side
// changed since (detect), decide (decision.h) and act.
//
// The record lives in an SQLite database (write-ahead log) in the agent's
// state folder, one file per mirror and service (named by a hash of both,
// and both written inside and checked on open), so agents that share a
// state folder never mix records. It is written after the act it
// describes: a record lost to a crash or a full disk costs a comparison or
// a copy later, never an edit. A database that is missing is made; one
// that is not a database or is corrupt is rebuilt empty; one that cannot
// be written at all is replaced by a record in memory for the life of the
// process. Each of these is one line on the agent's log; none stops the
// agent, and no method throws.
//
// Thread safety: every method may be called from several threads at once
// (one connection, one mutex).
#ifndef VEL_TOOLS_FILEAGENT_SYNC_RECORD_H_
#define VEL_TOOLS_FILEAGENT_SYNC_RECORD_H_

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fs/content_hash.h"

struct sqlite3;

namespace velagent {

// What was synced of one file.
struct RecordEntry {
  std::string path;  // clean, relative to the mirror root and the store top
  // The service's version then (StoreStat::version), whether it was
  // settled, and whether it identifies the content through moves.
  std::string version;
  bool settled = false;
  bool identity = false;
  // The mirror copy right after the sync; an inode of 0 means "unknown":
  // the copy is then compared by its hash. Unless `mirrorSettled`, the
  // copy was stamped so recently that an edit in the same clock tick could
  // have kept its time, and only its hash can vouch for it.
  ino_t mirrorInode = 0;
  long long mirrorSize = 0;
  long long mirrorMtimeNs = 0;
  bool mirrorSettled = false;
  // The content both sides held then.
  ContentHash hash;
};

class SyncRecord {
 public:
  // Opens the record of `mirror` and `service` (the mirror root's real
  // path and Store::identity()) in the folder `stateDir`, which must
  // exist. Never fails; see above. `note` gets the log line to write when
  // something had to be rebuilt or replaced ("" otherwise).
  static std::unique_ptr<SyncRecord> open(const std::string& stateDir, const std::string& mirror,
                                          const std::string& service, std::string& note);
  // Makes the changes of this record until it is destroyed one
  // transaction (changes of other threads meanwhile join it): for commands
  // that change many entries at once.
  class Batch {
   public:
    explicit Batch(SyncRecord& record);
    ~Batch();
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;

   private:
    SyncRecord& record_;
  };

  // A record in memory only (tests, and the fallback above).
  static std::unique_ptr<SyncRecord> inMemory(const std::string& mirror,
                                              const std::string& service);
  ~SyncRecord();
  SyncRecord(const SyncRecord&) = delete;
  SyncRecord& operator=(const SyncRecord&) = delete;

  // The database file ("" in memory).
  const std::string& file() const { return file_; }

  // The entry of `path`; false when there is none or it cannot be read.
  bool get(const std::string& path, RecordEntry& out);
  // Writes `entry` (replacing one for the same path). False when it could
  // not be written; the failure is logged once per kind of error.
  bool put(const RecordEntry& entry);
  // Notes the copy of `entry` (its version, hash and size) about to be put
  // in place in the mirror, before the rename that puts it there: should
  // the agent stop before put() records it, the next command that finds
  // that content at the path takes it up instead of calling it an edit.
  // put() and drop() forget the note.
  bool expect(const RecordEntry& entry);
  // The note of `path`; false when there is none.
  bool expected(const std::string& path, RecordEntry& out);
  // Forgets `path` and, with `tree`, everything below it.
  bool drop(const std::string& path, bool tree);
  // Renames `from` and everything below it to `to`, replacing entries
  // there.
  bool move(const std::string& from, const std::string& to);
  // The entries below the folder `path` ("" the top): only its direct
  // children with `directOnly`, else every one at any depth.
  std::vector<RecordEntry> below(const std::string& path, bool directOnly);
  // The names directly below the folder `path` ("" the top) that have
  // entries, each with whether that name itself has one (a file) and
  // whether entries lie below it (a folder).
  struct Child {
    std::string name;
    bool file = false;
    bool folder = false;
  };
  std::vector<Child> children(const std::string& path);
  // The entries whose service version is `version` and identifies the
  // content (candidates for a rename seen on the service).
  std::vector<RecordEntry> withVersion(const std::string& version);
  // The entries of files that held the content `hash` (candidates for a
  // rename seen on the service, by a content hash the service keeps).
  std::vector<RecordEntry> withHash(const ContentHash& hash);

 private:
  struct Statements;
  SyncRecord(sqlite3* db, std::string file);
  bool prepare();
  // BEGIN unless a batch is open; end() commits (or rolls back after the
  // error `rc`) unless a batch is open. Called with the mutex held.
  int begin();
  int end(int rc);
  // Logs `what` failed with the database's error (once per error code),
  // and rebuilds the database when it turned out corrupt.
  void failed(const char* what, int code);

  std::mutex mutex_;
  sqlite3* db_;
  std::string file_;
  std::string mirror_;
  std::string service_;
  std::unique_ptr<Statements> statements_;
  int lastLoggedError_ = 0;
  int batched_ = 0;  // open batches
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SYNC_RECORD_H_
