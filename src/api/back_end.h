// The process-wide back-end as the public file functions reach it: null,
// with one log line naming the calling function, when no instance exists.
#ifndef VEL_API_BACK_END_H_
#define VEL_API_BACK_END_H_

#include "vel/client.h"
#include "vel/instance.h"
#include "vel/log.h"

namespace VEL {

inline VELClient* backEnd(const char* function) {
  VELClient* client = getInstance();
  if (client == nullptr) {
    if (LogInterface* logger = getLogger()) {
      logger->log(kLogError, "[VEL] %s: Internal Error, failed to get VELClient instance.",
                  function);
    }
  }
  return client;
}

}  // namespace VEL

#endif  // VEL_API_BACK_END_H_
