// VELClientConfig: the one configuration record of the client library.
//
// Built from compiled-in defaults, then the environment ("TARN_ROOT_DIR",
// "TARN_TIME_OUT" at construction; "LOCALHOST_FIXSERVERNAME" in loadConfig),
// then the map given to init() (only "clientType" is read). loadConfig()
// validates and normalises; toString() describes the record in one line.
// Not thread-safe by itself: the client instance builds it once under its
// creation lock and only reads it afterwards.
#ifndef VEL_CLIENT_CONFIG_H_
#define VEL_CLIENT_CONFIG_H_

#include <cstdint>
#include <map>
#include <string>

#include "vel/export.h"

namespace VEL {

extern VEL_API const std::string kDefaultVelRoot;     // "/opt/backup/vel"
extern VEL_API const std::string kDefaultClientType;  // "Tavora"

// The accepted client types, in their numbered order 0..3.
extern VEL_API const char* const kClientTypes[4];  // "Local", "Tavora", "TavoraEx", "RawSocket"

class VEL_API VELClientConfig {
 public:
  // Defaults, then "TARN_ROOT_DIR" and "TARN_TIME_OUT" from the environment.
  VELClientConfig();

  // Applies "clientType" from params (may be null), validates the type
  // (an unknown one is logged and replaced by "Tavora"), cleans velRoot
  // (a root that cleans to "/" or to nothing is logged and replaced by the
  // default), sets httpBaseUrl for "Tavora" and bounds the retention and
  // size limit.
  void loadConfig(const std::map<std::string, std::string>* params);
  void loadConfig(const std::map<std::string, std::string>& params) { loadConfig(&params); }

  // "clientType=..; algorithm=..; isReadOnly=..; httpBaseUrl=..; velRoot=.., cmdTimeout=.."
  std::string toString() const;

  static std::string getPropertiesFileName() { return "velclient.properties"; }

  std::string clientType;
  std::string algorithm;
  bool isReadOnly;
  std::string httpBaseUrl;
  uint32_t connectWait;      // seconds, handed to the back-ends unchecked
  uint32_t retentionPeriod;  // seconds, 60..31622400 after loading
  uint64_t sizeLimit;        // bytes, at least 10485760 after loading
  std::string velRoot;
  int32_t cmdTimeout;  // agent command time-out in milliseconds
};

}  // namespace VEL

#endif  // VEL_CLIENT_CONFIG_H_
