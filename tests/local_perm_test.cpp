#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "api/local_perm_internal.h"
#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/local_perm.h"

namespace {

using veltest::LogCapture;
using veltest::pathExists;
using veltest::readFile;
using veltest::TempDir;
using veltest::writeFile;

// Kept-copy names come from a device file whose bytes the test chooses.
class SafeRemoveTest : public ::testing::Test {
 protected:
  void SetUp() override { previous_ = VEL::setRandomDeviceForTest(dir_.sub("random")); }
  void TearDown() override { VEL::setRandomDeviceForTest(previous_); }
  void drawNext(uint32_t value) {
    writeFile(dir_.sub("random"), std::string(reinterpret_cast<const char*>(&value), 4));
  }

  LogCapture log_;
  TempDir dir_;
  std::string previous_;
};

TEST_F(SafeRemoveTest, MovesFilesAndDirectoriesAsideIntact) {
  writeFile(dir_.sub("f"), "keep me");
  drawNext(42);
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("f")));
  EXPECT_FALSE(pathExists(dir_.sub("f")));
  EXPECT_EQ("keep me", readFile(dir_.sub("f.vel.keep.00000042")));

  // The next one with the same value takes the first free index.
  writeFile(dir_.sub("f"), "second");
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("f")));
  EXPECT_EQ("second", readFile(dir_.sub("f.vel.keep.00000042_1")));
  EXPECT_EQ("keep me", readFile(dir_.sub("f.vel.keep.00000042")));

  veltest::makeDirs(dir_.sub("d/inner"));
  writeFile(dir_.sub("d/inner/x"), "x");
  drawNext(4294967295u);  // wider than eight digits
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("d")));
  EXPECT_FALSE(pathExists(dir_.sub("d")));
  EXPECT_EQ("x", readFile(dir_.sub("d.vel.keep.4294967295/inner/x")));
  EXPECT_EQ("", log_.text());  // a successful move is not logged
}

TEST_F(SafeRemoveTest, SystemRandomSource) {
  VEL::setRandomDeviceForTest("");
  writeFile(dir_.sub("r"), "r");
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("r")));
  std::vector<std::string> kept;
  if (DIR* dir = ::opendir(dir_.path().c_str())) {
    while (struct dirent* entry = ::readdir(dir)) {
      kept.push_back(entry->d_name);
    }
    ::closedir(dir);
  }
  // "r.vel.keep." and eight to ten digits.
  auto isKeptName = [](const std::string& n) {
    const std::string prefix = "r.vel.keep.";
    const std::string digits = n.substr(std::min(n.size(), prefix.size()));
    return n.compare(0, prefix.size(), prefix) == 0 && digits.size() >= 8 && digits.size() <= 10 &&
           digits.find_first_not_of("0123456789") == std::string::npos;
  };
  EXPECT_EQ(1, std::count_if(kept.begin(), kept.end(), isKeptName));
  EXPECT_EQ("", log_.text());
}

TEST_F(SafeRemoveTest, MissingPathReadsNothing) {
  // The device is absent: reading it would log.
  VEL::setRandomDeviceForTest(dir_.sub("no-device"));
  EXPECT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("nothing")));
  EXPECT_EQ("", log_.text());
}

TEST_F(SafeRemoveTest, UnreadableDeviceGivesZeros) {
  writeFile(dir_.sub("a"), "a");
  VEL::setRandomDeviceForTest(dir_.sub("no-device"));
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("a")));
  EXPECT_TRUE(pathExists(dir_.sub("a.vel.keep.00000000")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] safeRemoveLocalObj(), fail to open /dev/urandom"));

  writeFile(dir_.sub("short"), "ab");  // fewer than four bytes
  VEL::setRandomDeviceForTest(dir_.sub("short"));
  writeFile(dir_.sub("a"), "again");
  ASSERT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("a")));
  EXPECT_EQ("again", readFile(dir_.sub("a.vel.keep.00000000_1")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] safeRemoveLocalObj(), fail to read /dev/urandom"));
}

