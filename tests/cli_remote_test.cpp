// The tool end to end: the built `vel` run as a user runs it, against the
// reference file agent on a folder store and on a WebDAV server, comparing
// the whole standard output and the status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "remote_fixture.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using namespace veltest;

class ToolRemoteTest : public RemoteFixture {
 protected:
  void SetUp() override {
    RemoteFixture::SetUp();
    if (HasFatalFailure() || IsSkipped()) return;
    storeFile("docs/readme.txt", "service copy\n");
    storeFile("docs/notes/mon.txt", "monday\n");
    storeFile("other/x.txt", "x\n");
  }

  ProcessResult vel(std::vector<std::string> args) {
    args.insert(args.begin(), VEL_TOOL_BIN);
    return runProcess(args, {{"UDS_ROOT_OSSUSER", agent_->udsRoot()},
                             {"TARN_ROOT_DIR", agent_->mirror()},
                             {"_APP_LOG_DIR", agent_->logDir()},
                             {"TARN_TIME_OUT", "10000"}});
  }
};

TEST_P(ToolRemoteTest, UpdateAndLsReadTheServiceAndEveryPathIsCheckedFirst) {
  ProcessResult result = vel({"update", "docs"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(0u, result.out.find("check Exit successed : docs\n")) << result.out;
  EXPECT_EQ(std::string::npos, result.out.find("update director failed"));
  EXPECT_EQ("service copy\n", readFile(mirror("docs/readme.txt")));
  EXPECT_EQ("monday\n", readFile(mirror("docs/notes/mon.txt")));
  EXPECT_FALSE(pathExists(mirror("other")));

  // ls lists the first directory only.
  result = vel({"ls", "docs", "other"});
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

  // A missing path stops the command before anything is removed; an
  // absolute path inside the mirror root names the service's path, one
  // outside names nothing of the service.
  result = vel({"rm", mirror("docs/readme.txt"), "docs/missing.txt"});
  EXPECT_EQ(245, result.status);
  EXPECT_EQ(
      "check Exit successed : docs/readme.txt\n"
      "File check exist faild;docs/missing.txt\n",
      result.out);
  EXPECT_TRUE(storeHas("docs/readme.txt"));
  result = vel({"ls", "/elsewhere/docs"});
  EXPECT_EQ(245, result.status);
  EXPECT_EQ("File check exist faild;/elsewhere/docs\n", result.out);

  agent_->stop();  // without an agent no path exists
  result = vel({"update", "docs"});
  EXPECT_EQ(245, result.status);
  EXPECT_EQ("File check exist faild;docs\n", result.out);
}

TEST_P(ToolRemoteTest, RmReportsARefusedDirectoryAndGoesOn) {
  // The service refuses a non-empty directory; the tool says what it tried
  // and goes on with the next path.
  ProcessResult result = vel({"rm", "docs/notes", "docs/readme.txt"});
  EXPECT_EQ(0, result.status);
  EXPECT_NE(std::string::npos, result.out.find("delete director : docs/notes\n")) << result.out;
  EXPECT_NE(std::string::npos, result.out.find("delete file : docs/readme.txt\n")) << result.out;
  EXPECT_TRUE(storeHas("docs/notes/mon.txt"));
  EXPECT_FALSE(storeHas("docs/readme.txt"));

  // A directory the service removes but whose mirror copy still holds a
  // local file is reported as failed, and the local file stays.
  storeDir("empty", 0755);
  mirrorFile("empty/local.txt", "mine\n");
  result = vel({"rm", "empty"});
  EXPECT_EQ(
      "check Exit successed : empty\n"
      "delete director : empty\n"
      "delete director failed : empty\n",
      result.out);
  EXPECT_EQ("mine\n", readFile(mirror("empty/local.txt")));
}

TEST_P(ToolRemoteTest, CommitStopsAtTheFirstFailure) {
  // "other" exists on the service but not in the mirror: its commit fails.
  ASSERT_EQ(0, vel({"update", "docs"}).status);
  mirrorFile("docs/readme.txt", "edited\n");
  ProcessResult result = vel({"commit", "other", "docs/readme.txt"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(
      "check Exit successed : other\n"
      "check Exit successed : docs/readme.txt\n"
      "commit : other\n"
      "commit fialed : other\n",
      result.out);
  EXPECT_EQ("service copy\n", storeRead("docs/readme.txt"));

  result = vel({"commit", "docs/readme.txt"});
  EXPECT_EQ(
      "check Exit successed : docs/readme.txt\n"
      "commit : docs/readme.txt\n"
      "[TARN]upload file success[docs/readme.txt]!\n",
      result.out);
  EXPECT_EQ("edited\n", storeRead("docs/readme.txt"));
}

INSTANTIATE_TEST_SUITE_P(Stores, ToolRemoteTest, allStores(), storeKindName);

}  // namespace
