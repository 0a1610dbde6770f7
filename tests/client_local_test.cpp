#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/vel.h"

namespace {

using veltest::LogCapture;
using veltest::ScopedEnv;
using veltest::TempDir;

// The local back-end as the process instance, on a fresh mirror:
//   d/f1, d/s/f2, d/s/t/f3, d/s/t/u/ (empty)
class ClientLocalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VEL::finish();
    ASSERT_EQ(0, VEL::init({{"clientType", "Local"}}));
    client_ = VEL::getInstance();
    ASSERT_NE(nullptr, client_);
    veltest::makeDirs(root_.sub("d/s/t/u"));
    veltest::writeFile(root_.sub("d/f1"), "1");
    veltest::writeFile(root_.sub("d/s/f2"), "2");
    veltest::writeFile(root_.sub("d/s/t/f3"), "3");
  }
  void TearDown() override { VEL::finish(); }

  std::vector<std::string> list(const std::string& path, int32_t depth, int32_t expected = 0) {
    std::list<std::string> names = {"stale"};
    EXPECT_EQ(expected, client_->listDir(path, depth, true, names));
    std::vector<std::string> sorted(names.begin(), names.end());
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }

  LogCapture log_;
  TempDir root_;
  ScopedEnv env_{"TARN_ROOT_DIR", root_.path().c_str()};
  VEL::VELClient* client_ = nullptr;
};

TEST_F(ClientLocalTest, ListingDepths) {
  using Names = std::vector<std::string>;
  const Names direct = {"d/f1", "d/s"};
  const Names all = {"d/f1", "d/s", "d/s/f2", "d/s/t", "d/s/t/f3", "d/s/t/u"};
  EXPECT_EQ(direct, list("d", 1));
  EXPECT_EQ((Names{"d/f1", "d/s", "d/s/f2", "d/s/t"}), list("d", 2));
  EXPECT_EQ(all, list("d", 0));
  EXPECT_EQ(all, list("d", -5));
  EXPECT_EQ(all, list(" /d/", 3));  // named below the cleaned path

  // Errors leave the list empty.
  EXPECT_EQ(Names{}, list("d/f1", 1, -16));
  EXPECT_TRUE(log_.contains("DEBUG [VEL] listDir: not a dir:" + root_.sub("d/f1")));
  EXPECT_EQ(Names{}, list("nothing", 1, -11));
  EXPECT_TRUE(log_.contains("DEBUG [VEL] listDir: dir not exist:" + root_.sub("nothing")));
  // A type without the regular-file bit is "listed": a fifo has no entries.
  ASSERT_EQ(0, ::mkfifo(root_.sub("pipe").c_str(), 0600));
  EXPECT_EQ(Names{}, list("pipe", 1, 0));
}

TEST_F(ClientLocalTest, RecursiveAndPlainDirectoryCreation) {
  // Only the missing levels are made, each with the given mode.
  EXPECT_EQ(0, client_->newDir("d/s/n1/n2/n3", 0701, true));
  EXPECT_EQ(0701, veltest::permissionsOf(root_.sub("d/s/n1")));
  EXPECT_EQ(0701, veltest::permissionsOf(root_.sub("d/s/n1/n2/n3")));
  EXPECT_EQ(0755, veltest::permissionsOf(root_.sub("d/s")));

  // No existing prefix at all: built from the top.
  EXPECT_EQ(0, client_->newDir("x/y", 0711, true));
  EXPECT_EQ(0711, veltest::permissionsOf(root_.sub("x")));
  EXPECT_EQ(0711, veltest::permissionsOf(root_.sub("x/y")));

  // An existing directory is left as it is.
  ::chmod(root_.sub("d/s").c_str(), 0700);
  EXPECT_EQ(0, client_->newDir("d/s", 0777, true));
  EXPECT_EQ(0700, veltest::permissionsOf(root_.sub("d/s")));
  EXPECT_EQ(0, client_->newDir("/", 0777, true));

  // A file in the way stops the walk with mkdir's result.
  EXPECT_EQ(-1, client_->newDir("d/f1/z", 0755, true));

  // Plain creation: the umask does not narrow the mode; an existing
  // directory or a missing parent is a failure.
  const mode_t mask = ::umask(0077);
  EXPECT_EQ(0, client_->newDir("plain", 0775, false));
  ::umask(mask);
  EXPECT_EQ(0775, veltest::permissionsOf(root_.sub("plain")));
  EXPECT_EQ(-1, client_->newDir("plain", 0775, false));
  EXPECT_EQ(-1, client_->newDir("no/parent", 0775, false));
}

TEST_F(ClientLocalTest, PermissionChangeAndRemoteOnlySlots) {
  EXPECT_EQ(0, client_->chmod("d/f1", 0600));
  EXPECT_EQ(0600, veltest::permissionsOf(root_.sub("d/f1")));
  EXPECT_EQ(-1, client_->chmod("gone", 0600));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] VELClientLocal::chmod(gone, 384) Failed to chmod, errno=2"));

  VEL::VELFileInfoWrap wrap;
  std::list<std::string> none;
  EXPECT_EQ(1, client_->isLocalOnly());
  EXPECT_EQ(0, client_->getNodeInfoFromRemote("d", &wrap));
  EXPECT_EQ(0, client_->syncNodeFromRemote("d", nullptr));
  EXPECT_EQ(0, client_->putFileToRemote("d/f1"));
  EXPECT_EQ(0, client_->removeObjectOnRemote("d/f1"));
  EXPECT_EQ(0, client_->syncTreeFromRemote("d"));
  EXPECT_EQ(0, client_->delDir("d", true));
  EXPECT_EQ(0, client_->rename("d/f1", "d/f9"));
  EXPECT_EQ(0, client_->RenameDir("d", "e"));
  EXPECT_EQ(0, client_->renameCache("d", "e"));
  EXPECT_EQ(0, client_->start());
  EXPECT_EQ(0, client_->stop());
  EXPECT_EQ(0, client_->release());
  // None of them touched the mirror.
  EXPECT_TRUE(veltest::pathExists(root_.sub("d/f1")));
  EXPECT_FALSE(veltest::pathExists(root_.sub("e")));
}

// What an application sees through the umbrella header in local mode.
TEST_F(ClientLocalTest, ApplicationRoundTrip) {
  ASSERT_EQ(0, VEL::mkdir_all("app/data", 0750));
  veltest::writeFile(root_.sub("app/data/f.txt"), "hello");
  struct stat st;
  ASSERT_EQ(0, VEL::stat("app/data/f.txt", &st));
  EXPECT_EQ(5, st.st_size);
  std::list<std::string> names;
  ASSERT_EQ(1, VEL::readDir("app/data", names, false, false));
  EXPECT_EQ((std::list<std::string>{"f.txt"}), names);

  ASSERT_EQ(0, VEL::rename("app/data/f.txt", "app/g.txt"));
  ASSERT_EQ(0, VEL::chmod("app/g.txt", 0600));
  EXPECT_EQ(0100600, VEL::getmod("app/g.txt"));
  EXPECT_EQ(-1, VEL::chmod("/", 0600));
  ASSERT_EQ(0, VEL::unlink("app/g.txt"));
  EXPECT_EQ(0, VEL::exists("app/g.txt"));
  ASSERT_EQ(0, VEL::delTree("app"));
  EXPECT_EQ(0, VEL::isDirectory("app"));
  EXPECT_EQ(1, VEL::isDirectory("ferry"));  // module directories stay
}

}  // namespace
