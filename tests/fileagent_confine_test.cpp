// The file agent never reaches outside its store and mirror, whatever
// links they hold; links that stay inside are followed, and shown as links.
// Every case runs twice: with the kernel's openat2 and with the walk the
// agent falls back to where openat2 is refused.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"

namespace {

using veltest::AgentConnection;
using veltest::AgentFixture;
using veltest::AgentOptions;
using veltest::kSvc;
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
  veltest::makeDirs(outside + "/d");
  veltest::writeFile(outside + "/s", "secret");
  veltest::writeFile(outside + "/d/t", "deep");
  const std::string store = agent.store();
  const std::string mirror = agent.mirror();
  veltest::makeDirs(store + "/in");
  veltest::writeFile(store + "/in/f", "inside");
  veltest::writeFile(store + "/leak", "store leak");
  veltest::makeDirs(store + "/leakdir");
  veltest::writeFile(store + "/leakdir/s", "store s");
  ASSERT_EQ(0, ::symlink(outside.c_str(), (store + "/ext").c_str()));          // absolute
  ASSERT_EQ(0, ::symlink("../outside", (store + "/rel").c_str()));             // climbs out
  ASSERT_EQ(0, ::symlink((outside + "/s").c_str(), (store + "/lf").c_str()));  // a file
  ASSERT_EQ(0, ::symlink("../../outside", (store + "/in/up").c_str()));        // from below
  ASSERT_EQ(0, ::symlink((outside + "/s").c_str(), (mirror + "/leak").c_str()));
  ASSERT_EQ(0, ::symlink("../outside", (mirror + "/leakdir").c_str()));
  veltest::makeDirs(mirror + "/ext");
  veltest::writeFile(mirror + "/ext/f", "upload me");
  veltest::makeDirs(mirror + "/in");
  veltest::writeFile(mirror + "/in/f", "mirror f");
  const veltest::Tree before = veltest::snapshot(outside);
  const int outsideMode = veltest::permissionsOf(outside);

  AgentConnection c(agent.socketPath());
  ASSERT_TRUE(c.connected());
  // Each request, and the path its refusal names.
  const std::vector<std::pair<Args, std::string>> attempts = {
      {{"tarn.metadata", kSvc, "ext/s"}, "ext/s"},
      {{"tarn.metadata", kSvc, "rel/d/t"}, "rel/d/t"},
      {{"tarn.metadata", kSvc, "in/up/s"}, "in/up/s"},
      {{"tarn.dir", kSvc, "ext", "false"}, "ext"},
      {{"tarn.dir", kSvc, "rel", "false"}, "rel"},
      {{"tarn.dir", kSvc, "in/up/d", "false"}, "in/up/d"},
      {{"tarn.downloadlocal", kSvc, "ext/s"}, "ext/s"},
      {{"tarn.downloadlocal", kSvc, "lf"}, "lf"},
      {{"tarn.downloadlocal", kSvc, "in/up/s"}, "in/up/s"},
      {{"tarn.downloadlocal", kSvc, "leak"}, "leak"},            // the mirror copy is a link out
      {{"tarn.downloadlocal", kSvc, "leakdir/s"}, "leakdir/s"},  // its folder is
      {{"tarn.uploadlocal", kSvc, "ext/f"}, "ext/f"},            // the store folder is a link out
      {{"tarn.uploadlocal", kSvc, "leak"}, "leak"},              // the mirror file is
      {{"tarn.uploadlocal", kSvc, "leakdir/s"}, "leakdir/s"},    // its folder is
      {{"tarn.createinfo", kSvc, "ext/new", "dir"}, "ext/new"},
      {{"tarn.createinfo", kSvc, "rel/new", "file"}, "rel/new"},
      {{"tarn.createinfo", kSvc, "lf", "file"}, "lf"},
      {{"tarn.move", kSvc, "ext/s", "in/stolen"}, "ext/s"},
      {{"tarn.move_cache", kSvc, "in/f", "rel/planted"}, "rel/planted"},
      {{"tarn.chmod", kSvc, "0", "ext/s"}, "ext/s"},
      {{"tarn.chmod", kSvc, "0", "lf"}, "lf"},
      {{"tarn.chmod", kSvc, "0", "ext"}, "ext"},
      {{"tarn.remove", kSvc, "ext/s", "false"}, "ext/s"},
      {{"tarn.remove", kSvc, "rel/d", "true"}, "rel/d"},
      {{"tarn.create", kSvc, "ext/s", "r"}, "ext/s"},
      {{"tarn.create", kSvc, "ext/n", "w"}, "ext/n"},
      {{"tarn.create", kSvc, "lf", "a"}, "lf"},
  };
  for (const auto& attempt : attempts) {
    const Args& args = attempt.first;
    EXPECT_EQ("-ERR path refused: '" + attempt.second + "'", c.ask(args))
        << args[0] << " " << args[2] << " " << args.back();
  }
  EXPECT_TRUE(before == veltest::snapshot(outside));
  EXPECT_EQ(outsideMode, veltest::permissionsOf(outside));
  EXPECT_FALSE(veltest::pathExists(store + "/in/stolen"));
  EXPECT_EQ("inside", veltest::readFile(store + "/in/f"));
}

