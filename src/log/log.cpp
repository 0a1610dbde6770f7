#include "vel/log.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <ace/Thread_Mutex.h>

#include "base/safe_str.h"
#include "base/static_lock.h"

namespace VEL {

// Several processes may log to one file, and any of them may rotate it. So
// that no line is lost or torn:
//  - each line is one write() on an O_APPEND descriptor;
//  - a writer holds a shared flock() on its file from the check of the path
//    to the end of its write, and the rotating writer an exclusive one, so
//    nobody writes into a file while it is being removed;
//  - a writer whose file is no longer the one the path names (another
//    process rotated it) reopens the path before writing.
struct LogFileState {
  int fd = -1;
  dev_t dev = 0;  // identity of the open file
  ino_t ino = 0;
  ACE_Thread_Mutex lock;
  std::string path;
};

namespace {

std::atomic<LogInterface*> g_logger{nullptr};

constexpr const char* kLevelNames[] = {"ASSERT", "ERROR", "CALL", "DEBUG", "INFO"};
// A writer that keeps finding a new file (rotations by others in between)
// gives up following after this many rounds and writes where it is.
constexpr int kMaxReopens = 8;

void lockFile(int fd, int operation) {
  while (::flock(fd, operation) == -1 && errno == EINTR) {
  }
}

bool sameFile(const struct stat& a, dev_t dev, ino_t ino) {
  return a.st_dev == dev && a.st_ino == ino;
}

// Opens the path for appending (creating it when `create`) as the state's
// file; false when it cannot be opened.
bool openPath(LogFileState& state, bool create) {
  int fd = ::open(state.path.c_str(), O_WRONLY | O_APPEND | (create ? O_CREAT : 0), 0666);
  struct stat st;
  if (fd != -1 && ::fstat(fd, &st) != 0) {
    ::close(fd);
    fd = -1;
  }
  if (fd == -1) {
    return false;
  }
  state.fd = fd;
  state.dev = st.st_dev;
  state.ino = st.st_ino;
  return true;
}

void closeFile(LogFileState& state) {
  if (state.fd != -1) {
    ::close(state.fd);  // drops the flock too
    state.fd = -1;
  }
}

// Called with the mutex held. Leaves state.fd (when open) on the file the
// path names, rotated when it was over the limit, with a shared flock that
// the caller releases after its write. While the path does not exist the
// open file is kept.
void followPath(LogFileState& state) {
  struct stat onPath;
  if (state.fd == -1) {
    // Nothing open (the location was unwritable): only a rotation reopens.
    if (::stat(state.path.c_str(), &onPath) == 0 && onPath.st_size > kLogMaxFileSize) {
      std::remove(state.path.c_str());
      if (openPath(state, true)) {
        lockFile(state.fd, LOCK_SH);
      }
    }
    return;
  }
  for (int round = 0; round < kMaxReopens; ++round) {
    lockFile(state.fd, LOCK_SH);
    if (::stat(state.path.c_str(), &onPath) != 0) {
      return;
    }
    if (!sameFile(onPath, state.dev, state.ino)) {
      const int old = state.fd;
      if (!openPath(state, false)) {
        return;  // gone again meanwhile: keep the open file
      }
      ::close(old);
      continue;
    }
    if (onPath.st_size <= kLogMaxFileSize) {
      return;
    }
    // Rotation keeps no backup: the old lines are dropped on purpose. Only
    // the writer that still finds the path on its full file under the
    // exclusive lock removes it; the others then follow to the new file.
    lockFile(state.fd, LOCK_EX);
    if (::stat(state.path.c_str(), &onPath) == 0 && sameFile(onPath, state.dev, state.ino) &&
        onPath.st_size > kLogMaxFileSize) {
      std::remove(state.path.c_str());
      // The new file exists before the old one is let go, so that a writer
      // waiting on the old one finds it.
      const int old = state.fd;
      state.fd = -1;
      const bool reopened = openPath(state, true);
      ::close(old);
      if (!reopened) {
        return;  // logging stops, as with an unwritable location
      }
      continue;
    }
    lockFile(state.fd, LOCK_UN);
  }
  lockFile(state.fd, LOCK_SH);
}

}  // namespace

const char* LogInterface::levelName(uint32_t level) {
  return level < sizeof(kLevelNames) / sizeof(kLevelNames[0]) ? kLevelNames[level] : "UNKNOWN";
}

LogInterface::LogInterface() : state_(new LogFileState) {
  const char* dir = std::getenv("_APP_LOG_DIR");
  state_->path = dir != nullptr ? std::string(dir) + "/velsdk.log" : std::string("velsdk.log");
  openPath(*state_, true);
}

LogInterface::~LogInterface() {
  closeFile(*state_);
  delete state_;
}

void LogInterface::writeLine(uint32_t level, const char* text) {
  char stamp[100];
  time_t now = std::time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
// glibc's padding flags give the year four digits and month and day two.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  std::strftime(stamp, sizeof(stamp), "%04Y-%02m-%02d %H:%M:%S", &local);
#pragma GCC diagnostic pop

  bool locked = state_->lock.acquire() != -1;
  followPath(*state_);
  if (state_->fd != -1) {
    if (text != nullptr) {
      // "%s %s %s\n" in one call, so that the line lands whole even when
      // another process appends at the same time.
      char head[sizeof(stamp) + 16];
      int headLen = std::snprintf(head, sizeof(head), "%s %s ", stamp, levelName(level));
      if (headLen < 0) {
        headLen = 0;
      } else if (static_cast<size_t>(headLen) >= sizeof(head)) {
        headLen = static_cast<int>(sizeof(head) - 1);
      }
      char newline = '\n';
      iovec parts[3] = {{head, static_cast<size_t>(headLen)},
                        {const_cast<char*>(text), std::strlen(text)},
                        {&newline, 1}};
      while (::writev(state_->fd, parts, 3) == -1 && errno == EINTR) {
      }
    }
    lockFile(state_->fd, LOCK_UN);
  }
  if (locked) {
    state_->lock.release();
  }
}

void LogInterface::log(uint32_t level, const char* format, ...) {
  if (format == nullptr) {
    return;
  }
  char buffer[kLogMaxMessage + 1];
  va_list args;
  va_start(args, format);
  int ret = vsnprintf_s(buffer, sizeof(buffer), kLogMaxMessage, format, args);
  va_end(args);
  if (ret != -1) {
    buffer[kLogMaxMessage] = '\0';
  }
  writeLine(level, buffer);
}

LogInterface* getLogger() {
  LogInterface* logger = g_logger.load(std::memory_order_acquire);
  if (logger != nullptr) {
    return logger;
  }
  StaticObjectGuard guard;
  if (!guard.locked()) {
    return nullptr;
  }
  logger = g_logger.load(std::memory_order_relaxed);
  if (logger == nullptr) {
    logger = new LogInterface;
    g_logger.store(logger, std::memory_order_release);
  }
  return logger;
}

void releaseLogger() {
  StaticObjectGuard guard;
  if (!guard.locked()) {
    return;
  }
  delete g_logger.exchange(nullptr);
}

}  // namespace VEL
