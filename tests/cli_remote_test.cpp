// The tool end to end: the built `vel` run as a user runs it, against the
// reference file agent on a folder store and on a WebDAV server, comparing
// the whole standard output and the status.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "support/agent_fixture.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using veltest::makeDirs;
using veltest::pathExists;
using veltest::readFile;
using veltest::writeFile;

class ToolRemoteTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  void SetUp() override {
    std::string why;
    if (webDavServerMissing(GetParam(), why)) {
      GTEST_SKIP() << "no WebDAV server here: " << why;
    }
    veltest::AgentOptions options;
    options.webdav = GetParam() == StoreKind::kWebDav;
    agent_.reset(new veltest::AgentFixture(options));
    ASSERT_TRUE(agent_->ready());
    makeDirs(agent_->store() + "/docs/notes");
    writeFile(agent_->store() + "/docs/readme.txt", "service copy\n");
    writeFile(agent_->store() + "/docs/notes/mon.txt", "monday\n");
    makeDirs(agent_->store() + "/other");
    writeFile(agent_->store() + "/other/x.txt", "x\n");
    handOver();
  }

  // What the test wrote into the store folder goes to the WebDAV server's user.
  void handOver() {
    if (agent_->server() != nullptr) {
      agent_->server()->adopt();
    }
  }

  veltest::ProcessResult vel(std::vector<std::string> args) {
    args.insert(args.begin(), VEL_TOOL_BIN);
    return veltest::runProcess(args, {{"UDS_ROOT_OSSUSER", agent_->udsRoot()},
                                      {"TARN_ROOT_DIR", agent_->mirror()},
                                      {"_APP_LOG_DIR", agent_->logDir()},
                                      {"TARN_TIME_OUT", "10000"}});
  }

  std::unique_ptr<veltest::AgentFixture> agent_;
};

TEST_P(ToolRemoteTest, UpdateBringsTheWholeTreeIntoTheMirror) {
  veltest::ProcessResult result = vel({"update", "docs"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(0u, result.out.find("check Exit successed : docs\n")) << result.out;
  EXPECT_EQ("service copy\n", readFile(agent_->mirror() + "/docs/readme.txt"));
  EXPECT_EQ("monday\n", readFile(agent_->mirror() + "/docs/notes/mon.txt"));
  EXPECT_EQ(std::string::npos, result.out.find("update director failed"));
  EXPECT_FALSE(pathExists(agent_->mirror() + "/other"));
}

TEST_P(ToolRemoteTest, LsListsTheFirstDirectoryOnly) {
  veltest::ProcessResult result = vel({"ls", "docs", "other"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(
      "check Exit successed : docs\n"
      "check Exit successed : other\n"
      "docs/notes/:\n"
      "docs/readme.txt:\n"
      "====>docs/notes === 5 === docs\n"
      "====>docs/readme.txt === 5 === docs\n"
      "notes\n"
      "readme.txt\n",
      result.out);
}

TEST_P(ToolRemoteTest, RmWithAMissingPathRemovesNothing) {
  veltest::ProcessResult result = vel({"rm", "docs/readme.txt", "docs/missing.txt"});
  EXPECT_EQ(245, result.status);
  EXPECT_EQ(
      "check Exit successed : docs/readme.txt\n"
      "File check exist faild;docs/missing.txt\n",
      result.out);
  EXPECT_TRUE(pathExists(agent_->store() + "/docs/readme.txt"));
}

TEST_P(ToolRemoteTest, RmReportsARefusedDirectoryAndGoesOn) {
  // The service refuses a non-empty directory; the tool says what it tried
  // and goes on with the next path.
  veltest::ProcessResult result = vel({"rm", "docs/notes", "docs/readme.txt"});
  EXPECT_EQ(0, result.status);
  EXPECT_NE(std::string::npos, result.out.find("delete director : docs/notes\n")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("delete file : docs/readme.txt\n")) << result.out;
  EXPECT_TRUE(pathExists(agent_->store() + "/docs/notes/mon.txt"));
  EXPECT_FALSE(pathExists(agent_->store() + "/docs/readme.txt"));

  // A directory the service removes but whose mirror copy still holds a
  // local file is reported as failed, and the local file stays.
  makeDirs(agent_->store() + "/empty");
  handOver();
  makeDirs(agent_->mirror() + "/empty");
  writeFile(agent_->mirror() + "/empty/local.txt", "mine\n");
  result = vel({"rm", "empty"});
  EXPECT_EQ(
      "check Exit successed : empty\n"
      "delete director : empty\n"
      "delete director failed : empty\n",
      result.out);
  EXPECT_EQ("mine\n", readFile(agent_->mirror() + "/empty/local.txt"));
}

TEST_P(ToolRemoteTest, CommitStopsAtTheFirstFailure) {
  // "other" exists on the service but not in the mirror: its commit fails.
  makeDirs(agent_->mirror() + "/docs");
  writeFile(agent_->mirror() + "/docs/readme.txt", "edited\n");
  veltest::ProcessResult result = vel({"commit", "other", "docs/readme.txt"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(
      "check Exit successed : other\n"
      "check Exit successed : docs/readme.txt\n"
      "commit : other\n"
      "commit fialed : other\n",
      result.out);
  EXPECT_EQ("service copy\n", readFile(agent_->store() + "/docs/readme.txt"));

  result = vel({"commit", "docs/readme.txt"});
  EXPECT_EQ(
      "check Exit successed : docs/readme.txt\n"
      "commit : docs/readme.txt\n"
      "[TARN]upload file success[docs/readme.txt]!\n",
      result.out);
  EXPECT_EQ("edited\n", readFile(agent_->store() + "/docs/readme.txt"));
}

TEST_P(ToolRemoteTest, AbsolutePathsInsideTheMirrorRootAreChecked) {
  veltest::ProcessResult inside = vel({"rm", agent_->mirror() + "/docs/readme.txt", "nothing"});
  EXPECT_EQ(245, inside.status);
  EXPECT_EQ(
      "check Exit successed : docs/readme.txt\n"
      "File check exist faild;nothing\n",
      inside.out);
  // Outside the root an absolute path names nothing of the service.
  veltest::ProcessResult outside = vel({"ls", "/elsewhere/docs"});
  EXPECT_EQ(245, outside.status);
  EXPECT_EQ("File check exist faild;/elsewhere/docs\n", outside.out);
}

TEST_P(ToolRemoteTest, NoAgentMeansNoPathExists) {
  agent_->stop();
  veltest::ProcessResult result = vel({"update", "docs"});
  EXPECT_EQ(245, result.status);
  EXPECT_EQ("File check exist faild;docs\n", result.out);
}

INSTANTIATE_TEST_SUITE_P(Stores, ToolRemoteTest, bothStores(), storeKindName);

}  // namespace
