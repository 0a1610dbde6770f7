// Faults that a test rule (server/control.h) arms for the one request it
// matches, on the thread that serves it: the agent killed at a chosen
// point of a command ("crash"), the sync record refusing to write
// ("record"), or the store answering a conflict or "not modified"
// ("store"). Without an armed rule nothing here does anything; the agent
// arms none of its own.
//
// Thread safety: each thread has its own armed faults.
#ifndef VEL_TOOLS_FILEAGENT_FAULTS_H_
#define VEL_TOOLS_FILEAGENT_FAULTS_H_

#include <string>

namespace velagent {

// The points a command may be killed at: after the copy was renamed into
// place (in the mirror or the store) and before its record was written,
// and after the record was written and before the reply is sent.
constexpr const char* kCrashAfterRename = "after-rename";
constexpr const char* kCrashAfterRecord = "after-record";

// What the store answers instead of serving (stores/faulty_store.h): a
// conditional change refused as a conflict (a web server's 412), or a
// download answered "not modified" (a 304).
enum class StoreFault { kNone, kConflict, kNotModified };

struct ArmedFaults {
  std::string crashAt;       // one of the points above, or ""
  bool recordFails = false;  // every write of the sync record fails
  StoreFault store = StoreFault::kNone;
};

// Arms `faults` for the requests this thread serves until disarmed.
void armFaults(const ArmedFaults& faults);
void disarmFaults();

// Kills the agent at once (SIGKILL, no clean-up) when `point` is armed.
void crashPoint(const char* point);
// True when writes of the sync record are to fail.
bool recordWritesFail();
// The store fault armed for this request.
StoreFault armedStoreFault();

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_FAULTS_H_
