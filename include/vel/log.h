// The process-wide log file of the library and the tool.
//
// getLogger() returns the one LogInterface, creating it on first use; it
// opens "$_APP_LOG_DIR/velsdk.log" (or "velsdk.log" in the working directory
// when the variable is unset) for appending. Every line is
//   "YYYY-MM-DD HH:MM:SS LEVEL text\n"
// with LEVEL one of ASSERT(0) ERROR(1) CALL(2) DEBUG(3) INFO(4), UNKNOWN above.
// Messages are cut to 4,095 characters. A file grown beyond 20,971,520 bytes
// is emptied before the next line. An unwritable location silently drops
// every line. A file removed from outside is not recreated: lines go on into
// the open file until another file appears at the path, which the next line
// then follows.
//
// Thread safety: any thread may log; lines never interleave. Several
// processes may share one log file: each line is a single append and the
// file is emptied in place by one of them only, so no line is torn or lost.
// releaseLogger() must not race with a thread that is still logging.
#ifndef VEL_LOG_H_
#define VEL_LOG_H_

#include <cstdint>

#include "vel/export.h"

namespace VEL {

enum LogLevel : uint32_t {
  kLogAssert = 0,
  kLogError = 1,
  kLogCall = 2,
  kLogDebug = 3,
  kLogInfo = 4,
};

// Largest log file kept; one more byte and the next line rotates it.
constexpr long long kLogMaxFileSize = 20971520;
// Longest message text kept per line.
constexpr int kLogMaxMessage = 4095;

struct LogFileState;

class VEL_API LogInterface {
 public:
  LogInterface();
  LogInterface(const LogInterface&) = delete;
  LogInterface& operator=(const LogInterface&) = delete;

  // Writes one line; a null text writes nothing.
  virtual void writeLine(uint32_t level, const char* text);
  // Formats like printf (at most 4,095 characters) and calls writeLine();
  // a null format writes nothing.
  virtual void log(uint32_t level, const char* format, ...) __attribute__((format(printf, 3, 4)));
  virtual ~LogInterface();

  // Name written for a level: "ASSERT" .. "INFO", "UNKNOWN" for 5 and above.
  static const char* levelName(uint32_t level);

 private:
  LogFileState* state_;
};

// Returns the process-wide logger, creating it on first use; null only when
// the creation lock cannot be taken.
VEL_API LogInterface* getLogger();
// Destroys the process-wide logger; the next getLogger() opens a fresh one.
VEL_API void releaseLogger();

}  // namespace VEL

#endif  // VEL_LOG_H_
