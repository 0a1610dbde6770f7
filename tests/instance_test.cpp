#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/instance_internal.h"
#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/client_local.h"
#include "vel/instance.h"

namespace {

using veltest::FakeClient;
using veltest::LogCapture;
using veltest::ScopedEnv;
using veltest::ScopedInstance;
using veltest::TempDir;

// Each case starts without an instance, on a mirror of its own.
class InstanceTest : public ::testing::Test {
 protected:
  void SetUp() override { VEL::finish(); }
  void TearDown() override { VEL::finish(); }

  LogCapture log_;
  TempDir root_;
  ScopedEnv env_{"TARN_ROOT_DIR", root_.path().c_str()};
};

TEST_F(InstanceTest, InitCreatesTheLocalBackEndAndTheModuleDirectories) {
  EXPECT_EQ(0, VEL::init({{"clientType", "Local"}}));
  VEL::VELClient* client = VEL::getInstance();
  ASSERT_NE(nullptr, client);
  EXPECT_EQ(1, client->isLocalOnly());
  EXPECT_EQ(root_.path(), client->config()->velRoot);
  for (const char* name : VEL::kModuleDirs) {
    EXPECT_EQ(0750, veltest::permissionsOf(root_.sub(name))) << name;
  }
  EXPECT_EQ("corea", std::string(VEL::kModuleDirs[18]));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] VELClientConfig::loadConfig(), current config:clientType=Local"));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] init(): Initialize VELClient, current config:clientType=Local"));
  EXPECT_TRUE(
      log_.contains("DEBUG [VEL] " + root_.sub("ferry") + " is not exist, create it. ret:0"));
  EXPECT_FALSE(log_.contains("had been initialized before init!"));

  // A second init keeps the first configuration.
  EXPECT_EQ(0, VEL::init({{"clientType", "Tavora"}}));
  EXPECT_EQ(client, VEL::getInstance());
  EXPECT_EQ("Local", client->config()->clientType);
  EXPECT_EQ(1u, log_.lines("ERROR [VEL] init(): VELClient had been initialized before init!"));
}

TEST_F(InstanceTest, TypesWithoutBackEnd) {
  for (const char* type : {"TavoraEx", "RawSocket"}) {
    VEL::ConfigParams params{{"clientType", type}};
    bool created = true;
    EXPECT_EQ(nullptr, VEL::getInstance(&params, &created)) << type;
    EXPECT_FALSE(created);
    log_.clear();
    EXPECT_EQ(0, VEL::init(params));  // must not touch the absent instance
    EXPECT_TRUE(log_.contains("had been initialized before init!"));
    EXPECT_FALSE(log_.contains("Initialize VELClient"));
  }
  EXPECT_FALSE(veltest::pathExists(root_.sub("ferry")));

  VEL::VELClientConfig config;
  config.clientType = "Local";
  std::unique_ptr<VEL::VELClient> local(VEL::createClient(&config));
  ASSERT_NE(nullptr, local);
  EXPECT_EQ(1, local->isLocalOnly());
  config.clientType = "Tavora";
  std::unique_ptr<VEL::VELClient> remote(VEL::createClient(&config));
  ASSERT_NE(nullptr, remote);
  EXPECT_EQ(0, remote->isLocalOnly());
  config.clientType = "TavoraEx";
  EXPECT_EQ(nullptr, VEL::createClient(&config));
  EXPECT_EQ(nullptr, VEL::createClient(nullptr));
}

