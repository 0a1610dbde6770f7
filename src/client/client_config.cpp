#include "vel/client_config.h"

#include <cstdlib>
#include <cstring>

#include "base/safe_str.h"
#include "vel/log.h"
#include "vel/paths.h"

namespace VEL {

const std::string kDefaultVelRoot = "/opt/backup/vel";
const std::string kDefaultClientType = "Tavora";
const char* const kClientTypes[4] = {"Local", "Tavora", "TavoraEx", "RawSocket"};

namespace {

constexpr const char* kDefaultBaseUrl = "https://127.0.0.1/";
constexpr uint32_t kDefaultConnectWait = 180;
constexpr uint32_t kDefaultRetention = 604800;  // seven days
constexpr uint32_t kMinRetention = 60;
constexpr uint32_t kMaxRetention = 31622400;
constexpr uint64_t kDefaultSizeLimit = 4294967296ULL;  // 4 GiB
constexpr uint64_t kMinSizeLimit = 10485760ULL;        // 10 MiB
constexpr int32_t kDefaultCmdTimeout = 30000;

}  // namespace

VELClientConfig::VELClientConfig()
    : clientType(kDefaultClientType),
      algorithm("SHA-256"),
      isReadOnly(false),
      httpBaseUrl(kDefaultBaseUrl),
      connectWait(kDefaultConnectWait),
      retentionPeriod(kDefaultRetention),
      sizeLimit(kDefaultSizeLimit),
      velRoot(kDefaultVelRoot),
      cmdTimeout(kDefaultCmdTimeout) {
  if (const char* root = std::getenv("TARN_ROOT_DIR")) {
    velRoot = root;
  }
  if (const char* timeout = std::getenv("TARN_TIME_OUT")) {
    long value = std::strtol(timeout, nullptr, 10);
    if (value > 0) {
      cmdTimeout = static_cast<int32_t>(value);
    }
  }
}

void VELClientConfig::loadConfig(const std::map<std::string, std::string>* params) {
  if (params != nullptr) {
    auto it = params->find("clientType");
    if (it != params->end()) {
      clientType = it->second;
    }
  }
  bool known = false;
  for (const char* type : kClientTypes) {
    if (clientType == type) {
      known = true;
      break;
    }
  }
  if (!known) {
    getLogger()->log(kLogError,
                     "[VEL] VELClientConfig::loadConfig: Invalid parameter \"clientType\"=%s",
                     clientType.c_str());
    clientType = kDefaultClientType;
  }

  const std::string configuredRoot = velRoot;
  velRoot = normalizePath(velRoot.c_str(), false, '/');
  // A root of "/" would make the file-system root the mirror, and an empty
  // one makes every mirror path absolute below "/": both refused.
  if (velRoot.empty() || velRoot == "/") {
    getLogger()->log(kLogError,
                     "[VEL] VELClientConfig::loadConfig: Refused mirror root \"%s\", it is the "
                     "file-system root; velRoot=%s",
                     configuredRoot.c_str(), kDefaultVelRoot.c_str());
    velRoot = kDefaultVelRoot;
  }

  if (clientType == "Tavora") {
    if (const char* host = std::getenv("LOCALHOST_FIXSERVERNAME")) {
      httpBaseUrl = std::string("https://") + host + ":18888/";
      getLogger()->log(kLogCall, "[VEL] VELClient: LOCALHOST_FIXSERVERNAME=%s, httpBaseUrl=%s",
                       host, httpBaseUrl.c_str());
    } else {
      getLogger()->log(
          kLogError,
          "[VEL] VELClient: Cannot get local ip address from 'LOCALHOST_FIXSERVERNAME', "
          "httpBaseUrl=%s",
          httpBaseUrl.c_str());
    }
  }
  if (httpBaseUrl.empty() || httpBaseUrl.back() != '/') {
    httpBaseUrl.push_back('/');
  }
  if (retentionPeriod < kMinRetention) {
    retentionPeriod = kMinRetention;
  } else if (retentionPeriod > kMaxRetention) {
    retentionPeriod = kMaxRetention;
  }
  if (sizeLimit < kMinSizeLimit) {
    sizeLimit = kMinSizeLimit;
  }
}

std::string VELClientConfig::toString() const {
  char buffer[512];
  buffer[0] = '\0';
  int ret = snprintf_s(
      buffer, sizeof(buffer), sizeof(buffer) - 1,
      "clientType=%s; algorithm=%s; isReadOnly=%d; httpBaseUrl=%s; velRoot=%s, cmdTimeout=%d",
      clientType.c_str(), algorithm.c_str(), isReadOnly ? 1 : 0, httpBaseUrl.c_str(),
      velRoot.c_str(), cmdTimeout);
  if (ret == -1) {
    getLogger()->log(
        kLogError,
        "[VEL] VELClientConfig::toString(), snprintf_s return -1, clientType=%s; algorithm=%s; "
        "isReadOnly=%d; httpBaseUrl=%s; velRoot=%s, cmdTimeout=%d",
        clientType.c_str(), algorithm.c_str(), isReadOnly ? 1 : 0, httpBaseUrl.c_str(),
        velRoot.c_str(), cmdTimeout);
  }
  return std::string(buffer);
}

}  // namespace VEL
