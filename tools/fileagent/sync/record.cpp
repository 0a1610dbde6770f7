#include "sync/record.h"

#include <errno.h>
#include <sqlite3.h>
#include <unistd.h>
#include <xxhash.h>

#include <cstdio>
#include <cstring>
#include <map>

#include "faults.h"
#include "server/agent_log.h"

namespace velagent {

namespace {

constexpr int kBusyMs = 5000;
const char kSchemaVersion[] = "1";

const char kSchema[] =
    "CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS files("
    "  path TEXT PRIMARY KEY,"
    "  version TEXT NOT NULL,"
    "  settled INTEGER NOT NULL,"
    "  identity INTEGER NOT NULL,"
    "  mirror_inode INTEGER NOT NULL,"
    "  mirror_size INTEGER NOT NULL,"
    "  mirror_mtime_ns INTEGER NOT NULL,"
    "  mirror_settled INTEGER NOT NULL,"
    "  hash BLOB NOT NULL) WITHOUT ROWID;"
    "CREATE INDEX IF NOT EXISTS files_by_version ON files(version) WHERE identity = 1;"
    "CREATE INDEX IF NOT EXISTS files_by_hash ON files(hash);"
    "CREATE TABLE IF NOT EXISTS pending("
    "  path TEXT PRIMARY KEY,"
    "  version TEXT NOT NULL,"
    "  settled INTEGER NOT NULL,"
    "  identity INTEGER NOT NULL,"
    "  size INTEGER NOT NULL,"
    "  hash BLOB NOT NULL) WITHOUT ROWID;";

const char kColumns[] =
    "path, version, settled, identity, mirror_inode, mirror_size, mirror_mtime_ns, "
    "mirror_settled, hash";

// The file of one mirror and service in the state folder.
std::string fileFor(const std::string& stateDir, const std::string& mirror,
                    const std::string& service) {
  std::string key = mirror + '\n' + service;
  char name[64];
  std::snprintf(name, sizeof name, "sync-%016llx.db",
                static_cast<unsigned long long>(XXH3_64bits(key.data(), key.size())));
  return stateDir + "/" + name;
}

bool corrupt(int code) {
  code &= 0xff;
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

void removeDatabase(const std::string& file) {
  for (const char* suffix : {"", "-wal", "-shm", "-journal"}) {
    ::unlink((file + suffix).c_str());
  }
}

}  // namespace

struct SyncRecord::Statements {
  sqlite3_stmt* get = nullptr;
  sqlite3_stmt* put = nullptr;
  sqlite3_stmt* dropOne = nullptr;
  sqlite3_stmt* dropTree = nullptr;
  sqlite3_stmt* below = nullptr;
  sqlite3_stmt* byVersion = nullptr;
  sqlite3_stmt* byHash = nullptr;
  sqlite3_stmt* move = nullptr;
  sqlite3_stmt* from = nullptr;
  sqlite3_stmt* expect = nullptr;
  sqlite3_stmt* expected = nullptr;
  sqlite3_stmt* unexpect = nullptr;
  sqlite3_stmt* unexpectTree = nullptr;

