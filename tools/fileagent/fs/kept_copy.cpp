#include "fs/kept_copy.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/random.h>
#include <unistd.h>

#include <cstdint>

namespace velagent {

namespace {

const char kKeepMark[] = ".vel.keep.";
constexpr int kAttempts = 100;
constexpr size_t kNameMax = 255;
constexpr size_t kSuffixMax = sizeof kKeepMark - 1 + 10;

uint32_t randomNumber() {
  uint32_t value = 0;
  if (::getrandom(&value, sizeof value, 0) != static_cast<ssize_t>(sizeof value)) {
    static uint32_t fallback = static_cast<uint32_t>(::getpid());
    value = fallback = fallback * 1103515245u + 12345u;
  }
  return value;
}

// Renames without replacing: renameat2 where the file system has it, else
// a hard link and an unlink.
int renameNoReplace(int dirFd, const std::string& from, const std::string& to) {
  if (::renameat2(dirFd, from.c_str(), dirFd, to.c_str(), RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return errno;
  }
  if (::linkat(dirFd, from.c_str(), dirFd, to.c_str(), 0) != 0) {
    return errno;
  }
  ::unlinkat(dirFd, from.c_str(), 0);
  return 0;
}

}  // namespace

int keepAside(int dirFd, const std::string& name, std::string& kept) {
  // A name too long for the mark keeps its start.
  std::string base =
      name.size() + kSuffixMax > kNameMax ? name.substr(0, kNameMax - kSuffixMax) : name;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, "%s%08u", kKeepMark, randomNumber());
    kept = base + suffix;
    int err = renameNoReplace(dirFd, name, kept);
    if (err != EEXIST) {
      return err;
    }
  }
  return EEXIST;
}

}  // namespace velagent
