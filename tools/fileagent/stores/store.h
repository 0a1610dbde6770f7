// The service side of the agent: where the files the clients see live.
// The command layer (commands.h) maps each request onto one Store; each
// kind of store (a folder on this machine, a network service) is one
// implementation in a file of its own.
//
// Paths are relative to the store's top, names joined by "/", without ""
// "." or ".." names; "" is the top itself. The command layer has already
// refused anything else.
//
// Thread safety: every method may be called from several threads at once.
// The command layer serialises changes to one path (path_locks.h); a store
// needs no lock of its own for that. No method throws. Any method may
// answer kServiceError when the service behind the store fails.
#ifndef VEL_TOOLS_FILEAGENT_STORES_STORE_H_
#define VEL_TOOLS_FILEAGENT_STORES_STORE_H_

#include <sys/types.h>

#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "fs/byte_sink.h"

namespace velagent {

// The outcome of one store call.
class Status {
 public:
  enum class Code {
    kOk,
    kNotFound,      // the object (or a folder on its way) does not exist
    kNotDirectory,  // a folder was needed
    kNotEmpty,      // a folder to remove still holds something
    kRefused,       // the path leaves the store (a link pointing outside)
    kFailed,        // anything else; message() says what
    // The service behind the store did not answer as it should (not
    // reached, credentials refused, an unexpected status): message() is the
    // whole error text, passed to the client as it is.
    kServiceError,
    // A change found the service's version of the path other than the
    // caller expected (Expect): nothing was changed.
    kConflict,
    // A download found the service still at the version the caller named:
    // nothing was written.
    kNotModified,
  };

  static Status ok() { return Status(Code::kOk, ""); }
  static Status error(Code code, const std::string& message = "") { return Status(code, message); }
  // kFailed with the system's text for `err`.
  static Status fromErrno(int err);
  // For the errors of Root::openDir and Root::locate: EXDEV is kRefused,
  // ENOENT and ENOTDIR kNotFound, anything else kFailed.
  static Status fromResolve(int err);

  bool isOk() const { return code_ == Code::kOk; }
  Code code() const { return code_; }
  const std::string& message() const { return message_; }

 private:
  Status(Code code, const std::string& message) : code_(code), message_(message) {}
  Code code_;
  std::string message_;
};

struct StoreStat {
  bool isDir = false;
  bool isLink = false;  // only when asked not to follow a last link
  long long size = 0;
  time_t mtime = 0;
  unsigned mode = 0;  // permission bits, & 07777
  // The service's version of a file: a text that changes whenever the
  // file's content may have changed (a folder store: inode, size and
  // modification time in nanoseconds; a web server: its entity tag, else
  // its last-modified time and size). Empty when the store cannot tell:
  // every read is then "maybe changed".
  std::string version;
  // False when `version` was read so soon after the file's last change
  // (within the same second, or behind a weak entity tag) that a further
  // change in that moment may have left it as it was. Such a version says
  // "maybe changed" until the content is compared.
  bool settled = false;
  // True when `version` stays with this content wherever the file is moved
  // on the service and no other content can carry it: a new name with the
  // version of a name that went is that file, renamed.
  bool identity = false;
  // The content hash the service keeps beside this version, when an agent
  // stored the file and the store can keep such a note (`hashKnown`). The
  // note names the version it was written for and counts only while the
  // file is still at that version, so a copy made by other means carries
  // none. Two files with the same noted hash hold the same bytes: a new
  // name whose hash is that of a name that went is that file, renamed or
  // copied there before the old name went.
  bool hashKnown = false;
  ContentHash hash;
};

struct StoreEntry {
  std::string name;
  bool isDir = false;  // a link is never a folder here
  // Stores that learn more from a listing than the names (a web server's
  // multistatus answer) fill `stat` and set `described`.
  bool described = false;
  StoreStat stat;
};

// What a change expects of the version the service holds at the path when
// the change is made; a store that finds otherwise answers kConflict and
// changes nothing.
struct Expect {
  enum class Kind {
    kAnything,  // no condition: the old behaviour
    kAbsent,    // nothing is there (a new name)
    kVersion,   // the file is there at `version`
  };
  Kind kind = Kind::kAnything;
  std::string version;