  ~Statements() {
    for (sqlite3_stmt* s : {get, put, dropOne, dropTree, below, byVersion, byHash, move, from,
                            expect, expected, unexpect, unexpectTree}) {
      sqlite3_finalize(s);
    }
  }
};

namespace {

// Opens (making) the database `file` ("" in memory) with the schema, for
// `mirror` and `service`. SQLITE_OK, or the error; `db` is closed on error.
int openDatabase(const std::string& file, const std::string& mirror, const std::string& service,
                 sqlite3*& db) {
  db = nullptr;
  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
  int rc = sqlite3_open_v2(file.empty() ? ":memory:" : file.c_str(), &db, flags, nullptr);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(db, kBusyMs);
    // Write-ahead log, flushed at checkpoints: a commit survives the
    // process being killed; a power cut may lose the last ones, which
    // costs a comparison later, never an edit.
    rc = sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr,
                      nullptr);
  }
  if (rc == SQLITE_OK) {
    rc = sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr);
  }
  if (rc == SQLITE_OK) {
    // The keys say whose record this is: a file of another mirror or
    // service (a collision of names) is not used.
    sqlite3_stmt* stmt = nullptr;
    rc = sqlite3_prepare_v2(db, "SELECT key, value FROM meta", -1, &stmt, nullptr);
    std::string seenMirror, seenService, seenVersion;
    bool any = false;
    while (rc == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW) {
      any = true;
      std::string key = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
      std::string value = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 1));
      (key == "mirror" ? seenMirror : key == "service" ? seenService : seenVersion) = value;
    }
    if (stmt != nullptr) {
      rc = sqlite3_finalize(stmt);
    }
    if (rc == SQLITE_OK && !any) {
      std::string insert = "INSERT INTO meta VALUES('schema', '" + std::string(kSchemaVersion) +
                           "'), ('mirror', ?1), ('service', ?2)";
      rc = sqlite3_prepare_v2(db, insert.c_str(), -1, &stmt, nullptr);
      if (rc == SQLITE_OK) {
        sqlite3_bind_text(stmt, 1, mirror.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(stmt, 2, service.c_str(), -1, SQLITE_TRANSIENT);
        rc = sqlite3_step(stmt) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(db);
        sqlite3_finalize(stmt);
      }
    } else if (rc == SQLITE_OK && (seenMirror != mirror || seenService != service)) {
      rc = SQLITE_MISMATCH;
    } else if (rc == SQLITE_OK && seenVersion != kSchemaVersion) {
      rc = SQLITE_NOTADB;  // a record this agent cannot read: rebuilt
    }
  }
  if (rc != SQLITE_OK) {
    sqlite3_close_v2(db);
    db = nullptr;
  }
  return rc;
}

}  // namespace

std::unique_ptr<SyncRecord> SyncRecord::open(const std::string& stateDir, const std::string& mirror,
                                             const std::string& service, std::string& note) {
  note.clear();
  const std::string file = fileFor(stateDir, mirror, service);
  bool existed = ::access(file.c_str(), F_OK) == 0;
  sqlite3* db = nullptr;
  int rc = openDatabase(file, mirror, service, db);
  if (corrupt(rc)) {
    removeDatabase(file);
    rc = openDatabase(file, mirror, service, db);
    note = "sync record " + file + " was unreadable and is rebuilt empty";
  }
  if (rc != SQLITE_OK) {
    note = "sync record " + file + " cannot be used (" + sqlite3_errstr(rc) +
           "): records are kept in memory until the agent stops";
    return inMemory(mirror, service);
  }
  std::unique_ptr<SyncRecord> record(new SyncRecord(db, file));
  if (!record->prepare()) {
    note =
        "sync record " + file + " cannot be used: records are kept in memory until the agent stops";
    return inMemory(mirror, service);
  }
  if (note.empty() && !existed) {
    note = "sync record " + file + " created";
  }
  record->mirror_ = mirror;
  record->service_ = service;
  return record;
}

std::unique_ptr<SyncRecord> SyncRecord::inMemory(const std::string& mirror,
                                                 const std::string& service) {
  sqlite3* db = nullptr;
  if (openDatabase("", mirror, service, db) != SQLITE_OK) {
    return nullptr;
  }
  std::unique_ptr<SyncRecord> record(new SyncRecord(db, ""));
  record->mirror_ = mirror;
  record->service_ = service;
  return record->prepare() ? std::move(record) : nullptr;
}

SyncRecord::SyncRecord(sqlite3* db, std::string file) : db_(db), file_(std::move(file)) {}

SyncRecord::~SyncRecord() {
  statements_.reset();
  sqlite3_close_v2(db_);
}

