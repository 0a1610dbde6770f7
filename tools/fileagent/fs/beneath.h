// Path resolution confined to one root folder (the store or the mirror).
// Every path a client names is resolved beneath its root, one descriptor at
// a time, so that no symbolic link and no "..", wherever it sits, can carry
// a command outside: a link is followed only while it stays beneath the
// root; an absolute link, or a relative one that climbs above the root, is
// refused with EXDEV. The kernel's openat2(RESOLVE_BENEATH) does this where
// it is available; elsewhere a walk that opens one name at a time with
// O_NOFOLLOW and reads each link itself gives the same answers.
//
// Thread safety: every function may be called from any thread.
#ifndef VEL_TOOLS_FILEAGENT_FS_BENEATH_H_
#define VEL_TOOLS_FILEAGENT_FS_BENEATH_H_

#include <string>
#include <vector>

#include "fs/unique_fd.h"

namespace velagent {

// Splits a relative path into its names, dropping "" and "." (".." is kept).
std::vector<std::string> splitNames(const std::string& path);
std::string joinNames(const std::vector<std::string>& names, size_t count);

class Root {
 public:
  explicit Root(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }

  // Opens the folder at `rel` ("" is the root itself) as an O_PATH
  // descriptor, following links on the way while they stay beneath the
  // root. 0, or errno: EXDEV when the path leaves the root, ENOENT, ENOTDIR,
  // ELOOP, or what opening the root itself gave.
  int openDir(const std::string& rel, UniqueFd& out) const;

  // Where `rel` (at least one name) lives: the folder that holds its last
  // name, opened as by openDir, and that name. With `followLast` a link in
  // the last name is followed as well (so `name` is not a link at the time
  // of the call), otherwise the name may itself be a link. A last name that
  // does not exist is no error: the caller finds out with fstatat. Errors as
  // openDir.
  int locate(const std::string& rel, bool followLast, UniqueFd& dir, std::string& name) const;

  // Makes every Root resolve with the walk even where openat2 works; the
  // tests use it to cover both ways.
  static void forceWalk();
  // Probes openat2 on `dir` once; false (and the walk from then on) when
  // the kernel or a sandbox refuses it.
  static bool probeOpenat2(const std::string& dir);

 private:
  std::string path_;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_FS_BENEATH_H_
