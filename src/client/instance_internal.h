// Internal hooks of the process-wide client instance, for tests that need
// to run the public API against a back-end of their own.
#ifndef VEL_CLIENT_INSTANCE_INTERNAL_H_
#define VEL_CLIENT_INSTANCE_INTERNAL_H_

#include "vel/client.h"

namespace VEL {

// Publishes `client` (may be null) as the process-wide instance without
// creating directories or calling any slot, and returns the instance it
// replaced. The caller keeps ownership of both.
VELClient* setInstanceForTest(VELClient* client);

}  // namespace VEL

#endif  // VEL_CLIENT_INSTANCE_INTERNAL_H_