bool SyncRecord::prepare() {
  statements_.reset(new Statements);
  Statements& s = *statements_;
  const std::string select = std::string("SELECT ") + kColumns + " FROM files ";
  struct {
    sqlite3_stmt** stmt;
    std::string sql;
  } all[] = {
      {&s.get, select + "WHERE path = ?1"},
      {&s.put, std::string("INSERT OR REPLACE INTO files(") + kColumns +
                   ") VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)"},
      {&s.dropOne, "DELETE FROM files WHERE path = ?1"},
      {&s.dropTree, "DELETE FROM files WHERE path = ?1 OR (path >= ?2 AND path < ?3)"},
      {&s.below, select + "WHERE path >= ?1 AND path < ?2 ORDER BY path"},
      {&s.byVersion, select + "WHERE version = ?1 AND identity = 1"},
      {&s.byHash, select + "WHERE hash = ?1"},
      {&s.move,
       "UPDATE OR REPLACE files SET path = ?4 || substr(path, ?5) "
       "WHERE path = ?1 OR (path >= ?2 AND path < ?3)"},
      {&s.from, "SELECT path FROM files WHERE path >= ?1 AND path < ?2 ORDER BY path LIMIT 1"},
      {&s.expect, "INSERT OR REPLACE INTO pending VALUES(?1, ?2, ?3, ?4, ?5, ?6)"},
      {&s.expected, "SELECT version, settled, identity, size, hash FROM pending WHERE path = ?1"},
      {&s.unexpect, "DELETE FROM pending WHERE path = ?1"},
      {&s.unexpectTree, "DELETE FROM pending WHERE path = ?1 OR (path >= ?2 AND path < ?3)"},
  };
  for (auto& one : all) {
    if (sqlite3_prepare_v2(db_, one.sql.c_str(), -1, one.stmt, nullptr) != SQLITE_OK) {
      statements_.reset();
      return false;
    }
  }
  return true;
}

void SyncRecord::failed(const char* what, int code) {
  if (code != lastLoggedError_) {
    lastLoggedError_ = code;
    logLine(std::string("sync record: cannot ") + what + ": " + sqlite3_errstr(code) +
            " (a lost record costs a comparison or a copy later, never an edit)");
  }
  if (!corrupt(code) || file_.empty()) {
    return;
  }
  // Corrupt under way: rebuilt empty, as at start.
  statements_.reset();
  sqlite3_close_v2(db_);
  db_ = nullptr;
  removeDatabase(file_);
  if (openDatabase(file_, mirror_, service_, db_) != SQLITE_OK || !prepare()) {
    sqlite3_close_v2(db_);
    openDatabase("", mirror_, service_, db_);
    file_.clear();
    prepare();
  }
  logLine("sync record was corrupt and is rebuilt empty" +
          std::string(file_.empty() ? ", in memory" : ""));
}

namespace {

void readHash(sqlite3_stmt* stmt, int column, ContentHash& out) {
  out = ContentHash();
  if (sqlite3_column_bytes(stmt, column) == 16) {
    const unsigned char* bytes =
        static_cast<const unsigned char*>(sqlite3_column_blob(stmt, column));
    for (int i = 0; i < 8; ++i) {
      out.high = (out.high << 8) | bytes[i];
      out.low = (out.low << 8) | bytes[8 + i];
    }
  }
}

void readRow(sqlite3_stmt* stmt, RecordEntry& out) {
  auto text = [stmt](int column) {
    const unsigned char* value = sqlite3_column_text(stmt, column);
    return value == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(value));
  };
  out.path = text(0);
  out.version = text(1);
  out.settled = sqlite3_column_int(stmt, 2) != 0;
  out.identity = sqlite3_column_int(stmt, 3) != 0;
  out.mirrorInode = static_cast<ino_t>(sqlite3_column_int64(stmt, 4));
  out.mirrorSize = sqlite3_column_int64(stmt, 5);
  out.mirrorMtimeNs = sqlite3_column_int64(stmt, 6);
  out.mirrorSettled = sqlite3_column_int(stmt, 7) != 0;
  readHash(stmt, 8, out.hash);
}

