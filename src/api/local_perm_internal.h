// Internal hook of the safe local removal, for tests: the device from
// which the random part of kept-copy names is read.
#ifndef VEL_API_LOCAL_PERM_INTERNAL_H_
#define VEL_API_LOCAL_PERM_INTERNAL_H_

#include <string>

namespace VEL {

// Reads the random value from `path` instead of "/dev/urandom" (an empty
// path restores "/dev/urandom"). Returns the device used before. Not
// thread-safe: call it only while no removal runs.
std::string setRandomDeviceForTest(const std::string& path);

}  // namespace VEL

#endif  // VEL_API_LOCAL_PERM_INTERNAL_H_