TEST_P(AgentLinks, LinksStayingInsideAreFollowedAndShownAsLinks) {
  AgentFixture agent(options());
  ASSERT_TRUE(agent.ready());
  const std::string store = agent.store();
  const std::string mirror = agent.mirror();
  veltest::makeDirs(store + "/real");
  veltest::writeFile(store + "/real/f", "data");
  ASSERT_EQ(0, ::symlink("real", (store + "/alias").c_str()));
  ASSERT_EQ(0, ::symlink("alias/../real/f", (store + "/fl").c_str()));
  veltest::writeFile(mirror + "/mreal", "from the mirror");
  ASSERT_EQ(0, ::symlink("mreal", (mirror + "/ml").c_str()));

  AgentConnection c(agent.socketPath());
  const std::string aliasMeta = c.ask({"tarn.metadata", kSvc, "alias"});
  EXPECT_NE(std::string::npos, aliasMeta.find("\"Kind\":\"file\"")) << aliasMeta;
  EXPECT_NE(std::string::npos, aliasMeta.find("\"Link\":true")) << aliasMeta;
  EXPECT_NE(std::string::npos, c.ask({"tarn.metadata", kSvc, "alias/f"}).find("\"Size\":4"));
  EXPECT_EQ("*\nalias\nfl\nreal/", c.ask({"tarn.dir", kSvc, "", "false"}));
  EXPECT_EQ("*\nalias/f", c.ask({"tarn.dir", kSvc, "alias", "false"}));

  EXPECT_EQ("+OK", c.ask({"tarn.downloadlocal", kSvc, "fl"}));
  EXPECT_EQ("data", veltest::readFile(mirror + "/fl"));
  EXPECT_EQ("+OK", c.ask({"tarn.chmod", kSvc, "384", "fl"}));
  EXPECT_EQ(0600, veltest::permissionsOf(store + "/real/f"));
  EXPECT_EQ("+OK", c.ask({"tarn.uploadlocal", kSvc, "ml"}));
  EXPECT_EQ("from the mirror", veltest::readFile(store + "/ml"));
  // Removing a link removes the link, never what it points at.
  EXPECT_EQ("+OK", c.ask({"tarn.remove", kSvc, "alias", "true"}));
  EXPECT_FALSE(veltest::pathExists(store + "/alias"));
  EXPECT_EQ("data", veltest::readFile(store + "/real/f"));
}

INSTANTIATE_TEST_SUITE_P(Resolution, AgentLinks, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& param) {
                           return param.param ? "Walk" : "Openat2";
                         });

}  // namespace
