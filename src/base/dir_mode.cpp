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

}  // namespace VEL
