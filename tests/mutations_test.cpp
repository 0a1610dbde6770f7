#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "api/local_perm_internal.h"
#include "support/fake_client.h"
#include "vel/local_perm.h"
#include "vel/mutations.h"

namespace {

using veltest::pathExists;
using veltest::permissionsOf;
using veltest::readFile;
using veltest::writeFile;

// Kept-copy names come from a device file whose bytes the test chooses.
class MutationTest : public veltest::BackendTest</*kLocalOnly=*/true> {
 protected:
  void SetUp() override { previous_ = VEL::setRandomDeviceForTest(dev_.sub("random")); }
  void TearDown() override { VEL::setRandomDeviceForTest(previous_); }
  void drawNext(uint32_t value) {
    writeFile(dev_.sub("random"), std::string(reinterpret_cast<const char*>(&value), 4));
  }

  veltest::TempDir dev_;
  std::string previous_;
};

TEST_F(MutationTest, LocalMkdirAndMkdirAll) {
  const mode_t mask = ::umask(077);
  EXPECT_EQ(0, VEL::mkdir(" /one/ ", 0755, "UTF-8"));
  EXPECT_EQ(0755, permissionsOf(root_.sub("one")));
  EXPECT_EQ(-1, VEL::mkdir("one", 0755, "UTF-8"));
  EXPECT_EQ(0, VEL::mkdir_all("a/b/c", 0751, "UTF-8"));  // every level, top down
  EXPECT_EQ(0, VEL::mkdir_all("a/b/x/y", 0700, "UTF-8"));
  ::umask(mask);
  EXPECT_EQ(0751, permissionsOf(root_.sub("a/b/c")));
  EXPECT_EQ(0700, permissionsOf(root_.sub("a/b/x/y")));
  EXPECT_EQ(0751, permissionsOf(root_.sub("a/b")));  // existing levels untouched

  writeFile(root_.sub("a/file"), "");
  EXPECT_EQ(-1, VEL::mkdir_all("a/file/z", 0700, "UTF-8"));
}

TEST_F(MutationTest, CreateLocalDirsGivesAncestors0750AndTheLeafItsMode) {
  EXPECT_EQ(0, VEL::createLocalDirs("a/b/c", 0700));
  EXPECT_EQ(0750, permissionsOf(root_.sub("a/b")));
  EXPECT_EQ(0700, permissionsOf(root_.sub("a/b/c")));
  EXPECT_EQ(0, VEL::createLocalDirs("a/b", 0777));
  EXPECT_EQ(0750, permissionsOf(root_.sub("a/b")));  // an existing one is left alone
  writeFile(root_.sub("f"), "");
  EXPECT_EQ(-1, VEL::createLocalDirs("f/g/h", 0700));

  client_.ownConfig.velRoot = root_.sub("new/root");  // a missing root is made too
  EXPECT_EQ(-1, VEL::createLocalDirs("x", 0700));     // not its missing parent
  veltest::makeDirs(root_.sub("new"));
  EXPECT_EQ(0, VEL::createLocalDirs("x", 0700));
  EXPECT_EQ(0750, permissionsOf(root_.sub("new/root")));
  EXPECT_EQ(0700, permissionsOf(root_.sub("new/root/x")));
}

// The mode given to a mkdir is applied to the new (or existing) directory
// only: never through a link in the mirror, never to a file.
TEST_F(MutationTest, MkdirNeverChangesALinkTargetOrAFile) {
  veltest::TempDir outside;
  veltest::makeDirs(outside.sub("folder"), 0700);
  ::chmod(outside.sub("folder").c_str(), 0700);
  writeFile(outside.sub("file"), "");
  ::chmod(outside.sub("file").c_str(), 0600);
  ASSERT_EQ(0, ::symlink(outside.sub("folder").c_str(), root_.sub("dirlink").c_str()));
  ASSERT_EQ(0, ::symlink(outside.sub("file").c_str(), root_.sub("filelink").c_str()));
  writeFile(root_.sub("plain"), "");
  ::chmod(root_.sub("plain").c_str(), 0640);

  EXPECT_EQ(-1, VEL::mkdir("dirlink", 0777, "UTF-8"));
  EXPECT_EQ(0, VEL::createLocalDirs("dirlink", 0777));  // a directory already, through the link
  EXPECT_EQ(-1, VEL::createLocalDirs("filelink", 0777));
  EXPECT_EQ(-1, VEL::createLocalDirs("plain", 0777));
  EXPECT_EQ(0700, permissionsOf(outside.sub("folder")));
  EXPECT_EQ(0600, permissionsOf(outside.sub("file")));
  EXPECT_EQ(0640, permissionsOf(root_.sub("plain")));

  veltest::makeDirs(root_.sub("real"), 0700);  // a real directory still gets the mode
  EXPECT_EQ(-1, VEL::mkdir("real", 0751, "UTF-8"));
  EXPECT_EQ(0751, permissionsOf(root_.sub("real")));
}

TEST_F(MutationTest, DelTreeRefusesTheRoot) {
  veltest::makeDirs(root_.sub("a"));
  writeFile(root_.sub("a/f"), "keep");
  for (const char* root : {"", "/", ".", "a/.."}) {
    EXPECT_EQ(-1, VEL::delTree(root, "UTF-8")) << root;
  }
  EXPECT_EQ("keep", readFile(root_.sub("a/f")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] delTree(a/..), cannot operate VELRoot\n"));
  client_.localOnly = false;
  EXPECT_EQ(-1, VEL::delTree("/", "UTF-8"));
  EXPECT_EQ("keep", readFile(root_.sub("a/f")));
  EXPECT_TRUE(client_.calls.empty());
}

TEST_F(MutationTest, LocalRemovalAndTreeDeletion) {
  veltest::makeDirs(root_.sub("full/inner"));
  writeFile(root_.sub("file"), "data");
  EXPECT_EQ(-1, VEL::rmdir("full", "UTF-8"));
  EXPECT_EQ(0, VEL::rmdir("file", "UTF-8"));  // not a directory: not reported

  veltest::TempDir outside;  // a link is removed, not what it points to
  writeFile(outside.sub("precious"), "keep me");
  writeFile(root_.sub("full/inner/f"), "");
  ASSERT_EQ(0, ::symlink(outside.path().c_str(), root_.sub("full/inner/link").c_str()));
  EXPECT_EQ(0, VEL::delTree("/full/", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("full")));
  EXPECT_EQ("keep me", veltest::readFile(outside.sub("precious")));

  // An unsupported node stops the deletion; delTree still answers 0.
  veltest::makeDirs(root_.sub("u/v"));
  ASSERT_EQ(0, ::mkfifo(root_.sub("u/v/pipe").c_str(), 0600));
  EXPECT_EQ(0, VEL::delTree("u", "UTF-8"));
  EXPECT_TRUE(pathExists(root_.sub("u/v/pipe")));
}

TEST_F(MutationTest, RemoteMkdirGoesThroughTheService) {
  client_.localOnly = false;
  client_.ownConfig.velRoot = root_.sub("mirror");
  EXPECT_EQ(0, VEL::mkdir("/", 0705, "UTF-8"));  // makes only the root
  EXPECT_EQ(0705, permissionsOf(root_.sub("mirror")));
  EXPECT_EQ(-1, VEL::mkdir(" a//b ", 0755, "UTF-8"));  // the service said yes, no mirror copy
  EXPECT_EQ("newDir(a/b,493,0)", client_.calls.back());
  client_.newDirMakesMirror = true;
  EXPECT_EQ(0, VEL::mkdir("a", 0755, "UTF-8"));
  client_.results["newDir"] = -12;
  EXPECT_EQ(-1, VEL::mkdir("a", 0755, "UTF-8"));  // already there
  EXPECT_EQ(0, VEL::mkdir_all("a", 0755, "UTF-8"));
  EXPECT_EQ("newDir(a,493,1)", client_.calls.back());
  client_.results["newDir"] = -6;
  EXPECT_EQ(-6, VEL::mkdir_all("c/d", 0755, "UTF-8"));
}

TEST_F(MutationTest, RemoteRemovalAndRenameTrustTheService) {
  client_.localOnly = false;
  veltest::makeDirs(root_.sub("d1"));
  writeFile(root_.sub("f"), "one");
  client_.results["removeObjectOnRemote"] = -5;  // refused: the mirror copy stays
  EXPECT_EQ(-5, VEL::unlink("/f", "UTF-8"));
  EXPECT_TRUE(pathExists(root_.sub("f")));
  client_.results["removeObjectOnRemote"] = -11;  // unknown to the service: it goes
  EXPECT_EQ(0, VEL::rmdir("d1", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("d1")));
  veltest::makeDirs(root_.sub("t"));
  writeFile(root_.sub("t/unsent"), "draft");
  client_.results["delDir"] = -18;  // the service keeps the tree, so does the mirror
  EXPECT_EQ(-18, VEL::delTree("t", "UTF-8"));
  EXPECT_EQ("delDir(t,1)", client_.calls.back());
  EXPECT_EQ("draft", readFile(root_.sub("t/unsent")));
  client_.results["delDir"] = 0;
  EXPECT_EQ(0, VEL::delTree("t", "UTF-8"));
  EXPECT_FALSE(pathExists(root_.sub("t")));

  veltest::makeDirs(root_.sub("d1"));
  client_.nodes["/d1/"] = {0, true, /*isFile=*/false};
  client_.nodes["f"] = {};
  client_.renameMovesMirror = true;  // a directory: the back-end moves the mirror copy
  EXPECT_EQ(0, VEL::rename("/d1/", "d2", 0, "UTF-8"));
  EXPECT_EQ("RenameDir(d1,d2)", client_.calls.back());
  client_.renameMovesMirror = false;  // a file: renamed in the mirror here
  EXPECT_EQ(0, VEL::rename("f", "f2", 0, "UTF-8"));
  EXPECT_EQ("rename(f,f2)", client_.calls.back());
  EXPECT_EQ("one", veltest::readFile(root_.sub("f2")));
  client_.results["rename"] = -6;
  EXPECT_EQ(-6, VEL::rename("f2", "f3", 0, "UTF-8"));
}

TEST_F(MutationTest, SafeRemovalMovesAsideIntactUnderTheFirstFreeName) {
  writeFile(root_.sub("f"), "keep me");
  drawNext(42);
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(root_.sub("f")));
  EXPECT_EQ("keep me", readFile(root_.sub("f.vel.keep.00000042")));
  writeFile(root_.sub("f"), "second");
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(root_.sub("f")));
  EXPECT_EQ("second", readFile(root_.sub("f.vel.keep.00000042_1")));