  static Expect anything() { return Expect(); }
  static Expect absent() { return Expect{Kind::kAbsent, ""}; }
  static Expect at(const std::string& version) { return Expect{Kind::kVersion, version}; }
};

// How tarn.create opens a file.
struct OpenMode {
  bool read = false;
  bool write = false;
  bool create = false;
  bool truncate = false;
  bool append = false;
};

// An open file of the store, from tarn.create; closed by close() or by its
// destruction. Used by one connection at a time.
class StoreHandle {
 public:
  virtual ~StoreHandle() = default;
  // The current size in bytes.
  virtual Status size(long long& out) = 0;
  // Reads up to `n` bytes at `offset`; `got` is 0 at the end.
  virtual Status readAt(long long offset, char* buffer, size_t n, size_t& got) = 0;
  // Writes all `n` bytes at the handle's position.
  virtual Status write(const char* data, size_t n) = 0;
  virtual Status close() = 0;
};

class Store {
 public:
  virtual ~Store() = default;

  // Names the service behind the store (a folder's real path, a server's
  // URL without credentials), so that the sync records of one mirror for
  // two services never mix.
  virtual std::string identity() const = 0;

  // What `path` is. With `followLast` a link in the last name is followed
  // (while it stays in the store); without, a link is reported as a link.
  // kNotFound, kRefused.
  virtual Status stat(const std::string& path, bool followLast, StoreStat& out) = 0;
  // As stat(), for an answer to a client: what only the sync side reads
  // (StoreStat::hash) may be left unknown. The default asks stat().
  virtual Status statBrief(const std::string& path, bool followLast, StoreStat& out) {
    return stat(path, followLast, out);
  }
  // The names in the folder `path` (a last link followed), without the
  // temporary names of copies under way. kNotFound, kNotDirectory,
  // kRefused, kFailed.
  virtual Status list(const std::string& path, std::vector<StoreEntry>& out) = 0;
  // Fills `stat` of every entry of `entries` (a listing of the folder
  // `path`) that is not `described` yet, as stat() would without following
  // a last link; an entry that cannot be described is left as it is. The
  // default asks stat() for each; a store that can do better overrides it.
  virtual void describe(const std::string& path, std::vector<StoreEntry>& entries);
  // Writes the whole content of the file `path` into `target` (for a
  // mirror copy, begun and not committed: the caller commits) and
  // describes what it copied in `copied`, which comes in holding what
  // stat() said of `path` just before (a store that learns less while
  // copying keeps the rest; `version` is the version of the bytes copied).
  // With `ifNoneMatch` not empty, a store that can tell that the service
  // still holds that version answers kNotModified and writes nothing.
  // kNotFound, kRefused, kFailed, kNotModified.
  virtual Status download(const std::string& path, ByteSink& target, StoreStat& copied,
                          const std::string& ifNoneMatch) = 0;
  // Replaces the file `path` with everything readable from `source`, with
  // permission bits `mode`: atomically, so a failure at any point leaves
  // the old content, and only when the service's version is what `expect`
  // says (otherwise kConflict, nothing sent or nothing replaced). Its
  // folder must exist. `written` gets what the store knows of the new
  // version (its `version` empty when the store cannot tell without
  // asking again) and `sent` the hash of the bytes sent, which the store
  // keeps beside the new version where it can (StoreStat::hash). kRefused,
  // kFailed, kConflict.
  virtual Status upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                        StoreStat& written, ContentHash& sent) = 0;
  // Creates every missing folder of `path`. kRefused, kFailed (a file on
  // the way: "Not a directory").
  virtual Status makeDirs(const std::string& path) = 0;
  // Creates the empty file `path` unless something is there; its folder
  // must exist. kRefused, kFailed.
  virtual Status createFile(const std::string& path, mode_t mode) = 0;
  // Renames `from` (a last link is moved as a link) to `to`, replacing a
  // file there. kNotFound, kRefused, kFailed.
  virtual Status move(const std::string& from, const std::string& to) = 0;
  // Sets the permission bits of `path` (a last link followed). kNotFound,
  // kRefused, kFailed.
  virtual Status chmod(const std::string& path, mode_t mode) = 0;
  // Removes `path` (a last link is removed, never followed); with
  // `recursive` a folder goes with everything in it. OK when nothing is
  // there. For a file, only when its version is what `expect` says
  // (kConflict otherwise; a folder is removed whatever `expect` says).
  // kNotEmpty, kRefused, kFailed, kConflict.
  virtual Status remove(const std::string& path, bool recursive, const Expect& expect) = 0;
  // Opens the regular file `path` for tarn.create; the handle is the
  // caller's. A store without handles answers kFailed. kRefused, kFailed.
  virtual Status open(const std::string& path, const OpenMode& mode,
                      std::unique_ptr<StoreHandle>& out) = 0;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_STORE_H_
