#include "fs/beneath.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <deque>

#if defined(SYS_openat2) && __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#define VEL_HAVE_OPENAT2 1
#else
#define VEL_HAVE_OPENAT2 0
#endif

namespace velagent {

namespace {

// Linux follows at most 40 links in one lookup; so do we.
constexpr int kMaxLinks = 40;

enum Mode { kUnknown, kOpenat2, kWalk };
std::atomic<int> gMode{kUnknown};

// Whether an openat2 failure means the call itself is not available (old
// kernel, seccomp filter), rather than an answer about the path.
bool openat2Unavailable(int err) {
  return err == ENOSYS || err == EPERM || err == E2BIG || err == EOPNOTSUPP;
}

// Returns the descriptor, or -1 with errno.
int openat2Beneath(int rootFd, const std::string& rel) {
#if VEL_HAVE_OPENAT2
  struct open_how how = {};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  const char* path = rel.empty() ? "." : rel.c_str();
  for (int attempt = 0;; ++attempt) {
    long fd = ::syscall(SYS_openat2, rootFd, path, &how, sizeof how);
    // EAGAIN: a rename or mount raced with ".."; the kernel asks to retry.
    if (fd < 0 && (errno == EINTR || (errno == EAGAIN && attempt < 16))) {
      continue;
    }
    return static_cast<int>(fd);
  }
#else
  (void)rootFd;
  (void)rel;
  errno = ENOSYS;
  return -1;
#endif
}

// The names the link `name` in `dirFd` ("" for `dirFd` itself) leads to,
// counted as the next of `links` in one lookup. 0, or ELOOP past the bound,
// ENOENT for an empty text, EXDEV for an absolute one (it leaves the root),
// or errno.
int linkNames(int dirFd, const char* name, int& links, std::vector<std::string>& out) {
  if (++links > kMaxLinks) {
    return ELOOP;
  }
  char buffer[4096];
  ssize_t n = ::readlinkat(dirFd, name, buffer, sizeof buffer);
  if (n < 0) {
    return errno;
  }
  if (static_cast<size_t>(n) >= sizeof buffer) {
    return ENAMETOOLONG;
  }
  if (n == 0) {
    return ENOENT;
  }
  if (buffer[0] == '/') {
    return EXDEV;
  }
  out = splitNames(std::string(buffer, static_cast<size_t>(n)));
  return 0;
}

// One name at a time, never letting the kernel follow a link: each link is
// read and its names put in front of the ones still to go. ".." pops the
// folders this walk itself went through, so it can never climb above the
// root, whatever was renamed meanwhile.
int walkBeneath(UniqueFd root, const std::string& rel, UniqueFd& out) {
  std::vector<UniqueFd> stack;
  std::vector<std::string> first = splitNames(rel);
  std::deque<std::string> ahead(first.begin(), first.end());
  int links = 0;
  while (!ahead.empty()) {
    std::string name = std::move(ahead.front());
    ahead.pop_front();
    if (name == "..") {
      if (stack.empty()) {
        return EXDEV;
      }
      stack.pop_back();
      continue;
    }
    int base = stack.empty() ? root.get() : stack.back().get();
    UniqueFd fd(::openat(base, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!fd) {
      return errno;
    }
    struct stat st;
    if (::fstat(fd.get(), &st) != 0) {
      return errno;
    }
    if (S_ISLNK(st.st_mode)) {
      std::vector<std::string> more;
      int err = linkNames(fd.get(), "", links, more);
      if (err != 0) {
        return err;
      }
      ahead.insert(ahead.begin(), more.begin(), more.end());
      continue;
    }
    if (!S_ISDIR(st.st_mode)) {
      return ENOTDIR;
    }
    stack.push_back(std::move(fd));
  }
  out = stack.empty() ? std::move(root) : std::move(stack.back());
  return 0;
}

}  // namespace

std::vector<std::string> splitNames(const std::string& path) {
  std::vector<std::string> names;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) {
      end = path.size();
    }
    if (end > start && path.compare(start, end - start, ".") != 0) {
      names.push_back(path.substr(start, end - start));
    }
    start = end + 1;
  }
  return names;
}

std::string joinNames(const std::vector<std::string>& names, size_t count) {
  std::string out;
  for (size_t i = 0; i < count && i < names.size(); ++i) {
    if (i > 0) {
      out += '/';
    }
    out += names[i];
  }
  return out;
}

void Root::forceWalk() { gMode = kWalk; }

bool Root::probeOpenat2(const std::string& dir) {
  if (gMode == kWalk) {
    return false;
  }
  UniqueFd fd(::open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!fd) {
    return true;  // nothing to learn; the first request decides
  }
  UniqueFd probe(openat2Beneath(fd.get(), ""));
  if (!probe && openat2Unavailable(errno)) {
    gMode = kWalk;
    return false;
  }
  gMode = kOpenat2;
  return true;
}

int Root::openDir(const std::string& rel, UniqueFd& out) const {
  UniqueFd root(::open(path_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root) {
    return errno;
  }
  if (gMode != kWalk) {
    UniqueFd fd(openat2Beneath(root.get(), rel));
    if (fd) {
      out = std::move(fd);
      return 0;
    }
    if (!openat2Unavailable(errno)) {
      return errno;
    }
    gMode = kWalk;
  }
  return walkBeneath(std::move(root), rel, out);
}

int Root::locate(const std::string& rel, bool followLast, UniqueFd& dir, std::string& name) const {
  std::vector<std::string> names = splitNames(rel);
  int links = 0;
  for (;;) {
    // A link whose text ends in "." or ".." leads to a folder: the place is
    // that folder itself.
    if (names.empty() || names.back() == "..") {
      name = ".";
      return openDir(joinNames(names, names.size()), dir);
    }
    int err = openDir(joinNames(names, names.size() - 1), dir);
    if (err != 0) {
      return err;
    }
    name = names.back();
    struct stat st;
    if (!followLast || ::fstatat(dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 ||
        !S_ISLNK(st.st_mode)) {
      return 0;
    }
    std::vector<std::string> more;
    err = linkNames(dir.get(), name.c_str(), links, more);
    if (err != 0) {
      return err;
    }
    names.pop_back();
    names.insert(names.end(), more.begin(), more.end());
  }
}

}  // namespace velagent
