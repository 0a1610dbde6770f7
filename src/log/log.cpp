#include "vel/log.h"

#include <sys/stat.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include <ace/Thread_Mutex.h>

#include "base/safe_str.h"
#include "base/static_lock.h"

namespace VEL {

struct LogFileState {
  FILE* stream = nullptr;
  ACE_Thread_Mutex lock;
  std::string path;
};

namespace {

std::atomic<LogInterface*> g_logger{nullptr};

constexpr const char* kLevelNames[] = {"ASSERT", "ERROR", "CALL", "DEBUG", "INFO"};

}  // namespace

const char* LogInterface::levelName(uint32_t level) {
  return level < sizeof(kLevelNames) / sizeof(kLevelNames[0]) ? kLevelNames[level] : "UNKNOWN";
}

LogInterface::LogInterface() : state_(new LogFileState) {
  const char* dir = std::getenv("_APP_LOG_DIR");
  state_->path = dir != nullptr ? std::string(dir) + "/velsdk.log" : std::string("velsdk.log");
  state_->stream = std::fopen(state_->path.c_str(), "a");
}

LogInterface::~LogInterface() {
  if (state_->stream != nullptr) {
    std::fclose(state_->stream);
    state_->stream = nullptr;
  }
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
  struct stat st;
  if (::stat(state_->path.c_str(), &st) == 0 && st.st_size > kLogMaxFileSize) {
    // Rotation keeps no backup: the old lines are dropped on purpose.
    if (state_->stream != nullptr) {
      std::fclose(state_->stream);
    }
    std::remove(state_->path.c_str());
    state_->stream = std::fopen(state_->path.c_str(), "a");
  }
  if (state_->stream != nullptr && text != nullptr) {
    std::fprintf(state_->stream, "%s %s %s\n", stamp, levelName(level), text);
    std::fflush(state_->stream);
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
