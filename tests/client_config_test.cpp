#include <gtest/gtest.h>

#include <map>
#include <string>

#include "base/tree_depth.h"
#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/client_config.h"
#include "vel/log.h"

namespace {

using veltest::ScopedEnv;

// Every case starts from a clean environment and a fresh log file.
class ClientConfigTest : public ::testing::Test {
 protected:
  veltest::LogCapture log_;
  ScopedEnv root_{"TARN_ROOT_DIR", nullptr};
  ScopedEnv timeout_{"TARN_TIME_OUT", nullptr};
  ScopedEnv host_{"LOCALHOST_FIXSERVERNAME", nullptr};
};

TEST_F(ClientConfigTest, DefaultsAndTheirDescription) {
  VEL::VELClientConfig config;
  EXPECT_EQ(180u, config.connectWait);
  EXPECT_EQ(604800u, config.retentionPeriod);
  EXPECT_EQ(4294967296ULL, config.sizeLimit);
  config.loadConfig(nullptr);
  EXPECT_EQ("clientType=Tavora; algorithm=SHA-256; isReadOnly=0; httpBaseUrl=" +
                config.httpBaseUrl + "; velRoot=/opt/backup/vel, cmdTimeout=30000",
            config.toString());
  EXPECT_EQ(0u, config.httpBaseUrl.rfind("https://", 0));
  EXPECT_EQ('/', config.httpBaseUrl.back());
  // Without LOCALHOST_FIXSERVERNAME the "Tavora" type reports the default URL.
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] VELClient: Cannot get local ip address from "
                    "'LOCALHOST_FIXSERVERNAME', httpBaseUrl=" +
                    config.httpBaseUrl));
}

TEST_F(ClientConfigTest, TimeOutAndTreeDepthFromTheEnvironment) {
  const std::map<std::string, int> cases = {{"45000xyz", 45000}, {"abc", 30000}, {"0", 30000},
                                            {"-5", 30000},       {"1", 1},       {"", 30000}};
  for (const auto& [text, expected] : cases) {
    ScopedEnv env("TARN_TIME_OUT", text.c_str());
    EXPECT_EQ(expected, VEL::VELClientConfig().cmdTimeout) << "TARN_TIME_OUT=" << text;
  }
  const std::map<std::string, int> depths = {
      {"1", 1},    {"64", 64},   {"4096", 4096}, {"4097", 128}, {"0", 128},
      {"-3", 128}, {"12x", 128}, {" 7", 128},    {"", 128},     {"99999999999999999999", 128}};
  for (const auto& [text, expected] : depths) {
    ScopedEnv env("VEL_MAX_TREE_DEPTH", text.c_str());
    EXPECT_EQ(expected, VEL::maxTreeDepth()) << "VEL_MAX_TREE_DEPTH=" << text;
  }
  ScopedEnv unset("VEL_MAX_TREE_DEPTH", nullptr);
  EXPECT_EQ(128, VEL::maxTreeDepth());
}

TEST_F(ClientConfigTest, RootFromTheEnvironmentIsCleanedOnLoading) {
  for (const char* root : {"/data/mirror/", " //data//./x/../mirror "}) {
    ScopedEnv env("TARN_ROOT_DIR", root);
    VEL::VELClientConfig config;
    EXPECT_EQ(root, config.velRoot);  // verbatim until loaded
    config.loadConfig(nullptr);
    EXPECT_EQ("/data/mirror", config.velRoot);
  }
}

// A root that cleans to "/" (or to nothing, which makes every mirror path
// absolute below "/") would make the file-system root the mirror. Checked
// on the record alone: init() would create the module folders there.
TEST_F(ClientConfigTest, RootThatCleansToTheFileSystemRootIsRefused) {
  for (const char* root : {"/", "//", "/..", " / ./ ", ""}) {
    ScopedEnv env("TARN_ROOT_DIR", root);
    VEL::VELClientConfig config;
    config.loadConfig(nullptr);
    EXPECT_EQ("/opt/backup/vel", config.velRoot) << "TARN_ROOT_DIR=\"" << root << "\"";
    EXPECT_TRUE(log_.contains("ERROR [VEL] VELClientConfig::loadConfig: Refused mirror root \"" +
                              std::string(root) +
                              "\", it is the file-system root; velRoot=/opt/backup/vel\n"))
        << root;
  }
}

TEST_F(ClientConfigTest, ClientTypeFromTheInitMap) {
  for (const char* type : {"Local", "Tavora", "TavoraEx", "RawSocket"}) {
    VEL::VELClientConfig config;
    config.loadConfig({{"clientType", type}});
    EXPECT_EQ(type, config.clientType);
  }
  VEL::VELClientConfig lower;
  lower.loadConfig({{"clientType", "local"}});
  EXPECT_EQ("Tavora", lower.clientType);
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] VELClientConfig::loadConfig: Invalid parameter "
                    "\"clientType\"=local"));
  // Other keys and other spellings of the key are not read.
  VEL::VELClientConfig other;
  other.loadConfig({{"ClientType", "Local"}, {"velRoot", "/x"}});
  EXPECT_EQ("Tavora", other.clientType);
  EXPECT_EQ("/opt/backup/vel", other.velRoot);
}

TEST_F(ClientConfigTest, ServerNameOnlyForTheTavoraType) {
  ScopedEnv env("LOCALHOST_FIXSERVERNAME", "10.0.0.5");
  VEL::VELClientConfig tavora;
  tavora.loadConfig(nullptr);
  EXPECT_EQ("https://10.0.0.5:18888/", tavora.httpBaseUrl);
  EXPECT_TRUE(
      log_.contains("CALL [VEL] VELClient: LOCALHOST_FIXSERVERNAME=10.0.0.5, "
                    "httpBaseUrl=https://10.0.0.5:18888/"));
  for (const char* type : {"Local", "TavoraEx"}) {
    VEL::VELClientConfig config;
    std::string before = config.httpBaseUrl;
    config.loadConfig({{"clientType", type}});
    EXPECT_EQ(before, config.httpBaseUrl) << type;
  }
}

TEST_F(ClientConfigTest, RetentionAndSizeLimitAreBounded) {
  struct Case {
    uint32_t retention;
    uint32_t expectedRetention;
    uint64_t size;
    uint64_t expectedSize;
  };
  const Case cases[] = {
      {0, 60, 0, 10485760},
      {59, 60, 10485759, 10485760},
      {60, 60, 10485760, 10485760},
      {31622400, 31622400, 10485761, 10485761},
      {31622401, 31622400, 4294967296ULL, 4294967296ULL},
  };
  for (const Case& c : cases) {
    VEL::VELClientConfig config;
    config.retentionPeriod = c.retention;
    config.sizeLimit = c.size;
    config.httpBaseUrl = "https://h";
    config.loadConfig(nullptr);
    EXPECT_EQ(c.expectedRetention, config.retentionPeriod) << c.retention;
    EXPECT_EQ(c.expectedSize, config.sizeLimit) << c.size;
    EXPECT_EQ("https://h/", config.httpBaseUrl);
  }
}

TEST_F(ClientConfigTest, DescriptionTooLongIsCutAndLogged) {
  VEL::VELClientConfig config;
  config.velRoot = std::string(600, 'r');
  std::string text = config.toString();
  EXPECT_EQ(511u, text.size());
  EXPECT_EQ(0u, text.find("clientType=Tavora; algorithm=SHA-256; isReadOnly=0; httpBaseUrl="));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] VELClientConfig::toString(), snprintf_s return -1, "
                    "clientType=Tavora; algorithm=SHA-256; isReadOnly=0;"));
}

}  // namespace
