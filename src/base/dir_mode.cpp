#include "base/dir_mode.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace VEL {

int chmodDirectory(const char* path, mode_t mode) {
  if (path == nullptr) {
    errno = EFAULT;
    return -1;
  }
  // Opening the directory itself and changing the open descriptor leaves
  // no moment in which the name could be swapped for a link.
  int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0) {
    int ret = ::fchmod(fd, mode);
    int saved = errno;
    ::close(fd);
    errno = saved;
    return ret;
  }
  if (errno != EACCES) {
    return -1;
  }
  // A directory without read permission cannot be opened; it is looked at
  // without following a link instead.
  struct stat st;
  if (::lstat(path, &st) != 0) {
    return -1;
  }
  if (!S_ISDIR(st.st_mode)) {
    errno = ENOTDIR;
    return -1;
  }
  return ::chmod(path, mode);
}

int chmodNoFollow(const char* path, mode_t mode) {
  if (path == nullptr) {
    errno = EFAULT;
    return -1;
  }
  struct stat st;
  if (::lstat(path, &st) != 0) {
    return -1;
  }
  if (S_ISLNK(st.st_mode)) {
    errno = ELOOP;
    return -1;
  }
  if (S_ISDIR(st.st_mode)) {
    return chmodDirectory(path, mode);
  }
  // Anything else is changed without following a link that replaced it
  // meanwhile: the C library refuses a link here (EOPNOTSUPP), which is
  // reported as the link it is.
  if (::fchmodat(AT_FDCWD, path, mode, AT_SYMLINK_NOFOLLOW) == 0) {
    return 0;
  }
  if (errno != EOPNOTSUPP && errno != ENOTSUP) {
    return -1;
  }
  if (::lstat(path, &st) == 0 && S_ISLNK(st.st_mode)) {
    errno = ELOOP;
    return -1;
  }
  // Without /proc the C library cannot change a file by name without
  // following: the object was no link a moment ago.
  return ::chmod(path, mode);
}

}  // namespace VEL