// The 16 bytes a hash is kept as, high half first.
void hashBytes(const ContentHash& hash, unsigned char* bytes) {
  for (int i = 0; i < 8; ++i) {
    bytes[i] = static_cast<unsigned char>(hash.high >> (56 - 8 * i));
    bytes[8 + i] = static_cast<unsigned char>(hash.low >> (56 - 8 * i));
  }
}

// Runs a query to its end, appending every row.
int collect(sqlite3_stmt* stmt, std::vector<RecordEntry>& out) {
  int rc;
  while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
    RecordEntry entry;
    readRow(stmt, entry);
    out.push_back(std::move(entry));
  }
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

// Runs a change; SQLITE_OK or the error.
int change(sqlite3_stmt* stmt) {
  int rc = sqlite3_step(stmt);
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

void bind(sqlite3_stmt* stmt, int index, const std::string& text) {
  sqlite3_bind_text(stmt, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

// Binds the bounds of the paths below the folder `path`: "a/" <= p < "a0"
// ('0' follows '/'). Below the top ("") is everything: any text is less
// than a blob.
void bindBelow(sqlite3_stmt* stmt, int lowIndex, const std::string& path) {
  if (path.empty()) {
    bind(stmt, lowIndex, "");
    sqlite3_bind_zeroblob(stmt, lowIndex + 1, 0);
    return;
  }
  bind(stmt, lowIndex, path + "/");
  bind(stmt, lowIndex + 1, path + "0");
}

}  // namespace

bool SyncRecord::get(const std::string& path, RecordEntry& out) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!statements_) {
    return false;
  }
  sqlite3_stmt* stmt = statements_->get;
  bind(stmt, 1, path);
  int rc = sqlite3_step(stmt);
  bool found = rc == SQLITE_ROW;
  if (found) {
    readRow(stmt, out);
  }
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    failed("read", rc);
  }
  return found;
}

bool SyncRecord::put(const RecordEntry& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!statements_) {
    return false;
  }
  if (recordWritesFail()) {
    failed("write", SQLITE_IOERR);
    return false;
  }
  sqlite3_stmt* stmt = statements_->put;
  unsigned char bytes[16];
  hashBytes(entry.hash, bytes);
  bind(stmt, 1, entry.path);
  bind(stmt, 2, entry.version);
  sqlite3_bind_int(stmt, 3, entry.settled ? 1 : 0);
  sqlite3_bind_int(stmt, 4, entry.identity ? 1 : 0);
  sqlite3_bind_int64(stmt, 5, static_cast<sqlite3_int64>(entry.mirrorInode));
  sqlite3_bind_int64(stmt, 6, entry.mirrorSize);
  sqlite3_bind_int64(stmt, 7, entry.mirrorMtimeNs);
  sqlite3_bind_int(stmt, 8, entry.mirrorSettled ? 1 : 0);
  sqlite3_bind_blob(stmt, 9, bytes, sizeof bytes, SQLITE_TRANSIENT);
  int rc = begin();
  rc = rc == SQLITE_OK ? change(stmt) : rc;
  if (rc == SQLITE_OK) {
    bind(statements_->unexpect, 1, entry.path);
    rc = change(statements_->unexpect);
  }
  rc = end(rc);
  if (rc != SQLITE_OK) {
    sqlite3_reset(stmt);
    failed("write", rc);
  }
  return rc == SQLITE_OK;
}

