#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/mutations.h"

namespace {

using veltest::FakeClient;
using veltest::FakeNode;
using veltest::LogCapture;
using veltest::pathExists;
using veltest::permissionsOf;
using veltest::ScopedInstance;
using veltest::TempDir;
using veltest::writeFile;

class LocalMutationTest : public ::testing::Test {
 protected:
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path(), /*localOnly=*/true};
  ScopedInstance scope_{&client_};
};

TEST_F(LocalMutationTest, MkdirAndMkdirAll) {
  const mode_t mask = ::umask(077);
  EXPECT_EQ(0, VEL::mkdir(" /one/ ", 0755, "UTF-8"));
  EXPECT_EQ(0755, permissionsOf(root_.sub("one")));
  EXPECT_EQ(-1, VEL::mkdir("one", 0755, "UTF-8"));
  EXPECT_EQ(-1, VEL::mkdir("no/parent", 0755, "UTF-8"));

  // Nothing exists below the root: every level is made, top down.
  EXPECT_EQ(0, VEL::mkdir_all("a/b/c", 0751, "UTF-8"));
  ::umask(mask);
  EXPECT_EQ(0751, permissionsOf(root_.sub("a")));
  EXPECT_EQ(0751, permissionsOf(root_.sub("a/b/c")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] mkdir_all(a/b/c, 489): Try to create VEL root."));

  log_.clear();
  EXPECT_EQ(0, VEL::mkdir_all("a/b/x/y", 0700, "UTF-8"));
  EXPECT_EQ(0700, permissionsOf(root_.sub("a/b/x/y")));
  EXPECT_EQ(0751, permissionsOf(root_.sub("a/b")));  // existing levels untouched
  EXPECT_FALSE(log_.contains("Try to create VEL root."));
  EXPECT_EQ(0, VEL::mkdir_all("/a/b/", 0700, "UTF-8"));
  EXPECT_TRUE(log_.contains("DEBUG [VEL] isDirectory(pFolderStr, coding) return 0"));
  EXPECT_EQ(0, VEL::mkdir_all(".", 0700, "UTF-8"));

  writeFile(root_.sub("a/file"), "");
  EXPECT_EQ(-1, VEL::mkdir_all("a/file/z", 0700, "UTF-8"));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] mkdir_all(a/file/z, 448): Failed to create dir:a/file, rtn:-1"));
  EXPECT_EQ(0u, client_.count("newDir"));
}

TEST_F(LocalMutationTest, CreateLocalDirsGivesAncestors0750) {
  EXPECT_EQ(0, VEL::createLocalDirs("a/b/c", 0700));
  EXPECT_EQ(0750, permissionsOf(root_.sub("a")));
  EXPECT_EQ(0750, permissionsOf(root_.sub("a/b")));
  EXPECT_EQ(0700, permissionsOf(root_.sub("a/b/c")));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] createLocalDirs(), " + root_.sub("a/b/c") + " is not exist"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] createLocalDir(), " + root_.path() + " exists"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] createLocalDir(), try to mkdir, fullPath is :" +
                            root_.sub("a/b/c")));
  EXPECT_EQ(0, VEL::createLocalDirs("a/b", 0777));
  EXPECT_EQ(0750, permissionsOf(root_.sub("a/b")));

  writeFile(root_.sub("f"), "");
  EXPECT_EQ(-1, VEL::createLocalDirs("f/g/h", 0700));
  EXPECT_TRUE(log_.contains("ERROR [VEL] createLocalDir(), failed to mkdir, fullPath is :" +
                            root_.sub("f/g/h")));

  // A missing mirror root is made as well.
  client_.ownConfig.velRoot = root_.sub("new/root");
  EXPECT_EQ(-1, VEL::createLocalDirs("x", 0700));  // "new" is missing too
  veltest::makeDirs(root_.sub("new"));
  EXPECT_EQ(0, VEL::createLocalDirs("x", 0700));
  EXPECT_EQ(0750, permissionsOf(root_.sub("new/root")));
  EXPECT_EQ(0700, permissionsOf(root_.sub("new/root/x")));
}

