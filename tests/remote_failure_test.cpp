// The public API in remote mode when the agent is missing, refuses a tree
// removal, or lists a directory inside itself, deeper than the bound or
// outside the listed one. Whatever happens, no local file is deleted or
// overwritten. Every other failed agent call of every operation is in the
// fault matrix (fault_matrix_test.cpp).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <list>
#include <string>

#include "remote_fixture.h"
#include "vel/codeset.h"
#include "vel/hooks.h"
#include "vel/listing.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using namespace veltest;

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

TEST_P(RemoteFailureTest, WithoutAgentEveryCallFailsAndKeepsTheMirror) {
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
  EXPECT_EQ(VEL::delTree("w"), -18);
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

// A running agent that refuses the removal, answers it with an error or
// hangs up: delTree fails and the mirror keeps every file.
TEST_P(RemoteFailureTest, RefusedAndDroppedRepliesKeepTheMirror) {
  for (const char* reply :
       {R"(["status", "NO"])", R"(["error", "ERR quota"])", R"(["close", ""])"}) {
    SCOPED_TRACE(reply);
    agent_->setRules(std::string(R"([{"match": ["tarn.remove"], "reply": )") + reply + "}]");
    EXPECT_EQ(VEL::delTree("w"), -6);
    expectMirrorKept();
  }
  EXPECT_EQ(storeRead("w/doc"), "service version");
}

// Every directory lookup answers "a directory", as a store with a loop or
// a hostile agent would.
const char kAnyDirectory[] =
    R"({"match": ["tarn.metadata"], "reply": ["bulk", "{\"Name\":\"x\",\"Kind\":\"dir\",)"
    R"(\"LastModifiedTime\":\"2024-01-01T00:00:00+0000\",\"AccessAllowRoles\":\"all\",)"
    R"(\"mode\":488}"]})";

// Each directory t, t/x/, t/x/x/, ... lists one more level below itself,
// 40 times: the walks must stop at the depth bound, not at the end
// of the rules.
TEST_P(RemoteFailureTest, SelfSimilarListingStopsAtTheDepthBound) {
  std::string rules = "[";
  std::string dir = "t";
  for (int level = 0; level < 40; ++level) {
    std::string child = (level == 0 ? dir + "/" : dir) + "x/";
    rules += R"({"match": ["tarn.dir", "TestService", ")" + dir + R"("], "reply": ["array", [")" +
             child + R"("]]},)";
    dir = child;
  }
  agent_->setRules(rules + kAnyDirectory + "]");
  ScopedEnv depth("VEL_MAX_TREE_DEPTH", "5");
  EXPECT_EQ(VEL::syncFromServer("t", true), 0);
  EXPECT_TRUE(pathExists(mirror("t/x/x/x/x/x")));
  EXPECT_FALSE(pathExists(mirror("t/x/x/x/x/x/x")));
  EXPECT_TRUE(
      logged("ERROR [VEL] VELClientTavora::getSubDirOrFileList() Stopped at the depth bound 5, "
             "not listed: t/x/x/x/x/x/\n"));

  std::list<std::string> names;
  EXPECT_EQ(VEL::readDir("t", names, false, true), 1);
  EXPECT_EQ(names, (std::list<std::string>{"t", "x", "x/x", "x/x/x", "x/x/x/x", "x/x/x/x/x"}));
  std::list<std::string> levels;  // an explicit depth is bounded as well
  EXPECT_EQ(VEL::getInstance()->listDir("t", 50, false, levels), 0);
  EXPECT_EQ(levels.size(), 5u);
}

// Entries that are not a name directly below the listed directory would be
// cleaned into the mirror somewhere else: they are skipped and logged.
TEST_P(RemoteFailureTest, ListedEntriesOutsideTheListedDirectoryAreSkipped) {
  agent_->setRules(R"([{"match": ["tarn.dir", "TestService", "h"], "reply": ["array", ["h/ok/", )"
                   R"("h/../../evil/", "/abs/", "h/a/b/", "h/./", "h/../", "other/x/", "h/ sp/", )"
                   R"("h/c\\..\\..\\bs/", "h/"]]},)" +
                   std::string(kAnyDirectory) + "]");
  EXPECT_EQ(VEL::syncFromServer("h", true), 0);
  EXPECT_TRUE(pathExists(mirror("h/ok")));
  for (const char* elsewhere : {"evil", "abs", "h/a", "other", "sp", "h/sp", "bs", "h/c"}) {
    EXPECT_FALSE(pathExists(mirror(elsewhere))) << elsewhere;
  }
  EXPECT_EQ(countOf("tarn.metadata"), 2u);  // h and h/ok/ only
  EXPECT_TRUE(
      logged("ERROR [VEL] VELClientTavora::syncCurrentPath() Skipped \"h/../../evil/\", not "
             "directly below \"h\"\n"));

  std::list<std::string> names;
  EXPECT_EQ(VEL::readDir("h", names, false, false), 1);
  EXPECT_EQ(names, std::list<std::string>{"ok"});
}

INSTANTIATE_TEST_SUITE_P(Stores, RemoteFailureTest, allStores(), storeKindName);

}  // namespace
