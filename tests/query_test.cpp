#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/query.h"

namespace {

using veltest::FakeClient;
using veltest::FakeNode;
using veltest::LogCapture;
using veltest::ScopedInstance;
using veltest::TempDir;

FakeNode node(bool isFile, uint32_t mode, int64_t size = 0, int64_t mtime = 0) {
  FakeNode n;
  n.isFile = isFile;
  n.mode = mode;
  n.size = size;
  n.lastModifyTime = mtime;
  return n;
}

class LocalQueryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    veltest::makeDirs(root_.sub("dir"));
    veltest::writeFile(root_.sub("dir/file"), "12345");
    ::chmod(root_.sub("dir/file").c_str(), 0644);
  }
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path(), /*localOnly=*/true};
  ScopedInstance scope_{&client_};
};

TEST_F(LocalQueryTest, AnswersFromTheMirror) {
  struct stat st;
  ASSERT_EQ(0, VEL::stat("/dir//file", &st, "UTF-8"));
  EXPECT_EQ(5, st.st_size);
  EXPECT_EQ(-1, VEL::stat("dir/none", &st, "UTF-8"));
  EXPECT_EQ(0, VEL::access("dir/file", R_OK, "UTF-8"));
  EXPECT_EQ(-1, VEL::access("dir/none", F_OK, "UTF-8"));
  EXPECT_EQ(1, VEL::exists("", "UTF-8"));  // the root itself
  EXPECT_EQ(1, VEL::exists("dir", "UTF-8"));
  EXPECT_EQ(0, VEL::exists("dir/none", "UTF-8"));

  EXPECT_EQ(1, VEL::isFile("dir/file", "UTF-8"));
  EXPECT_EQ(0, VEL::isDirectory("dir/file", "UTF-8"));
  EXPECT_EQ(1, VEL::isDirectory("dir", "UTF-8"));
  EXPECT_EQ(0, VEL::isFile("dir/none", "UTF-8"));
  EXPECT_TRUE(log_.contains("DEBUG [VEL] getLocalFileOrDirInfo() handleStat(" +
                            root_.sub("dir/none") + "), errno:2"));

  // The whole mode, type bits included.
  EXPECT_EQ(0100644, VEL::getmod("dir/file", "UTF-8"));
  EXPECT_EQ(-1, VEL::getmod("dir/none", "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] getmod: Failed to get File stat. " +
                            root_.sub("dir/none") + ", -1"));
  EXPECT_EQ(0u, client_.count("stat"));  // the service is never asked
}

TEST_F(LocalQueryTest, BlockDeviceCountsAsDirectory) {
  // A block device's type (0x6000) carries the directory bit 0x4000.
  if (::mknod(root_.sub("blk").c_str(), S_IFBLK | 0600, makedev(7, 200)) != 0) {
    GTEST_SKIP() << "cannot create a block device node here";
  }
  EXPECT_EQ(1, VEL::isDirectory("blk", "UTF-8"));
  EXPECT_EQ(0, VEL::isFile("blk", "UTF-8"));
  bool isDir = false;
  ASSERT_TRUE(VEL::getLocalFileOrDirInfo(root_.sub("blk"), nullptr, &isDir));
  EXPECT_TRUE(isDir);
}

TEST_F(LocalQueryTest, LocalFileOrDirInfo) {
  bool isFile = true;
  bool isDir = true;
  ASSERT_TRUE(VEL::getLocalFileOrDirInfo(root_.sub("dir/file"), &isFile, &isDir));
  EXPECT_TRUE(isFile);
  EXPECT_FALSE(isDir);
  ASSERT_TRUE(VEL::getLocalFileOrDirInfo(root_.sub("dir"), &isFile, nullptr));
  EXPECT_FALSE(isFile);
  EXPECT_TRUE(VEL::getLocalFileOrDirInfo(root_.sub("dir"), nullptr, nullptr));
  isFile = isDir = true;
  EXPECT_FALSE(VEL::getLocalFileOrDirInfo(root_.sub("gone"), &isFile, &isDir));
  EXPECT_TRUE(isFile && isDir);  // untouched
  EXPECT_TRUE(log_.contains("DEBUG [VEL] getLocalFileOrDirInfo() ACE_OS::stat(" +
                            root_.sub("gone") + "), errno:2"));
}

class RemoteQueryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    client_.nodes["a/f"] = node(true, 0644, 4096, 1700000000);
    client_.nodes["a/d"] = node(false, 0755, 0, 1600000000);
    client_.nodes["raw/ f"] = node(true, 0600);
  }
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path()};
  ScopedInstance scope_{&client_};
};

TEST_F(RemoteQueryTest, StatFillsThreeFieldsFromTheRecord) {
  struct stat st;
  std::memset(&st, 0, sizeof(st));
  st.st_nlink = 7;
  ASSERT_EQ(0, VEL::stat(" /a//f ", &st, "ignored"));
  EXPECT_EQ("stat(a/f)", client_.calls.back());  // cleaned
  EXPECT_EQ(static_cast<mode_t>(0100644), st.st_mode);
  EXPECT_EQ(4096, st.st_size);
  EXPECT_EQ(1700000000, st.st_mtime);
  EXPECT_EQ(7u, st.st_nlink);  // other fields untouched
  EXPECT_TRUE(log_.contains("ERROR [VEL] VELClientTavora::stat()->a/f, 1700000000, 4096"));

  ASSERT_EQ(0, VEL::stat("a/d", &st));
  EXPECT_EQ(static_cast<mode_t>(040755), st.st_mode);

  // Not found: -1, no message of its own, the trailing line with old values.
  log_.clear();
  EXPECT_EQ(-1, VEL::stat("a/none", &st));
  EXPECT_EQ("ERROR [VEL] VELClientTavora::stat()->a/none, 1600000000, 0\n", log_.text().substr(20));

  // Bad arguments: -4 and nothing logged or asked.
  log_.clear();
  const size_t calls = client_.calls.size();
  EXPECT_EQ(-4, VEL::stat(nullptr, &st));
  EXPECT_EQ(-4, VEL::stat("a/f", nullptr));
  EXPECT_EQ("", log_.text());
  EXPECT_EQ(calls, client_.calls.size());
}

TEST_F(RemoteQueryTest, LookupFailureVerdicts) {
  struct stat st;
  std::memset(&st, 0, sizeof(st));
  FakeNode noWrap;
  noWrap.giveWrap = false;
  noWrap.code = -18;
  client_.nodes["nowrap"] = noWrap;
  FakeNode noRecord;
  noRecord.giveRecord = false;
  client_.nodes["norecord"] = noRecord;
  FakeNode failed = node(true, 0644);
  failed.code = -6;
  client_.nodes["failed"] = failed;
  FakeNode serviceError = node(true, 0644);
  serviceError.errNo = -5;
  client_.nodes["svcerr"] = serviceError;

  EXPECT_EQ(-1, VEL::stat("nowrap", &st));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] stat: Internal Error, failed to get File Info from VEL "
                    "server. nowrap, -18, FileInfoWrap is null"));
  EXPECT_EQ(-1, VEL::stat("norecord", &st));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] stat: Internal Error, failed to get File Info from VEL "
                    "server. norecord, 0, "));
  // ... with the wrapper's address and a null record, as integers.
  const std::string text = log_.text();
  const size_t at = text.find("norecord, 0, ");
  ASSERT_NE(std::string::npos, at);
  const std::string line = text.substr(at, text.find('\n', at) - at);
  EXPECT_EQ(", 0", line.substr(line.size() - 3)) << line;
  EXPECT_NE("norecord, 0, 0, 0", line);
  EXPECT_EQ(-1, VEL::stat("failed", &st));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] stat: Internal Error, failed to get File Info from VEL "
                    "server. failed, -6, "));
  EXPECT_EQ(-1, VEL::stat("svcerr", &st));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] stat: Failed to get File Info from VEL server. svcerr, errCode:-5"));
  EXPECT_EQ(0, st.st_size);

  // The other queries use their own names in the same texts.
  log_.clear();
  EXPECT_EQ(0, VEL::isFile("svcerr"));
  EXPECT_EQ(0, VEL::isDirectory("nowrap"));
  EXPECT_EQ(-1, VEL::getmod("failed"));
  EXPECT_EQ(-1, VEL::access("svcerr", 0));
  EXPECT_TRUE(log_.contains("[VEL] isFile: Failed to get File Info from VEL server. svcerr"));
  EXPECT_TRUE(
      log_.contains("[VEL] isDirectory: Internal Error, failed to get File Info from VEL "
                    "server. nowrap, -18, FileInfoWrap is null"));
  EXPECT_TRUE(
      log_.contains("[VEL] getmod: Internal Error, failed to get File Info from VEL "
                    "server. failed, -6, "));
  EXPECT_TRUE(log_.contains("[VEL] access: Failed to get File Info from VEL server. svcerr"));
}

