// The public API in remote mode when the agent refuses, drops the
// connection in the middle of an operation, or stalls past the command
// time-out. Whatever happens, no local file is deleted or overwritten,
// except a file that stands where the service has a directory, which is
// moved aside under a kept name.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <list>
#include <string>

#include "remote_e2e.h"
#include "vel/codeset.h"
#include "vel/hooks.h"
#include "vel/listing.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using veltest::makeDirs;
using veltest::pathExists;
using veltest::permissionsOf;
using veltest::readFile;
using veltest::RemoteE2E;

class RemoteFailureTest : public RemoteE2E {
 protected:
  // A mirror with edited files, a folder and a subfolder; the service has
  // older copies of some of them.
  void prepare() {
    storeFile("w/doc", "service version", 0640);
    storeFile("w/sub/deep", "service deep", 0640);
    storeDir("w/sub", 0750);
    makeDirs(mirror("w/sub"), 0750);
    mirrorFile("w/doc", "local edit");
    mirrorFile("w/sub/deep", "local deep edit");
    mirrorFile("w/draft", "never sent");
    ::chmod(mirror("w/doc").c_str(), 0640);
  }
};

TEST_F(RemoteFailureTest, RefusedRepliesLeaveTheMirrorUntouched) {
  prepare();
  auto before = snapshot(mirrorRoot());
  agent_->setRules(R"([
    {"match": ["tarn.downloadlocal"], "reply": ["status", "NO"]},
    {"match": ["tarn.uploadlocal"], "reply": ["error", "ERR quota"]},
    {"match": ["tarn.createinfo"], "reply": ["status", "EXISTS"]},
    {"match": ["tarn.move"], "reply": ["status", "ok"]},
    {"match": ["tarn.move_cache"], "reply": ["bulk", "moved"]},
    {"match": ["tarn.chmod"], "reply": ["int", 0]},
    {"match": ["tarn.remove"], "reply": ["status", "BUSY"]}
  ])");
  veltest::StdoutCapture capture1;
  EXPECT_EQ(VEL::syncFromServer("w/doc", false), -6);
  EXPECT_EQ(VEL::syncToServer("w", true), -6);
  EXPECT_EQ(VEL::mkdir("w/new", 0750), -6);
  EXPECT_EQ(VEL::mkdir_all("w/x/y", 0750), -6);
  EXPECT_EQ(VEL::rename("w/doc", "w/doc2"), -6);
  EXPECT_EQ(VEL::chmod("w/doc", 0600), -6);
  EXPECT_EQ(VEL::unlink("w/doc"), -6);
  // rmdir reports success but keeps the local folder.
  EXPECT_EQ(VEL::rmdir("w/sub"), 0);
  // Reading goes on with the local copy after a refused download.
  FILE* in = VEL::fopen("w/doc", "r");
  ASSERT_NE(in, nullptr);
  char buffer[32] = {0};
  size_t got = std::fread(buffer, 1, sizeof(buffer) - 1, in);
  EXPECT_EQ(VEL::fclose(in), 0);
  std::string out = capture1.text();
  EXPECT_EQ(std::string(buffer, got), "local edit");
  EXPECT_NE(out.find("chmod remote fail, w/doc -> mod:384.\n"), std::string::npos) << out;

  EXPECT_EQ(snapshot(mirrorRoot()), before);
  EXPECT_EQ(readFile(store("w/doc")), "service version");
  EXPECT_TRUE(
      logged("[VEL] VELClientTavora::doSyncNodeFromRemote() Failed to download: w/doc, "
             "416, -6"));
  EXPECT_TRUE(logged("[VEL] VELClientTavora::newDir() Failed to newDir:w/new, errCode=-6"));
  EXPECT_TRUE(logged("[TARN] VELClientTavora::chmod(w/doc, 384) Failed to chmod, errCode=-6"));
}

TEST_F(RemoteFailureTest, ConnectionDroppedMidOperationLosesNothingLocal) {
  prepare();
  auto before = snapshot(mirrorRoot());
  veltest::StdoutCapture capture2;
  // The lookups succeed, the download that follows breaks off.
  agent_->setRules(R"([{"match": ["tarn.downloadlocal"], "reply": ["close", ""]}])");
  EXPECT_EQ(VEL::syncFromServer("w/sub/deep", false), -6);
  // A tree pull whose listing breaks off is logged and ends quietly.
  agent_->setRules(R"([{"match": ["tarn.dir", "TestService", "w/sub"],
                        "reply": ["close", ""]}])");
  EXPECT_EQ(VEL::syncFromServer("w/sub", true), 0);
  agent_->setRules(R"([{"match": ["tarn.metadata"], "reply": ["close", ""]}])");
  EXPECT_EQ(VEL::syncFromServer("w/doc", true), -6);
  struct stat st;
  EXPECT_EQ(VEL::stat("w/doc", &st), -1);
  EXPECT_EQ(VEL::exists("w/doc"), 0);
  capture2.text();

  auto after = snapshot(mirrorRoot());
  EXPECT_EQ(after, before);
  EXPECT_TRUE(logged("[VEL] syncCurrentPath() Failed to get file list w/sub"));
}