bool SyncRecord::expect(const RecordEntry& entry) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!statements_) {
    return false;
  }
  if (recordWritesFail()) {
    failed("write", SQLITE_IOERR);
    return false;
  }
  sqlite3_stmt* stmt = statements_->expect;
  unsigned char bytes[16];
  hashBytes(entry.hash, bytes);
  bind(stmt, 1, entry.path);
  bind(stmt, 2, entry.version);
  sqlite3_bind_int(stmt, 3, entry.settled ? 1 : 0);
  sqlite3_bind_int(stmt, 4, entry.identity ? 1 : 0);
  sqlite3_bind_int64(stmt, 5, entry.mirrorSize);
  sqlite3_bind_blob(stmt, 6, bytes, sizeof bytes, SQLITE_TRANSIENT);
  int rc = change(stmt);
  if (rc != SQLITE_OK) {
    failed("write", rc);
  }
  return rc == SQLITE_OK;
}

bool SyncRecord::expected(const std::string& path, RecordEntry& out) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!statements_) {
    return false;
  }
  sqlite3_stmt* stmt = statements_->expected;
  bind(stmt, 1, path);
  int rc = sqlite3_step(stmt);
  bool found = rc == SQLITE_ROW;
  if (found) {
    out = RecordEntry();
    out.path = path;
    const unsigned char* version = sqlite3_column_text(stmt, 0);
    out.version = version == nullptr ? "" : reinterpret_cast<const char*>(version);
    out.settled = sqlite3_column_int(stmt, 1) != 0;
    out.identity = sqlite3_column_int(stmt, 2) != 0;
    out.mirrorSize = sqlite3_column_int64(stmt, 3);
    readHash(stmt, 4, out.hash);
  }
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    failed("read", rc);
  }
  return found;
}

bool SyncRecord::drop(const std::string& path, bool tree) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!statements_) {
    return false;
  }
  if (recordWritesFail()) {
    failed("write", SQLITE_IOERR);
    return false;
  }
  int rc = SQLITE_OK;
  for (sqlite3_stmt* stmt : {tree ? statements_->dropTree : statements_->dropOne,
                             tree ? statements_->unexpectTree : statements_->unexpect}) {
    bind(stmt, 1, path);
    if (tree) {
      bindBelow(stmt, 2, path);
    }
    rc = rc == SQLITE_OK ? change(stmt) : rc;
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
  }
  if (rc != SQLITE_OK) {
    failed("write", rc);
  }
  return rc == SQLITE_OK;
}

bool SyncRecord::move(const std::string& from, const std::string& to) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!statements_ || from.empty() || to.empty()) {
    return false;
  }
  if (recordWritesFail()) {
    failed("write", SQLITE_IOERR);
    return false;
  }
  // What was recorded at the destination was replaced there by the move.
  int rc = begin();
  if (rc == SQLITE_OK) {
    sqlite3_stmt* drop = statements_->dropTree;
    bind(drop, 1, to);
    bindBelow(drop, 2, to);
    rc = change(drop);
  }
  if (rc == SQLITE_OK) {
    sqlite3_stmt* stmt = statements_->move;
    bind(stmt, 1, from);
    bindBelow(stmt, 2, from);
    bind(stmt, 4, to);
    sqlite3_bind_int(stmt, 5, static_cast<int>(from.size()) + 1);
    rc = change(stmt);
  }
  rc = end(rc);
  if (rc != SQLITE_OK) {
    failed("write", rc);
  }
  return rc == SQLITE_OK;
}

int SyncRecord::begin() {
  return batched_ > 0 ? SQLITE_OK : sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
}