TEST_F(LocalMutationTest, RemovalAndRename) {
  veltest::makeDirs(root_.sub("full/inner"));
  veltest::makeDirs(root_.sub("empty"));
  writeFile(root_.sub("file"), "data");

  EXPECT_EQ(0, VEL::rmdir("empty", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("empty")));
  EXPECT_EQ(0, VEL::rmdir("gone", "UTF-8"));  // nothing there afterwards
  EXPECT_EQ(0, VEL::rmdir("file", "UTF-8"));  // not a directory: not reported
  EXPECT_TRUE(pathExists(root_.sub("file")));
  EXPECT_EQ(-1, VEL::rmdir("full", "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] rmdir: Failed to remove dir on local server. " +
                            root_.sub("full") + ", -1"));

  EXPECT_EQ(0, VEL::rename("file", "renamed", 0, "UTF-8"));
  EXPECT_EQ("data", veltest::readFile(root_.sub("renamed")));
  EXPECT_EQ(0, VEL::rename2("renamed", "file", 0, "UTF-8"));
  EXPECT_EQ(-1, VEL::rename("gone", "other", 0, "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] rename: Failed to rename file on local server. " +
                            root_.sub("gone") + " -> " + root_.sub("other") + ", rtn:-1, errno:2"));
  EXPECT_EQ(-1, VEL::rename(nullptr, "x", 0, "UTF-8"));

  EXPECT_EQ(0, VEL::unlink("file", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("file")));
  EXPECT_EQ(-1, VEL::unlink("file", "UTF-8"));       // local mode reports at once
  EXPECT_EQ(0, VEL::unlink("full/inner", "UTF-8"));  // remove() takes empty directories
  EXPECT_EQ(0u, client_.calls.size());
}

TEST_F(LocalMutationTest, TreeDeletion) {
  veltest::makeDirs(root_.sub("t/a/b"));
  writeFile(root_.sub("t/a/b/f"), "");
  writeFile(root_.sub("t/g"), "");
  EXPECT_EQ(0, VEL::delTree("/t/", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("t")));
  EXPECT_EQ(0, VEL::delTree("t", "UTF-8"));
  writeFile(root_.sub("plain"), "");
  EXPECT_EQ(0, VEL::delTree("plain", "UTF-8"));  // only directories are deleted here
  EXPECT_TRUE(pathExists(root_.sub("plain")));

  // An unsupported node stops the deletion; delTree still answers 0.
  veltest::makeDirs(root_.sub("u/v"));
  ASSERT_EQ(0, ::mkfifo(root_.sub("u/v/pipe").c_str(), 0600));
  EXPECT_EQ(0, VEL::delTree("u", "UTF-8"));
  EXPECT_TRUE(pathExists(root_.sub("u/v/pipe")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] delLocalTree: Failed to remove file or dir " +
                            root_.sub("u/v/pipe") + ", unsupported mode 4480."));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] delLocalTree: Failed to remove file or dir on local "
                    "server. " +
                    root_.sub("u/v/pipe") + ", -8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] delTree: Failed to remove dir on local server. " +
                            root_.sub("u") + ", -8"));

  EXPECT_EQ(-8, VEL::delLocalTree(root_.sub("u/v/pipe"), "UTF-8"));
  EXPECT_EQ(-1, VEL::delLocalTree(root_.sub("missing"), "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] delLocalTree: Failed to get stat. " +
                            root_.sub("missing") + ", -1"));
  EXPECT_EQ(0, VEL::delLocalTree(root_.sub("plain"), "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("plain")));
}

TEST_F(LocalMutationTest, TreeDeletionRemovesLinksNotWhatTheyPointTo) {
  TempDir outside;
  writeFile(outside.sub("precious"), "keep me");
  veltest::makeDirs(root_.sub("l/sub"));
  ASSERT_EQ(0, ::symlink(outside.path().c_str(), root_.sub("l/sub/link").c_str()));
  EXPECT_EQ(0, VEL::delTree("l", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("l")));
  EXPECT_EQ("keep me", veltest::readFile(outside.sub("precious")));
}

class RemoteMutationTest : public ::testing::Test {
 protected:
  FakeNode dirNode() {
    FakeNode n;
    n.isFile = false;
    return n;
  }
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path()};
  ScopedInstance scope_{&client_};
};

