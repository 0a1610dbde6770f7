// File descriptors for the agent: one owner that closes, and a write that
// finishes or says why it could not.
#ifndef VEL_TOOLS_FILEAGENT_FS_UNIQUE_FD_H_
#define VEL_TOOLS_FILEAGENT_FS_UNIQUE_FD_H_

#include <errno.h>
#include <unistd.h>

#include <cstddef>

namespace velagent {

// Owns one file descriptor and closes it.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// Writes all `size` bytes, resuming after short writes and signals.
// 0, or the errno of the write that failed.
inline int writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return 0;
}

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_FS_UNIQUE_FD_H_