  veltest::makeDirs(root_.sub("d/inner"));
  writeFile(root_.sub("d/inner/x"), "x");
  drawNext(4294967295u);  // wider than eight digits
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(root_.sub("d")));
  EXPECT_EQ("x", readFile(root_.sub("d.vel.keep.4294967295/inner/x")));

  EXPECT_EQ(0, VEL::safeRemoveLocalObj(root_.sub("nothing")));

  // A hundred taken names: -9, nothing deleted or replaced.
  writeFile(root_.sub("p"), "precious");
  writeFile(root_.sub("p.vel.keep.00000007"), "0");
  for (int i = 1; i < 100; ++i) {
    writeFile(root_.sub("p.vel.keep.00000007_" + std::to_string(i)), std::to_string(i));
  }
  drawNext(7);
  EXPECT_EQ(-9, VEL::safeRemoveLocalObj(root_.sub("p")));
  EXPECT_EQ("precious", readFile(root_.sub("p")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] safeRemoveLocalObj: fail from:" + root_.sub("p") +
                            " to:.vel.keep.00000007\n"));
  ::unlink(root_.sub("p.vel.keep.00000007_99").c_str());
  EXPECT_EQ(0, VEL::safeRemoveLocalObj(root_.sub("p")));  // the last free slot
  EXPECT_EQ("precious", readFile(root_.sub("p.vel.keep.00000007_99")));
}