// A metadata reply that never comes is cut off by the configured command
// time-out ("TARN_TIME_OUT", milliseconds) instead of hanging the caller.
TEST_F(RemoteFailureTest, StalledAgentIsCutOffByTheCommandTimeOut) {
  VEL::finish();
  ::setenv("TARN_TIME_OUT", "400", 1);
  VEL::init({{"clientType", "Tavora"}});
  ::unsetenv("TARN_TIME_OUT");
  prepare();
  auto before = snapshot(mirrorRoot());
  agent_->setRules(R"([{"match": ["tarn.metadata"], "reply": ["status", "OK"],
                        "delay_ms": 5000}])");
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(VEL::syncFromServer("w/doc", false), -6);
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_LT(seconds, 3.0);
  EXPECT_EQ(snapshot(mirrorRoot()), before);
  EXPECT_TRUE(logged("[VEL] TarnGetMetaData:Internal Error: null reply."));
}

// A local file where the service has a directory is the one case in which
// a local object leaves its place, and then its bytes are kept aside.
TEST_F(RemoteFailureTest, ConflictingFileIsKeptAsideEvenWhenTheRestFails) {
  storeFile("c/inner/f", "service f", 0640);
  mirrorFile("c", "local bytes");
  agent_->setRules(R"([{"match": ["tarn.downloadlocal"], "reply": ["error", "ERR gone"]}])");
  EXPECT_EQ(VEL::syncFromServer("c/inner/f", false), -6);
  std::vector<std::string> kept = keptCopies("c");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(readFile(mirror(kept[0])), "local bytes");
  EXPECT_TRUE(pathExists(mirror("c/inner")));
  EXPECT_FALSE(pathExists(mirror("c/inner/f")));

  // A local directory where the service has a file: the download fails and
  // the directory keeps its content.
  storeFile("dfile", "service file");
  mirrorFile("dfile/mine", "mine");
  agent_->setRules("[]");
  EXPECT_NE(VEL::syncFromServer("dfile", false), 0);
  EXPECT_EQ(readFile(mirror("dfile/mine")), "mine");
}

// An agent that lists a directory inside itself must not keep a tree walk
// going forever: every directory is walked once.
TEST_F(RemoteFailureTest, SelfListingDirectoryIsWalkedOnce) {
  storeFile("a/f", "f bytes");
  agent_->setRules(R"([{"match": ["tarn.dir", "TestService"],
                        "reply": ["array", ["a/", "a/f"]]}])");
  veltest::StdoutCapture capture;
  EXPECT_EQ(VEL::syncFromServer("a", true), 0);
  std::list<std::string> names;
  EXPECT_EQ(VEL::readDir("a", names, false, true), 1);
  capture.text();
  EXPECT_EQ(readFile(mirror("a/f")), "f bytes");
  EXPECT_EQ(countOf("tarn.dir"), 2u);
}

TEST_F(RemoteFailureTest, NoAgentAtAllKeepsEveryLocalByte) {
  prepare();
  auto before = snapshot(mirrorRoot());
  agent_->stop();
  veltest::StdoutCapture capture3;
  EXPECT_EQ(VEL::syncFromServer("w", true), -18);
  EXPECT_EQ(VEL::syncToServer("w", true), -18);
  EXPECT_EQ(VEL::mkdir_all("w/a/b", 0750), -18);
  EXPECT_EQ(VEL::rename("w/doc", "w/doc2"), -6);
  EXPECT_EQ(VEL::chmod("w/doc", 0600), -6);
  EXPECT_EQ(VEL::unlink("w/draft"), -18);
  EXPECT_EQ(VEL::beforeRead("w/doc"), -18);
  EXPECT_EQ(VEL::afterWrite("w/doc"), -18);
  struct dirent** names = nullptr;
  EXPECT_EQ(VEL::scandir("w", &names, nullptr, nullptr), 0);
  std::string out = capture3.text();
  EXPECT_EQ(snapshot(mirrorRoot()), before);
  EXPECT_TRUE(logged("[TARN] VELClientTavora::chmod(w/doc, 384) Failed to get client :" +
                     agent_->socketPath() + ", errCode=-6"));
  EXPECT_TRUE(logged("DEBUG [VEL] TarnGetClient() Begin report status, request is " +
                     agent_->socketPath() + "."));
}

}  // namespace