TEST_F(RemoteMutationTest, MkdirGoesThroughTheService) {
  client_.ownConfig.velRoot = root_.sub("mirror");
  EXPECT_EQ(0, VEL::mkdir("/", 0705, "UTF-8"));  // makes only the root
  EXPECT_EQ(0705, permissionsOf(root_.sub("mirror")));
  EXPECT_EQ(0u, client_.count("newDir"));

  EXPECT_EQ(-1, VEL::mkdir(" a//b ", 0755, "UTF-8"));  // the service said yes, no mirror copy
  EXPECT_EQ("newDir(a/b,493,0)", client_.calls.back());
  client_.newDirMakesMirror = true;
  EXPECT_EQ(0, VEL::mkdir("a", 0755, "UTF-8"));
  client_.results["newDir"] = -12;
  EXPECT_EQ(-1, VEL::mkdir("a", 0755, "UTF-8"));  // already there
  client_.results["newDir"] = -18;
  EXPECT_EQ(-18, VEL::mkdir("b", 0755, "UTF-8"));

  // mkdir_all accepts an existing directory.
  client_.results["newDir"] = -12;
  EXPECT_EQ(0, VEL::mkdir_all("a", 0755, "UTF-8"));
  EXPECT_EQ("newDir(a,493,1)", client_.calls.back());
  client_.newDirMakesMirror = false;
  EXPECT_EQ(-1, VEL::mkdir_all("c/d", 0755, "UTF-8"));
  client_.results["newDir"] = -6;
  EXPECT_EQ(-6, VEL::mkdir_all("c/d", 0755, "UTF-8"));
  EXPECT_EQ(0, VEL::mkdir_all("", 0755, "UTF-8"));

  client_.ownConfig.velRoot = root_.sub("no/such/root");
  const size_t calls = client_.calls.size();
  EXPECT_EQ(-1, VEL::mkdir("x", 0755, "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] mkdir: VEL root is not exist, failed to create. " +
                            root_.sub("no/such/root") + "(493), rtn:-1"));
  EXPECT_EQ(calls, client_.calls.size());
  EXPECT_EQ(0, VEL::mkdir_all("/", 0755, "UTF-8"));  // logged, not fatal
  EXPECT_TRUE(log_.contains("ERROR [VEL] mkdir_all: VEL root is not exist, failed to create. "));
}

TEST_F(RemoteMutationTest, RemovalTrustsTheService) {
  veltest::makeDirs(root_.sub("d"));
  writeFile(root_.sub("f"), "");

  // The service refuses: rmdir keeps the mirror and answers 0, unlink fails.
  client_.results["removeObjectOnRemote"] = -5;
  EXPECT_EQ(0, VEL::rmdir("/d", "UTF-8"));
  EXPECT_TRUE(pathExists(root_.sub("d")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] rmdir: Failed to remove dir on VEL server. d, -5"));
  EXPECT_EQ(-5, VEL::unlink("/f", "UTF-8"));
  EXPECT_TRUE(pathExists(root_.sub("f")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] unlink: Failed to remove file on VEL server. f, -5"));

  // The service does not know them: the mirror copies go.
  client_.results["removeObjectOnRemote"] = -11;
  EXPECT_EQ(0, VEL::rmdir("d", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("d")));
  EXPECT_EQ(0, VEL::unlink("f", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("f")));
  EXPECT_EQ("removeObjectOnRemote(f)", client_.calls.back());
  client_.results["removeObjectOnRemote"] = 0;
  EXPECT_EQ(0, VEL::unlink("never/mirrored", "UTF-8"));

  veltest::makeDirs(root_.sub("t/s"));
  writeFile(root_.sub("t/s/x"), "");
  EXPECT_EQ(0, VEL::delTree("t", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("t")));
  EXPECT_EQ("delDir(t,1)", client_.calls.back());
  client_.results["delDir"] = -11;
  EXPECT_EQ(0, VEL::delTree("/t/", "UTF-8"));
  client_.results["delDir"] = -18;
  EXPECT_EQ(-18, VEL::delTree("t", "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] delTree: Failed to remove dir on VEL server. t, -18"));
}

TEST_F(RemoteMutationTest, RenameChoosesTheBackEndOperation) {
  veltest::makeDirs(root_.sub("d1"));
  writeFile(root_.sub("f1"), "one");
  client_.nodes["/d1/"] = dirNode();
  client_.nodes["f1"] = FakeNode();

  // A directory: the back-end moves the mirror copy itself.
  client_.renameMovesMirror = true;
  EXPECT_EQ(0, VEL::rename("/d1/", "d2", 0, "UTF-8"));
  EXPECT_EQ("RenameDir(d1,d2)", client_.calls.back());
  EXPECT_TRUE(pathExists(root_.sub("d2")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] rename(): old: d1, new: d2"));

  // A file whose mirror copy is still there is renamed locally.
  client_.renameMovesMirror = false;
  EXPECT_EQ(0, VEL::rename2("f1", "f2", 0, "UTF-8"));
  EXPECT_EQ("rename(f1,f2)", client_.calls.back());
  EXPECT_EQ("one", veltest::readFile(root_.sub("f2")));
  EXPECT_FALSE(log_.contains("rename(): old: f1"));

  client_.results["rename"] = -6;
  writeFile(root_.sub("f1"), "again");
  EXPECT_EQ(-6, VEL::rename("f1", "f3", 0, "UTF-8"));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] rename: Failed to rename file on VEL server. f1 -> f3, errCode:-6"));
  EXPECT_TRUE(pathExists(root_.sub("f1")));
  EXPECT_FALSE(pathExists(root_.sub("f3")));
  EXPECT_EQ(0u, client_.count("renameCache"));
}

}  // namespace