TEST_F(RemoteQueryTest, AccessMasksAreDecimal) {
  // mode 0004: 4 & 400 (0x190) == 0 -> refused; mode 0020: 16 & 400 -> granted.
  struct Case {
    uint32_t mode;
    int request;
    int32_t expected;
  };
  const Case cases[] = {
      {0004, 4, -1}, {0020, 4, 0},  {0400, 4, 0},  {0002, 2, -1}, {0200, 2, 0},
      {0010, 2, 0},  {0100, 1, 0},  {0001, 1, -1}, {0000, 0, 0},  {0777, 6, -1},
      {0777, 7, -1}, {0777, 3, -1}, {0144, 1, 0},  {0, 4, -1},
  };
  for (const Case& c : cases) {
    client_.nodes["n"] = node(true, c.mode);
    EXPECT_EQ(c.expected, VEL::access("n", c.request)) << std::oct << c.mode << " " << c.request;
  }
  EXPECT_EQ(-1, VEL::access("missing", 0));  // not found, no message
  EXPECT_FALSE(log_.contains("missing"));

  for (const char* root : std::vector<const char*>{"/", "", " . ", nullptr}) {
    EXPECT_EQ(-4, VEL::access(root, 0));
  }
  EXPECT_EQ(4u, log_.lines("ERROR [VEL] access: Internal Error: empty path."));
}

TEST_F(RemoteQueryTest, YesNoQueriesAndModes) {
  EXPECT_EQ(1, VEL::exists("a/f"));
  EXPECT_TRUE(log_.contains("DEBUG [VEL] exists: get File Info from VEL server. a/f, 0"));
  EXPECT_EQ(0, VEL::exists("a/none"));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] exists: Not exist, failed to get File Info from VEL server. a/none, 0"));
  FakeNode failing = node(true, 0644);
  failing.code = -18;
  client_.nodes["down"] = failing;
  EXPECT_EQ(0, VEL::exists("down"));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] exists: Not exist, failed to get File Info from VEL server. down, -18"));
  FakeNode noWrap;
  noWrap.giveWrap = false;
  client_.nodes["nowrap"] = noWrap;
  EXPECT_EQ(0, VEL::exists("nowrap"));
  EXPECT_TRUE(
      log_.contains("[VEL] exists: Internal Error, failed to get File Info from VEL "
                    "server. nowrap, 0, FileInfoWrap is null"));

  EXPECT_EQ(1, VEL::isFile("a/f"));
  EXPECT_EQ(0, VEL::isDirectory("a/f"));
  EXPECT_EQ(0, VEL::isFile("a/d"));
  EXPECT_EQ(1, VEL::isDirectory("a/d"));
  EXPECT_EQ(0, VEL::isFile("a/none"));
  EXPECT_EQ(0, VEL::isDirectory("a/none"));

  // These four hand the caller's string over uncleaned.
  EXPECT_EQ(1, VEL::isFile("raw/ f"));
  EXPECT_EQ("stat(raw/ f)", client_.calls.back());
  EXPECT_EQ(0, VEL::isFile("/a/f"));
  EXPECT_EQ("stat(/a/f)", client_.calls.back());

  // Remote getmod returns the permission bits alone.
  EXPECT_EQ(0644, VEL::getmod("a/f"));
  EXPECT_EQ(0755, VEL::getmod("a/d"));
  EXPECT_EQ(-1, VEL::getmod("a/none"));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] getmod: Failed to get File Info from VEL server. a/none, file not exist."));
  EXPECT_EQ(0u, log_.lines("isFile: "));  // not found is silent for the type queries
}

}  // namespace
