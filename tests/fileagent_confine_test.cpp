// The file agent never reaches outside its store and mirror, whatever
// links they hold; links that stay inside are followed, and shown as links.
// Every case runs twice: with the kernel's openat2 and with the walk the
// agent falls back to where openat2 is refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace veltest;
using Args = std::vector<std::string>;

class AgentLinks : public ::testing::TestWithParam<bool> {
 protected:
  AgentOptions options() const {
    AgentOptions options;
    if (GetParam()) {
      options.args = {"--no-openat2"};
    }
    return options;
  }
};

TEST_P(AgentLinks, LinksLeavingTheStoreOrTheMirrorRefuseEveryCommandAndChangeNothingOutside) {
  AgentFixture agent(options());
  ASSERT_TRUE(agent.ready());
  const std::string outside = agent.root() + "/outside";
  const std::string store = agent.store();
  const std::string mirror = agent.mirror();
  plant(outside, {{"s", "secret"}, {"d/t", "deep"}});
  plant(store, {{"in/f", "inside"}, {"leak", "store leak"}, {"leakdir/s", "store s"}});
  plant(mirror, {{"ext/f", "upload me"}, {"in/f", "mirror f"}});
  ASSERT_EQ(0, ::symlink(outside.c_str(), (store + "/ext").c_str()));          // absolute
  ASSERT_EQ(0, ::symlink("../outside", (store + "/rel").c_str()));             // climbs out
  ASSERT_EQ(0, ::symlink((outside + "/s").c_str(), (store + "/lf").c_str()));  // a file
  ASSERT_EQ(0, ::symlink("../../outside", (store + "/in/up").c_str()));        // from below
  ASSERT_EQ(0, ::symlink((outside + "/s").c_str(), (mirror + "/leak").c_str()));
  ASSERT_EQ(0, ::symlink("../outside", (mirror + "/leakdir").c_str()));
  const Tree before = snapshot(outside);
  const int outsideMode = permissionsOf(outside);

  AgentConnection c(agent.socketPath());
  ASSERT_TRUE(c.connected());
  // Each request without its service; the path its refusal names is in [].
  // Downloads of leak and leakdir/s: the mirror copy or its folder is a
  // link out; uploads of ext/f: the store folder is, of leak and leakdir/s:
  // the mirror file or its folder is.
  std::istringstream attempts(
      "tarn.metadata [ext/s]; tarn.metadata [rel/d/t]; tarn.metadata [in/up/s];"
      "tarn.dir [ext] false; tarn.dir [rel] false; tarn.dir [in/up/d] false;"
      "tarn.downloadlocal [ext/s]; tarn.downloadlocal [lf]; tarn.downloadlocal [in/up/s];"
      "tarn.downloadlocal [leak]; tarn.downloadlocal [leakdir/s];"
      "tarn.uploadlocal [ext/f]; tarn.uploadlocal [leak]; tarn.uploadlocal [leakdir/s];"
      "tarn.createinfo [ext/new] dir; tarn.createinfo [rel/new] file; tarn.createinfo [lf] file;"
      "tarn.move [ext/s] in/stolen; tarn.move_cache in/f [rel/planted];"
      "tarn.chmod 0 [ext/s]; tarn.chmod 0 [lf]; tarn.chmod 0 [ext];"
      "tarn.remove [ext/s] false; tarn.remove [rel/d] true;"
      "tarn.create [ext/s] r; tarn.create [ext/n] w; tarn.create [lf] a");
  for (std::string line; std::getline(attempts, line, ';');) {
    Args args;
    std::string refused;
    std::istringstream words(line);
    for (std::string word; words >> word;) {
      if (word[0] == '[') {
        word = refused = word.substr(1, word.size() - 2);
      }
      args.push_back(word);
      if (args.size() == 1) {
        args.push_back(kSvc);
      }
    }
    EXPECT_EQ("-ERR path refused: '" + refused + "'", c.ask(args)) << line;
  }
  EXPECT_TRUE(before == snapshot(outside));
  EXPECT_EQ(outsideMode, permissionsOf(outside));
  EXPECT_FALSE(pathExists(store + "/in/stolen"));
  EXPECT_EQ("inside", readFile(store + "/in/f"));
}

TEST_P(AgentLinks, LinksStayingInsideAreFollowedAndShownAsLinks) {
  AgentFixture agent(options());
  ASSERT_TRUE(agent.ready());
  const std::string store = agent.store();
  const std::string mirror = agent.mirror();
  plant(store, {{"real/f", "data"}});
  ASSERT_EQ(0, ::symlink("real", (store + "/alias").c_str()));
  ASSERT_EQ(0, ::symlink("alias/../real/f", (store + "/fl").c_str()));
  writeFile(mirror + "/mreal", "from the mirror");
  ASSERT_EQ(0, ::symlink("mreal", (mirror + "/ml").c_str()));

  AgentConnection c(agent.socketPath());
  const std::string aliasMeta = c.ask({"tarn.metadata", kSvc, "alias"});
  EXPECT_NE(std::string::npos, aliasMeta.find("\"Kind\":\"file\"")) << aliasMeta;
  EXPECT_NE(std::string::npos, aliasMeta.find("\"Link\":true")) << aliasMeta;
  EXPECT_NE(std::string::npos, c.ask({"tarn.metadata", kSvc, "alias/f"}).find("\"Size\":4"));
  EXPECT_EQ("*\nalias\nfl\nreal/", c.ask({"tarn.dir", kSvc, "", "false"}));
  EXPECT_EQ("*\nalias/f", c.ask({"tarn.dir", kSvc, "alias", "false"}));

  EXPECT_EQ("+OK", c.ask({"tarn.downloadlocal", kSvc, "fl"}));
  EXPECT_EQ("data", readFile(mirror + "/fl"));
  EXPECT_EQ("+OK", c.ask({"tarn.chmod", kSvc, "384", "fl"}));
  EXPECT_EQ(0600, permissionsOf(store + "/real/f"));
  EXPECT_EQ("+OK", c.ask({"tarn.uploadlocal", kSvc, "ml"}));
  EXPECT_EQ("from the mirror", readFile(store + "/ml"));
  // Removing a link removes the link, never what it points at.
  EXPECT_EQ("+OK", c.ask({"tarn.remove", kSvc, "alias", "true"}));
  EXPECT_FALSE(pathExists(store + "/alias"));
  EXPECT_EQ("data", readFile(store + "/real/f"));
}

INSTANTIATE_TEST_SUITE_P(Resolution, AgentLinks, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "Walk" : "Openat2";
                         });

}  // namespace
