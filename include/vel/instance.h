// The process-wide client instance: created on first use from the
// configuration, torn down by finish().
//
// getInstance() creates the back-end under the ACE static-object lock
// (double-checked; the fast path reads the pointer without locking) and
// returns null when the configured client type has no back-end ("TavoraEx",
// "RawSocket"). init() always returns 0; a second init() is logged and its
// map ignored.
#ifndef VEL_INSTANCE_H_
#define VEL_INSTANCE_H_

#include <map>
#include <string>

#include "vel/client.h"
#include "vel/client_config.h"
#include "vel/export.h"

namespace VEL {

using ConfigParams = std::map<std::string, std::string>;

VEL_API VELClient* getInstance(const ConfigParams* params = nullptr, bool* created = nullptr);
VEL_API int init(const ConfigParams& params);
VEL_API void finish();
// The factory: "Local" -> VELClientLocal, "Tavora" -> VELClientTavora, else null.
VEL_API VELClient* createClient(VELClientConfig* config);

}  // namespace VEL

#endif  // VEL_INSTANCE_H_
