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
//  - rotation empties the file in place (ftruncate), so every process keeps
//    appending to the one file the path names: no line can go into a file
//    that is being thrown away, and writers need no lock;
//  - the rotating writer holds an exclusive flock() and empties the file
//    only while it is still over the limit, so a file that crossed the limit
//    is emptied once, however many writers saw it full;
//  - a writer whose file is no longer the one the path names (replaced from
//    outside) reopens the path before writing.
struct LogFileState {
  int fd = -1;
  dev_t dev = 0;  // identity of the open file
  ino_t ino = 0;
  ACE_Thread_Mutex lock;
  std::string path;
  // The time stamp of the last line, kept for the lines of the same second.
  time_t stampTime = -1;
  char stamp[100] = {};
  size_t stampLength = 0;
};

namespace {

std::atomic<LogInterface*> g_logger{nullptr};

constexpr const char* kLevelNames[] = {"ASSERT", "ERROR", "CALL", "DEBUG", "INFO"};
// A writer that keeps finding another file at the path (replaced again and
// again from outside) gives up following after this many rounds.
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
    ::close(state.fd);
    state.fd = -1;
  }
}

// Rotation keeps no backup: the old lines are dropped on purpose.
void rotate(LogFileState& state) {
  lockFile(state.fd, LOCK_EX);
  struct stat st;
  if (::fstat(state.fd, &st) == 0 && st.st_size > kLogMaxFileSize) {
    while (::ftruncate(state.fd, 0) == -1 && errno == EINTR) {
    }
  }
  lockFile(state.fd, LOCK_UN);
}

// Called with the mutex held: one stat of the path per line. Leaves
// state.fd (when open) on the file the path names, emptied when it was over
// the limit. While the path does not exist the open file is kept.
void followPath(LogFileState& state) {
  struct stat onPath;
  if (state.fd == -1) {
    // Nothing open (the location was unwritable): only a rotation reopens.
    if (::stat(state.path.c_str(), &onPath) == 0 && onPath.st_size > kLogMaxFileSize) {
      std::remove(state.path.c_str());
      openPath(state, true);
    }
    return;
  }
  for (int round = 0; round < kMaxReopens; ++round) {
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
    if (onPath.st_size > kLogMaxFileSize) {
      rotate(state);
    }
    return;
  }
}

// "YYYY-MM-DD HH:MM:SS" of `now`, formatted once per second.
void stampOf(LogFileState& state, time_t now) {
  if (now == state.stampTime) {
    return;
  }
  struct tm local;
  localtime_r(&now, &local);
// glibc's padding flags give the year four digits and month and day two.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  state.stampLength =
      std::strftime(state.stamp, sizeof(state.stamp), "%04Y-%02m-%02d %H:%M:%S", &local);
#pragma GCC diagnostic pop
  state.stampTime = now;
}

// Appends `size` bytes of `text` at `out`, returns the end.
char* append(char* out, const char* text, size_t size) {
  std::memcpy(out, text, size);
  return out + size;
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
  const time_t now = std::time(nullptr);
  bool locked = state_->lock.acquire() != -1;
  followPath(*state_);
  if (state_->fd != -1 && text != nullptr) {
    stampOf(*state_, now);
    // "%s %s %s\n" in one write, so that the line lands whole even when
    // another process appends at the same time.
    const char* name = levelName(level);
    const size_t nameLength = std::strlen(name);
    const size_t textLength = std::strlen(text);
    char line[sizeof(state_->stamp) + 16 + kLogMaxMessage + 2];
    if (state_->stampLength + nameLength + textLength + 3 <= sizeof(line)) {
      char* end = append(line, state_->stamp, state_->stampLength);
      *end++ = ' ';
      end = append(end, name, nameLength);
      *end++ = ' ';
      end = append(end, text, textLength);
      *end++ = '\n';
      while (::write(state_->fd, line, static_cast<size_t>(end - line)) == -1 && errno == EINTR) {
      }
    } else {
      // Longer than any formatted message: written from where it is.
      char space = ' ';
      char newline = '\n';
      iovec parts[6] = {{state_->stamp, state_->stampLength},  {&space, 1},
                        {const_cast<char*>(name), nameLength}, {&space, 1},
                        {const_cast<char*>(text), textLength}, {&newline, 1}};
      while (::writev(state_->fd, parts, 6) == -1 && errno == EINTR) {
      }
    }
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
