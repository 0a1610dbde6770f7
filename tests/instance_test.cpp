#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "client/instance_internal.h"
#include "support/fake_client.h"
#include "vel/vel.h"

namespace {

using Names = std::vector<std::string>;

// Each case starts without an instance, on a mirror of its own.
class InstanceTest : public ::testing::Test {
 protected:
  void SetUp() override { VEL::finish(); }
  void TearDown() override { VEL::finish(); }

  Names list(const std::string& path, int32_t depth, int32_t expected = 0) {
    std::list<std::string> names = {"stale"};
    EXPECT_EQ(expected, VEL::getInstance()->listDir(path, depth, true, names));
    Names sorted(names.begin(), names.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }

  veltest::LogCapture log_;
  veltest::TempDir root_;
  veltest::ScopedEnv env_{"TARN_ROOT_DIR", root_.path().c_str()};
};

TEST_F(InstanceTest, InitCreatesTheBackEndAndNineteenModuleDirectoriesOnce) {
  EXPECT_EQ(0, VEL::init({{"clientType", "Local"}}));
  VEL::VELClient* client = VEL::getInstance();
  ASSERT_NE(nullptr, client);
  const char* names[] = {"ferry",  "sorrel", "wicket", "tamber",     "quoin",
                         "pellam", "tesser", "quill",  "kelda",      "gantry",
                         "apex",   "orbis",  "morrow", "vel_public", "vel_protect",
                         "lumen",  "vireo",  "tavora", "corea"};
  for (const char* name : names) {
    EXPECT_EQ(0750, veltest::permissionsOf(root_.sub(name))) << name;
  }
  EXPECT_EQ(19u, log_.lines(" is not exist, create it. ret:0"));

  EXPECT_EQ(0, VEL::init({{"clientType", "Tavora"}}));  // the first configuration stays
  EXPECT_EQ(client, VEL::getInstance());
  EXPECT_EQ("Local", client->config()->clientType);
  EXPECT_EQ(1u, log_.lines("ERROR [VEL] init(): VELClient had been initialized before init!"));
}

TEST_F(InstanceTest, TavoraExHasNoBackEnd) {
  VEL::ConfigParams params{{"clientType", "TavoraEx"}};
  bool created = true;
  EXPECT_EQ(nullptr, VEL::getInstance(&params, &created));
  EXPECT_FALSE(created);
  EXPECT_EQ(0, VEL::init(params));  // must not touch the absent instance
  EXPECT_FALSE(veltest::pathExists(root_.sub("ferry")));
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
  EXPECT_NE(nullptr, seen[0]);
  EXPECT_EQ(std::vector<VEL::VELClient*>(8, seen[0]), seen);
}

TEST_F(InstanceTest, FinishStopsReleasesAndForgetsTheInstance) {
  veltest::FakeClient client(root_.path());
  VEL::setInstanceForTest(&client);
  client.results["release"] = 3;
  VEL::finish();
  EXPECT_EQ((std::vector<std::string>{"stop()", "release()"}), client.calls);
  EXPECT_TRUE(log_.contains("ERROR [VEL] Failed to execute finish."));
  VEL::ConfigParams params{{"clientType", "Local"}};
  bool created = false;
  VEL::VELClient* fresh = VEL::getInstance(&params, &created);
  EXPECT_TRUE(created);
  EXPECT_NE(static_cast<VEL::VELClient*>(&client), fresh);
}

TEST_F(InstanceTest, LocalListingDepthsAndDirectoryCreation) {
  ASSERT_EQ(0, VEL::init({{"clientType", "Local"}}));
  veltest::makeDirs(root_.sub("d/s/t/u"));
  for (const char* file : {"d/f1", "d/s/f2", "d/s/t/f3"}) {
    veltest::writeFile(root_.sub(file), "x");
  }
  const Names all = {"d/f1", "d/s", "d/s/f2", "d/s/t", "d/s/t/f3", "d/s/t/u"};
  EXPECT_EQ((Names{"d/f1", "d/s"}), list("d", 1));
  EXPECT_EQ((Names{"d/f1", "d/s", "d/s/f2", "d/s/t"}), list("d", 2));
  EXPECT_EQ(all, list("d", 0));
  EXPECT_EQ(all, list(" /d/", -5));
  EXPECT_EQ(Names{}, list("d/f1", 1, -16));

  // Recursive creation makes only the missing levels.
  VEL::VELClient* client = VEL::getInstance();
  EXPECT_EQ(0, client->newDir("d/s/n1/n2/n3", 0701, true));
  EXPECT_EQ(0701, veltest::permissionsOf(root_.sub("d/s/n1")));
  EXPECT_EQ(0701, veltest::permissionsOf(root_.sub("d/s/n1/n2/n3")));
  EXPECT_EQ(-1, client->newDir("d/f1/z", 0755, true));  // a file in the way

  const mode_t mask = ::umask(0077);
  EXPECT_EQ(0, client->newDir("plain", 0775, false));
  ::umask(mask);
  EXPECT_EQ(0775, veltest::permissionsOf(root_.sub("plain")));
  EXPECT_EQ(-1, client->newDir("plain", 0775, false));
}

// Links are listed, never descended, and the walk keeps to the tree
// bounds, so links back into the tree (l1 -> ., l2 -> .) end the listing.
TEST_F(InstanceTest, LocalListingDoesNotDescendLinksAndKeepsToTheTreeBounds) {
  ASSERT_EQ(0, VEL::init({{"clientType", "Local"}}));
  veltest::makeDirs(root_.sub("x/s"));
  veltest::writeFile(root_.sub("x/f"), "x");
  ASSERT_EQ(0, ::symlink(".", root_.sub("x/l1").c_str()));
  ASSERT_EQ(0, ::symlink(".", root_.sub("x/l2").c_str()));
  const Names flat = {"x/f", "x/l1", "x/l2", "x/s"};
  ASSERT_EQ(flat, list("x", 6));
  EXPECT_EQ(flat, list("x", 0));
  EXPECT_EQ(flat, list("x", -1));

  veltest::makeDirs(root_.sub("deep/1/2/3/4"));
  {
    veltest::ScopedEnv depth("VEL_MAX_TREE_DEPTH", "2");
    EXPECT_EQ((Names{"deep/1", "deep/1/2"}), list("deep", 0));
    EXPECT_EQ((Names{"deep/1", "deep/1/2"}), list("deep", 9));
  }
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] listDir: Stopped at the depth bound 2, not listed: deep/1/2\n"));
  {
    veltest::ScopedEnv entries("VEL_MAX_TREE_ENTRIES", "3");
    EXPECT_EQ(3u, list("deep", 0).size());
  }
  EXPECT_TRUE(log_.contains("ERROR [VEL] listDir: Stopped at the entry bound 3, in: deep/1/2/3\n"));
}

// chmod in local mode changes the mirror's own objects, never the target of
// a link that stands in the mirror.
TEST_F(InstanceTest, LocalChmodNeverFollowsALink) {
  ASSERT_EQ(0, VEL::init({{"clientType", "Local"}}));
  veltest::TempDir outside;
  ASSERT_EQ(0, ::chmod(outside.path().c_str(), 0755));
  ASSERT_EQ(0, ::symlink(outside.path().c_str(), root_.sub("d").c_str()));
  EXPECT_EQ(0, VEL::mkdir_all("d", 0700));
  EXPECT_EQ(-1, VEL::chmod("d", 0700));
  EXPECT_EQ(0755, veltest::permissionsOf(outside.path()));
  EXPECT_TRUE(log_.contains("ERROR [VEL] VELClientLocal::chmod(d, 448) Failed to chmod, errno=40"));

  veltest::makeDirs(root_.sub("real"), 0755);  // the mirror's own folder does change
  EXPECT_EQ(0, VEL::chmod("real", 0701));
  EXPECT_EQ(0701, veltest::permissionsOf(root_.sub("real")));
}

// A mirror root that does not exist yet is made (0750, with its missing
// parents) before the module folders, so that the first file can be made.
TEST_F(InstanceTest, AMissingMirrorRootIsMadeWithItsParents) {
  const std::string fresh = root_.sub("not/yet/there");
  veltest::ScopedEnv env("TARN_ROOT_DIR", fresh.c_str());
  ASSERT_EQ(0, VEL::init({{"clientType", "Local"}}));
  EXPECT_EQ(0750, veltest::permissionsOf(root_.sub("not")));
  EXPECT_EQ(0750, veltest::permissionsOf(fresh));
  EXPECT_EQ(0750, veltest::permissionsOf(fresh + "/corea"));
  EXPECT_EQ(0u, log_.lines(" is not exist, create it. ret:-1"));
  FILE* file = VEL::fopen("a.txt", "w");
  ASSERT_NE(nullptr, file);
  EXPECT_EQ(3u, std::fwrite("new", 1, 3, file));
  EXPECT_EQ(0, VEL::fclose(file));
  EXPECT_EQ("new", veltest::readFile(fresh + "/a.txt"));
}

}  // namespace
