// Safe removal (moving aside) and permission bits of mirror paths.
#include "vel/local_perm.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "api/local_perm_internal.h"
#include "base/dir_mode.h"
#include "base/safe_str.h"
#include "vel/log.h"

namespace VEL {

namespace {

const char* const kRandomDevice = "/dev/urandom";
constexpr int kKeepCandidates = 100;

std::string& randomDevice() {
  static std::string device = kRandomDevice;
  return device;
}

// Four bytes from the random device; 0 when they cannot be read.
uint32_t drawRandom() {
  uint32_t value = 0;
  int fd = ::open(randomDevice().c_str(), O_RDONLY);
  if (fd < 0) {
    getLogger()->log(kLogError, "[VEL] safeRemoveLocalObj(), fail to open /dev/urandom");
    return value;
  }
  if (::read(fd, &value, sizeof(value)) != static_cast<ssize_t>(sizeof(value))) {
    getLogger()->log(kLogError, "[VEL] safeRemoveLocalObj(), fail to read /dev/urandom");
    value = 0;
  }
  ::close(fd);
  return value;
}

}  // namespace

std::string setRandomDeviceForTest(const std::string& path) {
  std::string old = randomDevice();
  randomDevice() = path.empty() ? std::string(kRandomDevice) : path;
  return old;
}

int32_t safeRemoveLocalObj(const std::string& path) {
  if (::access(path.c_str(), F_OK) != 0) {
    return 0;
  }
  uint32_t value = drawRandom();

  char suffix[64];
  memset_s(suffix, sizeof(suffix), 0, sizeof(suffix));
  if (snprintf_s(suffix, sizeof(suffix), sizeof(suffix) - 1, ".vel.keep.%08u", value) == -1) {
    getLogger()->log(kLogError, "[VEL] safeRemoveLocalObj(), snprintf_s return -1, .vel.keep.%08u",
                     value);
    suffix[0] = '\0';
  }

  std::string base = path + suffix;
  for (int idx = 0; idx < kKeepCandidates; ++idx) {
    std::string candidate = base;
    if (idx > 0) {
      char index[10];
      memset_s(index, sizeof(index), 0, sizeof(index));
      if (snprintf_s(index, sizeof(index), sizeof(index) - 1, "_%d", idx) == -1) {
        getLogger()->log(kLogError, "[VEL] safeRemoveLocalObj(), snprintf_s return -1, idx:_%d",
                         idx);
        return -1;
      }
      candidate += index;
    }
    if (::access(candidate.c_str(), F_OK) == 0) {
      continue;
    }
    if (std::rename(path.c_str(), candidate.c_str()) != 0) {
      getLogger()->log(kLogError, "[VEL] safeRemoveLocalObj:from:%s to:%s", path.c_str(),
                       candidate.c_str());
      return -1;
    }
    return 0;
  }
  getLogger()->log(kLogError, "[VEL] safeRemoveLocalObj: fail from:%s to:%s", path.c_str(), suffix);
  return -9;
}

int32_t getLocalPermission(const std::string& path) {
  struct stat st;
  int ret = ::stat(path.c_str(), &st);
  if (ret != 0) {
    getLogger()->log(kLogError, "[VEL] getLocalPermission: Failed to get Permission:%s %d",
                     path.c_str(), ret);
    return -1;
  }
  return static_cast<int32_t>(st.st_mode & 0x1FF);
}

int32_t setLocalPermission(const std::string& path, uint32_t mode) {
  // Never through a link: its target may lie outside the mirror.
  int ret = chmodNoFollow(path.c_str(), mode);
  if (ret != 0) {
    getLogger()->log(kLogError, "[VEL] setLocalPermission: Failed to set Permission:%s %d",
                     path.c_str(), ret);
    return -1;
  }
  return 0;
}

int32_t updateLocalPermission(const std::string& path, uint32_t mode) {
  int32_t current = getLocalPermission(path);
  if (static_cast<int64_t>(current) == static_cast<int64_t>(mode)) {
    return 0;
  }
  getLogger()->log(kLogDebug, "[VEL] updateLocalPermission: Change permission:%s, from:%d, to:%d",
                   path.c_str(), current, static_cast<int>(mode));
  return setLocalPermission(path, mode);
}

}  // namespace VEL
