// The public API in remote mode when the agent is missing, refuses, drops
// the connection in the middle of an operation, stalls past the command
// time-out or lists a directory inside itself. Whatever happens, no local
// file is deleted or overwritten.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <list>
#include <string>

#include "remote_fixture.h"
#include "vel/codeset.h"
#include "vel/hooks.h"
#include "vel/listing.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using veltest::readFile;

class RemoteFailureTest : public RemoteFixture {
 protected:
  // Local edits of files the service has older copies of, and a file never sent.
  void SetUp() override {
    RemoteFixture::SetUp();
    if (HasFatalFailure()) return;
    storeFile("w/doc", "service version");
    storeFile("w/sub/deep", "service deep");
    mirrorFile("w/doc", "local edit");
    mirrorFile("w/sub/deep", "local deep edit");
    mirrorFile("w/draft", "never sent");
  }
  void expectMirrorKept() const {
    EXPECT_EQ(readFile(mirror("w/doc")), "local edit");
    EXPECT_EQ(readFile(mirror("w/sub/deep")), "local deep edit");
    EXPECT_EQ(readFile(mirror("w/draft")), "never sent");
  }
};

TEST_F(RemoteFailureTest, WithoutAgentEveryCallFailsAndKeepsTheMirror) {
  agent_->stop();
  EXPECT_EQ(VEL::syncFromServer("w", true), -18);
  EXPECT_EQ(VEL::syncToServer("w", true), -18);
  EXPECT_EQ(VEL::mkdir("w/new", 0750), -18);
  EXPECT_EQ(VEL::unlink("w/draft"), -18);
  EXPECT_EQ(VEL::rmdir("w/sub"), 0);
  EXPECT_EQ(VEL::beforeRead("w/doc"), -18);
  EXPECT_EQ(VEL::afterWrite("w/doc"), -18);
  EXPECT_EQ(VEL::rename("w/doc", "w/doc2"), -6);
  EXPECT_EQ(VEL::chmod("w/doc", 0600), -6);
  struct stat st;
  EXPECT_EQ(VEL::stat("w/doc", &st), -1);
  struct dirent** names = nullptr;
  EXPECT_EQ(VEL::scandir("w", &names, nullptr, nullptr), 0);
  expectMirrorKept();
  EXPECT_TRUE(logged("DEBUG [VEL] TarnGetClient() Begin report status, request is " +
                     agent_->socketPath() + "."));
  EXPECT_TRUE(logged("[TARN] VELClientTavora::chmod(w/doc, 384) Failed to get client :" +
                     agent_->socketPath() + ", errCode=-6"));
}

// The lookups succeed; every command that would change something is
// refused, answered with an error or cut off by a closed connection.
TEST_F(RemoteFailureTest, RefusedAndDroppedRepliesKeepTheMirror) {
  for (const char* reply :
       {R"(["status", "NO"])", R"(["error", "ERR quota"])", R"(["close", ""])"}) {
    SCOPED_TRACE(reply);
    std::string rules;
    for (const char* command : {"tarn.downloadlocal", "tarn.uploadlocal", "tarn.createinfo",
                                "tarn.move", "tarn.chmod", "tarn.remove"}) {
      rules += std::string(rules.empty() ? "[" : ",") + R"({"match": [")" + command +
               R"("], "reply": )" + reply + "}";
    }
    agent_->setRules(rules + "]");
    EXPECT_EQ(VEL::syncFromServer("w/doc", false), -6);
    EXPECT_EQ(VEL::syncToServer("w", true), -6);
    EXPECT_EQ(VEL::mkdir("w/new", 0750), -6);
    EXPECT_EQ(VEL::rename("w/doc", "w/doc2"), -6);
    EXPECT_EQ(VEL::chmod("w/doc", 0600), -6);
    EXPECT_EQ(VEL::unlink("w/doc"), -6);
    EXPECT_EQ(VEL::rmdir("w/sub"), 0);
    // Reading goes on with the local copy.
    FILE* in = VEL::fopen("w/doc", "r");
    ASSERT_NE(in, nullptr);
    char buffer[32] = {0};
    size_t got = std::fread(buffer, 1, sizeof(buffer), in);
    EXPECT_EQ(VEL::fclose(in), 0);
    EXPECT_EQ(std::string(buffer, got), "local edit");
    expectMirrorKept();
  }
  EXPECT_EQ(readFile(store("w/doc")), "service version");

  // A tree pull whose listing breaks off ends quietly; a lookup that breaks
  // off is an error.
  agent_->setRules(R"([{"match": ["tarn.dir"], "reply": ["close", ""]}])");
  EXPECT_EQ(VEL::syncFromServer("w/sub", true), 0);
  EXPECT_TRUE(logged("[VEL] syncCurrentPath() Failed to get file list w/sub"));
  agent_->setRules(R"([{"match": ["tarn.metadata"], "reply": ["close", ""]}])");
  EXPECT_EQ(VEL::syncFromServer("w/doc", true), -6);
  expectMirrorKept();
}

// A reply that never comes is cut off by the configured command time-out
// ("TARN_TIME_OUT", milliseconds) instead of hanging the caller.
TEST_F(RemoteFailureTest, StalledAgentIsCutOffByTheCommandTimeOut) {
  VEL::finish();
  {
    veltest::ScopedEnv timeout("TARN_TIME_OUT", "400");
    VEL::init({{"clientType", "Tavora"}});
  }
  agent_->setRules(
      R"([{"match": ["tarn.metadata"], "reply": ["status", "OK"], "delay_ms": 5000}])");
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEL::syncFromServer("w/doc", false), -6);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_TRUE(logged("[VEL] TarnGetMetaData:Internal Error: null reply."));
  expectMirrorKept();
}

// An agent that lists a directory inside itself must not keep a tree walk
// going forever: every directory is walked once.
TEST_F(RemoteFailureTest, SelfListingDirectoryIsWalkedOnce) {
  storeFile("a/f", "f bytes");
  agent_->setRules(R"([{"match": ["tarn.dir"], "reply": ["array", ["a/", "a/f"]]}])");
  EXPECT_EQ(VEL::syncFromServer("a", true), 0);
  std::list<std::string> names;
  EXPECT_EQ(VEL::readDir("a", names, false, true), 1);
  EXPECT_EQ(readFile(mirror("a/f")), "f bytes");
  EXPECT_EQ(countOf("tarn.dir "), 2u);
}

}  // namespace
