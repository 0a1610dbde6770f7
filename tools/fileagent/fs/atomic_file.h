// A new version of one file, written whole before it replaces the old one.
// The bytes go to a temporary file in the target's own folder (named
// ".<name>.velpart.<random>", so it lives on the same file system); commit
// gives it its mode, flushes it to disk, renames it over the target and
// flushes the folder. Whatever stops the copy before that (a kill, a full
// disk, a read error) leaves the target as it was: never a prefix. A copy
// that fails or is dropped removes its temporary file; only a killed agent
// can leave one behind, and listings never show such names.
//
// Both sides use it: the mirror when a store fills it (downloads), and the
// folder store when the mirror fills it (uploads). As a ByteSink it hashes
// every byte it is given, so the caller learns the content hash of the new
// version without reading it again. Not thread-safe; one owner at a time.
#ifndef VEL_TOOLS_FILEAGENT_FS_ATOMIC_FILE_H_
#define VEL_TOOLS_FILEAGENT_FS_ATOMIC_FILE_H_

#include <sys/types.h>

#include <string>

#include "fs/byte_sink.h"
#include "fs/unique_fd.h"

namespace velagent {

class AtomicFile : public ByteSink {
 public:
  AtomicFile() = default;
  ~AtomicFile() override { discard(); }
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;

  // Creates the temporary file for `name` in the folder `dir` (the
  // descriptor is duplicated). 0 or errno.
  int begin(int dir, const std::string& name);
  // The temporary file, open for writing; -1 before begin.
  int fd() const { return file_.get(); }
  // Appends `size` bytes; 0 or errno.
  int write(const char* data, size_t size) override;
  // Appends everything `source` still has to read; 0 or errno.
  int copyFrom(int source) override;
  // Puts the file in place with `mode` (see above); 0 or errno. On failure
  // the temporary file is gone and the target untouched (unless the
  // rename itself happened and only the folder flush failed).
  int commit(mode_t mode);
  // Removes the temporary file unless it was committed.
  void discard();
  // What the committed file is: its inode, and its modification time in
  // nanoseconds (valid after a successful commit).
  ino_t committedInode() const { return inode_; }
  long long committedMtimeNs() const { return mtimeNs_; }

 private:
  UniqueFd dir_;
  UniqueFd file_;
  std::string name_;
  std::string tempName_;
  ino_t inode_ = 0;
  long long mtimeNs_ = 0;
};

// True for the names AtomicFile gives its temporary files.
bool isPartialName(const std::string& name);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_FS_ATOMIC_FILE_H_
