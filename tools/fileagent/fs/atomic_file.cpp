#include "fs/atomic_file.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <random>

namespace velagent {

namespace {

const char kPartialMark[] = ".velpart.";
constexpr size_t kMarkSize = sizeof kPartialMark - 1;
constexpr size_t kRandomSize = 6;
// Leaves room for the mark and the random part within NAME_MAX (255).
constexpr size_t kMaxNameInTemp = 200;
const char kAlphabet[] = "abcdefghijklmnopqrstuvwxyz0123456789";

// A counter shared by all threads, mixed with a seed drawn once per
// process: no two calls alike, nothing to guess from outside. Every
// connection has a thread of its own, so a generator seeded per thread cost
// a random_device on every copy.
std::string randomSuffix() {
  static const uint64_t seed =
      (static_cast<uint64_t>(std::random_device{}()) << 32) ^ std::random_device{}();
  static std::atomic<uint64_t> counter{0};
  uint64_t x = seed + counter.fetch_add(1, std::memory_order_relaxed) * 0x9e3779b97f4a7c15ULL;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
  x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
  x ^= x >> 31;
  std::string out(kRandomSize, 'a');
  for (char& c : out) {
    c = kAlphabet[x % (sizeof kAlphabet - 1)];
    x /= sizeof kAlphabet - 1;
  }
  return out;
}

}  // namespace

bool isPartialName(const std::string& name) {
  if (name.size() < 2 + kMarkSize + kRandomSize || name[0] != '.') {
    return false;
  }
  size_t mark = name.size() - kRandomSize - kMarkSize;
  if (name.compare(mark, kMarkSize, kPartialMark) != 0) {
    return false;
  }
  for (size_t i = name.size() - kRandomSize; i < name.size(); ++i) {
    char c = name[i];
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) {
      return false;
    }
  }
  return true;
}

int AtomicFile::begin(int dir, const std::string& name) {
  discard();
  dir_.reset(::fcntl(dir, F_DUPFD_CLOEXEC, 0));
  if (!dir_) {
    return errno;
  }
  name_ = name;
  restart();
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string temp = "." + name.substr(0, kMaxNameInTemp) + kPartialMark + randomSuffix();
    int fd = ::openat(dir_.get(), temp.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd >= 0) {
      file_.reset(fd);
      tempName_ = temp;
      return 0;
    }
    if (errno != EEXIST) {
      return errno;
    }
  }
  return EEXIST;
}

int AtomicFile::write(const char* data, size_t size) {
  int err = writeAll(file_.get(), data, size);
  if (err == 0) {
    appended(data, size);
  }
  return err;
}

int AtomicFile::copyFrom(int source) {
  // The bytes pass through this process once, to be hashed on the way; a
  // second pass to hash the copy after a copy in the kernel costs more.
  return ByteSink::copyFrom(source);
}

int AtomicFile::commit(mode_t mode) {
  if (!file_) {
    return EBADF;
  }
  int err = 0;
  struct stat st;
  if (::fchmod(file_.get(), mode) != 0 || ::fsync(file_.get()) != 0 ||
      ::fstat(file_.get(), &st) != 0) {
    err = errno;
  } else {
    inode_ = st.st_ino;
    mtimeNs_ = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  }
  if (err == 0 && ::close(file_.release()) != 0) {
    err = errno;
  }
  if (err == 0 && ::renameat(dir_.get(), tempName_.c_str(), dir_.get(), name_.c_str()) != 0) {
    err = errno;
  }
  if (err != 0) {
    discard();
    return err;
  }
  tempName_.clear();
  // The rename is only durable once the folder is; a file system that
  // cannot flush folders (EINVAL) or a folder this process may not read
  // (EACCES) keeps what the rename gave.
  UniqueFd folder(::openat(dir_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder && ::fsync(folder.get()) != 0 && errno != EINVAL) {
    err = errno;
  }
  dir_.reset();
  return err;
}

void AtomicFile::discard() {
  file_.reset();
  if (dir_ && !tempName_.empty()) {
    ::unlinkat(dir_.get(), tempName_.c_str(), 0);
  }
  tempName_.clear();
  dir_.reset();
}

}  // namespace velagent
