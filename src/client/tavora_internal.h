// Internal helpers shared by the source files of the remote back-end.
#ifndef VEL_CLIENT_TAVORA_INTERNAL_H_
#define VEL_CLIENT_TAVORA_INTERNAL_H_

#include <cstdint>
#include <exception>
#include <string>

#include "vel/log.h"

// Logs through the process-wide logger when there is one.
#define VEL_TAVORA_LOG(level, ...)                             \
  do {                                                         \
    if (::VEL::LogInterface* tavoraLog = ::VEL::getLogger()) { \
      tavoraLog->log(level, __VA_ARGS__);                      \
    }                                                          \
  } while (0)

namespace VEL {
namespace tavora {

// Status codes of the remote back-end.
constexpr int32_t kLocalFailure = -1;
constexpr int32_t kBadArgument = -4;
constexpr int32_t kNoConnection = -6;  // rename and chmod
constexpr int32_t kMissing = -11;
constexpr int32_t kDirExists = -12;
constexpr int32_t kNoAgent = -18;  // every other remote operation
constexpr int32_t kNotOnService = -19;
constexpr int32_t kGoOn = -20;  // internal: continue with the next step

// "$UDS_ROOT_OSSUSER/velfileagent/velfileagent.sock"
std::string agentSocketPath();

// Runs `body` and turns any exception (memory exhaustion while copying
// strings, for instance) into a logged -1, so that none leaves the back-end.
template <typename Body>
int32_t guarded(const char* operation, Body&& body) {
  try {
    return body();
  } catch (const std::exception& e) {
    VEL_TAVORA_LOG(kLogError, "[VEL] VELClientTavora::%s() Unexpected exception: %s", operation,
                   e.what());
  } catch (...) {
    VEL_TAVORA_LOG(kLogError, "[VEL] VELClientTavora::%s() Unexpected exception", operation);
  }
  return kLocalFailure;
}

}  // namespace tavora
}  // namespace VEL

#endif  // VEL_CLIENT_TAVORA_INTERNAL_H_