TEST_F(MutationTest, LocalPermissions) {
  writeFile(root_.sub("f"), "");
  ASSERT_EQ(0, ::chmod(root_.sub("f").c_str(), 04755));
  EXPECT_EQ(0755, VEL::getLocalPermission(root_.sub("f")));
  EXPECT_EQ(0, VEL::updateLocalPermission(root_.sub("f"), 0755));
  EXPECT_EQ("", log_.text());  // already so: nothing to do
  EXPECT_EQ(0, VEL::updateLocalPermission(root_.sub("f"), 0640));
  EXPECT_EQ(0640, veltest::permissionsOf(root_.sub("f")));
  EXPECT_EQ(0, VEL::updateLocalPermission(root_.sub("f"), 01640));
  EXPECT_EQ(0, VEL::updateLocalPermission(root_.sub("f"), 01640));  // never equal: applied again
  EXPECT_EQ(3u, log_.lines("updateLocalPermission: Change permission:"));
  EXPECT_EQ(-1, VEL::updateLocalPermission(root_.sub("gone"), 0600));

  // A link is refused, whatever it leads to: its target keeps its mode.
  veltest::TempDir outside;
  ASSERT_EQ(0, ::chmod(outside.path().c_str(), 0755));
  ASSERT_EQ(0, ::symlink(outside.path().c_str(), root_.sub("link").c_str()));
  EXPECT_EQ(-1, VEL::setLocalPermission(root_.sub("link"), 0700));
  EXPECT_EQ(-1, VEL::updateLocalPermission(root_.sub("link"), 0700));
  EXPECT_EQ(0755, veltest::permissionsOf(outside.path()));
}

}  // namespace