int SyncRecord::end(int rc) {
  if (batched_ > 0) {
    return rc;  // the batch commits
  }
  if (rc == SQLITE_OK) {
    rc = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
  }
  if (rc != SQLITE_OK) {
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  return rc;
}

SyncRecord::Batch::Batch(SyncRecord& record) : record_(record) {
  std::lock_guard<std::mutex> lock(record_.mutex_);
  if (record_.statements_ && record_.batched_++ == 0 &&
      sqlite3_exec(record_.db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
    --record_.batched_;  // each change commits on its own then
  }
}

SyncRecord::Batch::~Batch() {
  std::lock_guard<std::mutex> lock(record_.mutex_);
  if (record_.batched_ > 0 && --record_.batched_ == 0) {
    int rc = sqlite3_exec(record_.db_, "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) {
      sqlite3_exec(record_.db_, "ROLLBACK", nullptr, nullptr, nullptr);
      record_.failed("write", rc);
    }
  }
}

std::vector<RecordEntry> SyncRecord::below(const std::string& path, bool directOnly) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<RecordEntry> out;
  if (!statements_) {
    return out;
  }
  sqlite3_stmt* stmt = statements_->below;
  bindBelow(stmt, 1, path);
  int rc = collect(stmt, out);
  if (rc != SQLITE_OK) {
    failed("read", rc);
  }
  if (directOnly) {
    size_t skip = path.empty() ? 0 : path.size() + 1;
    std::vector<RecordEntry> direct;
    for (RecordEntry& entry : out) {
      if (entry.path.find('/', skip) == std::string::npos) {
        direct.push_back(std::move(entry));
      }
    }
    out.swap(direct);
  }
  return out;
}

std::vector<SyncRecord::Child> SyncRecord::children(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::map<std::string, Child> found;
  if (!statements_) {
    return {};
  }
  const std::string prefix = path.empty() ? "" : path + "/";
  sqlite3_stmt* stmt = statements_->from;
  // One seek per name, and one past the entries below each folder name:
  // a name "n" sorts right before the entries "n/..." save for names such
  // as "n!" in between (found as names of their own), and "n/..." all sort
  // before "n0". A text is compared byte by byte, so "n" + NUL is the
  // least text after "n".
  std::string cursor = prefix;
  int rc = SQLITE_OK;
  for (;;) {
    bind(stmt, 1, cursor);
    if (path.empty()) {
      sqlite3_bind_zeroblob(stmt, 2, 0);
    } else {
      bind(stmt, 2, path + "0");
    }
    rc = sqlite3_step(stmt);
    std::string next;
    if (rc == SQLITE_ROW) {
      const unsigned char* text = sqlite3_column_text(stmt, 0);
      next.assign(reinterpret_cast<const char*>(text),
                  static_cast<size_t>(sqlite3_column_bytes(stmt, 0)));
    }
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);
    if (rc != SQLITE_ROW || next.size() <= prefix.size()) {
      break;
    }
    size_t slash = next.find('/', prefix.size());
    std::string name = next.substr(
        prefix.size(), slash == std::string::npos ? std::string::npos : slash - prefix.size());
    Child& child = found[name];
    child.name = name;
    if (slash == std::string::npos) {
      child.file = true;
      cursor = prefix + name + std::string(1, '\0');
    } else {
      child.folder = true;
      cursor = prefix + name + "0";
    }
  }
  if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
    failed("read", rc);
  }
  std::vector<Child> out;
  for (auto& entry : found) {
    out.push_back(entry.second);
  }
  return out;
}

std::vector<RecordEntry> SyncRecord::withVersion(const std::string& version) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<RecordEntry> out;
  if (!statements_ || version.empty()) {
    return out;
  }
  sqlite3_stmt* stmt = statements_->byVersion;
  bind(stmt, 1, version);
  int rc = collect(stmt, out);
  if (rc != SQLITE_OK) {
    failed("read", rc);
  }
  return out;
}

std::vector<RecordEntry> SyncRecord::withHash(const ContentHash& hash) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<RecordEntry> out;
  if (!statements_) {
    return out;
  }
  sqlite3_stmt* stmt = statements_->byHash;
  unsigned char bytes[16];
  hashBytes(hash, bytes);
  sqlite3_bind_blob(stmt, 1, bytes, sizeof bytes, SQLITE_TRANSIENT);
  int rc = collect(stmt, out);
  if (rc != SQLITE_OK) {
    failed("read", rc);
  }
  return out;
}

}  // namespace velagent