TEST_F(SafeRemoveTest, HundredTakenNamesGiveMinusNine) {
  writeFile(dir_.sub("p"), "precious");
  writeFile(dir_.sub("p.vel.keep.00000007"), "0");
  for (int i = 1; i < 100; ++i) {
    writeFile(dir_.sub("p.vel.keep.00000007_" + std::to_string(i)), std::to_string(i));
  }
  drawNext(7);
  EXPECT_EQ(-9, VEL::safeRemoveLocalObj(dir_.sub("p")));
  EXPECT_EQ("precious", readFile(dir_.sub("p")));  // nothing deleted or replaced
  EXPECT_EQ("99", readFile(dir_.sub("p.vel.keep.00000007_99")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] safeRemoveLocalObj: fail from:" + dir_.sub("p") +
                            " to:.vel.keep.00000007\n"));

  // One free slot at the end is found.
  ::unlink(dir_.sub("p.vel.keep.00000007_99").c_str());
  EXPECT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("p")));
  EXPECT_EQ("precious", readFile(dir_.sub("p.vel.keep.00000007_99")));
}

TEST_F(SafeRemoveTest, FailedRenameIsReported) {
  // Moving a directory into itself is refused by rename.
  veltest::makeDirs(dir_.sub("loop"));
  drawNext(1);
  ASSERT_EQ(0, ::symlink("loop/inside", dir_.sub("dangling").c_str()));
  // A dangling link counts as missing for access(): nothing to move.
  EXPECT_EQ(0, VEL::safeRemoveLocalObj(dir_.sub("dangling")));
  EXPECT_TRUE(pathExists(dir_.sub("dangling")));
  EXPECT_EQ(-1, VEL::safeRemoveLocalObj(dir_.sub("loop/.")));
  EXPECT_TRUE(log_.contains("ERROR [VEL] safeRemoveLocalObj:from:" + dir_.sub("loop/.") +
                            " to:" + dir_.sub("loop/..vel.keep.00000001")));
}

TEST_F(SafeRemoveTest, Permissions) {
  writeFile(dir_.sub("f"), "");
  ASSERT_EQ(0, ::chmod(dir_.sub("f").c_str(), 04755));
  EXPECT_EQ(0755, VEL::getLocalPermission(dir_.sub("f")));
  EXPECT_EQ(-1, VEL::getLocalPermission(dir_.sub("gone")));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] getLocalPermission: Failed to get Permission:" + dir_.sub("gone") + " -1"));

  EXPECT_EQ(0, VEL::setLocalPermission(dir_.sub("f"), 0600));
  EXPECT_EQ(0600, veltest::permissionsOf(dir_.sub("f")));
  EXPECT_EQ(-1, VEL::setLocalPermission(dir_.sub("gone"), 0600));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] setLocalPermission: Failed to set Permission:" + dir_.sub("gone") + " -1"));

  log_.clear();
  EXPECT_EQ(0, VEL::updateLocalPermission(dir_.sub("f"), 0600));
  EXPECT_EQ("", log_.text());  // already so: nothing to do
  EXPECT_EQ(0, VEL::updateLocalPermission(dir_.sub("f"), 0640));
  EXPECT_EQ(0640, veltest::permissionsOf(dir_.sub("f")));
  EXPECT_TRUE(log_.contains("DEBUG [VEL] updateLocalPermission: Change permission:" +
                            dir_.sub("f") + ", from:384, to:416"));
  // Bits outside 0777 never compare equal, so they are applied each time.
  log_.clear();
  EXPECT_EQ(0, VEL::updateLocalPermission(dir_.sub("f"), 01640));
  EXPECT_EQ(0, VEL::updateLocalPermission(dir_.sub("f"), 01640));
  EXPECT_EQ(2u, log_.lines("updateLocalPermission: Change permission:"));
  EXPECT_EQ(01640, veltest::permissionsOf(dir_.sub("f")));

  log_.clear();
  EXPECT_EQ(-1, VEL::updateLocalPermission(dir_.sub("gone"), 0600));
  EXPECT_TRUE(log_.contains("DEBUG [VEL] updateLocalPermission: Change permission:" +
                            dir_.sub("gone") + ", from:-1, to:384"));
  EXPECT_TRUE(log_.contains("setLocalPermission: Failed to set Permission:"));
}

}  // namespace