TEST_F(InstanceTest, ConcurrentFirstUseCreatesOneInstance) {
  VEL::ConfigParams params{{"clientType", "Local"}};
  std::atomic<int> creators{0};
  std::vector<VEL::VELClient*> seen(8, nullptr);
  std::vector<std::thread> threads;
  for (size_t t = 0; t < seen.size(); ++t) {
    threads.emplace_back([&, t] {
      bool created = false;
      seen[t] = VEL::getInstance(&params, &created);
      creators += created ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(1, creators.load());
  for (VEL::VELClient* client : seen) {
    EXPECT_NE(nullptr, client);
    EXPECT_EQ(seen[0], client);
  }
  EXPECT_EQ(1u, log_.lines("current config:"));
}

TEST_F(InstanceTest, FinishStopsReleasesAndForgetsTheInstance) {
  VEL::finish();  // nothing to do without an instance
  FakeClient client(root_.path());
  VEL::VELClient* previous = VEL::setInstanceForTest(&client);
  EXPECT_EQ(nullptr, previous);
  client.results["release"] = 3;
  VEL::finish();
  EXPECT_EQ((std::vector<std::string>{"stop()", "release()"}), client.calls);
  EXPECT_TRUE(log_.contains("ERROR [VEL] Failed to execute finish."));

  // The next use builds a fresh instance and configuration.
  VEL::ConfigParams params{{"clientType", "Local"}};
  bool created = false;
  VEL::VELClient* fresh = VEL::getInstance(&params, &created);
  EXPECT_TRUE(created);
  ASSERT_NE(nullptr, fresh);
  EXPECT_NE(static_cast<VEL::VELClient*>(&client), fresh);
  EXPECT_EQ(fresh, VEL::getInstance(nullptr, &created));
  EXPECT_FALSE(created);
}

TEST_F(InstanceTest, CreateRootSkipsExistingAndReportsFailures) {
  FakeClient client(root_.path());
  veltest::makeDirs(root_.sub("quill"), 0700);
  EXPECT_EQ(0, client.createRoot());
  EXPECT_EQ(0700, veltest::permissionsOf(root_.sub("quill")));  // left alone
  EXPECT_EQ(0750, veltest::permissionsOf(root_.sub("tavora")));

  FakeClient orphan(root_.sub("missing/root"));
  EXPECT_EQ(-1, orphan.createRoot());
  EXPECT_EQ(19u, log_.lines("ERROR [VEL] " + root_.sub("missing/root") + "/"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] " + root_.sub("missing/root/vel_protect") +
                            " is not exist, create it. ret:-1"));
}

TEST_F(InstanceTest, BaseSlotsRolesAndOpenFileRegistry) {
  FakeClient client(root_.path());
  // Slot 19 of the base: a fresh record for the path.
  EXPECT_EQ(-4, client.VELClient::stat("a/b", nullptr));
  VEL::VELFileInfoWrap* wrap = nullptr;
  ASSERT_EQ(0, client.VELClient::stat("a/b", &wrap));
  ASSERT_NE(nullptr, wrap);
  ASSERT_NE(nullptr, wrap->get());
  EXPECT_EQ("a/b", wrap->get()->velPath);
  EXPECT_EQ(0, client.VELClient::stat("c", &wrap));  // reuses the wrapper
  EXPECT_EQ("c", wrap->get()->velPath);
  delete wrap;
  EXPECT_EQ(0, client.VELClient::forgetNode("c"));

  // Slot 4 of the base calls slot 3.
  EXPECT_EQ(0, client.VELClient::release());
  EXPECT_EQ("stop()", client.calls.back());

  EXPECT_EQ(1, VEL::VELClient::getClientRole("Client"));
  EXPECT_EQ(4, VEL::VELClient::getClientRole("Storage"));
  EXPECT_EQ(2, VEL::VELClient::getClientRole("ROClient"));
  EXPECT_EQ(3, VEL::VELClient::getClientRole("Tracker"));
  EXPECT_EQ(5, VEL::VELClient::getClientRole("FileAgent"));
  EXPECT_EQ(6, VEL::VELClient::getClientRole("SyncAgent"));
  EXPECT_EQ(0, VEL::VELClient::getClientRole("client"));

  std::string path = "unset";
  std::string mode = "unset";
  FILE* handle = std::tmpfile();
  ASSERT_NE(nullptr, handle);
  EXPECT_FALSE(client.getFileOpenMode(handle, path, mode));  // empty registry
  client.putFileOpenMode(nullptr, "ignored", "r");
  EXPECT_FALSE(client.getFileOpenMode(nullptr, path, mode));
  client.putFileOpenMode(handle, "a/b", "w");
  client.putFileOpenMode(handle, "a/c", "r+");  // overwrites
  EXPECT_TRUE(log_.contains("ERROR [VEL] fopen(), putFileOpenMode: path: a/c, mode: r+"));
  EXPECT_FALSE(client.getFileOpenMode(stdout, path, mode));
  EXPECT_EQ("unset", path);
  EXPECT_FALSE(log_.contains("getFileOpenMode"));
  ASSERT_TRUE(client.getFileOpenMode(handle, path, mode));
  EXPECT_EQ("a/c", path);
  EXPECT_EQ("r+", mode);
  EXPECT_TRUE(client.getFileOpenMode(handle, path, mode));  // entries stay
  EXPECT_EQ(2u, log_.lines("ERROR [VEL] fclose(), getFileOpenMode: path: a/c, mode: r+"));
  std::fclose(handle);
}

}  // namespace
