#include <dirent.h>
#include <gtest/gtest.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <ace/OS_Memory.h>

#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/codeset.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using veltest::FakeClient;
using veltest::LogCapture;
using veltest::ScopedInstance;
using veltest::TempDir;

// Reference conversion straight through iconv, independent of the library.
std::string toGbk(const std::string& utf8) {
  iconv_t cd = iconv_open("GBK", "UTF-8");
  std::string in = utf8;
  std::string out(in.size() * 2 + 4, '\0');
  char* src = in.data();
  size_t srcLeft = in.size();
  char* dst = out.data();
  size_t dstLeft = out.size();
  size_t ret = iconv(cd, &src, &srcLeft, &dst, &dstLeft);
  iconv_close(cd);
  EXPECT_NE(static_cast<size_t>(-1), ret);
  out.resize(out.size() - dstLeft);
  return out;
}

const std::string kFileUtf8 = "\xe6\x96\x87\xe4\xbb\xb6.txt";  // "文件.txt"
const std::string kDirUtf8 = "\xe7\x9b\xae\xe5\xbd\x95";       // "目录"

class CodeSetTest : public ::testing::Test {
 protected:
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path(), /*localOnly=*/true};
  ScopedInstance scope_{&client_};
};

TEST_F(CodeSetTest, GbkNamedFileIsListedAndStatedThroughTheCodeSet) {
  const std::string gbkName = toGbk(kFileUtf8);
  ASSERT_NE(kFileUtf8, gbkName);
  veltest::writeFile(root_.sub(gbkName), "twelve bytes");

  // Listing converts the local name back to UTF-8.
  DIR* dir = VEL::handleOpendir(root_.path().c_str(), "GBK");
  ASSERT_NE(nullptr, dir);
  std::vector<std::string> names;
  struct dirent entry;
  struct dirent* result = nullptr;
  while (VEL::handleReaddir_r(dir, &entry, &result, "GBK") == 0 && result != nullptr) {
    names.push_back(result->d_name);
  }
  EXPECT_EQ(0, VEL::handleClosedir(dir));
  EXPECT_NE(names.end(), std::find(names.begin(), names.end(), kFileUtf8));

  // Queries convert the UTF-8 path into the local code set.
  struct stat st;
  ASSERT_EQ(0, VEL::stat(kFileUtf8.c_str(), &st, "GBK"));
  EXPECT_EQ(12, st.st_size);
  EXPECT_EQ(1, VEL::isFile(kFileUtf8.c_str(), "GBK"));
  EXPECT_EQ(1, VEL::exists(kFileUtf8.c_str(), "GBK"));
  EXPECT_EQ(-1, VEL::stat(kFileUtf8.c_str(), &st, "UTF-8"));  // no UTF-8 name on disk
  EXPECT_EQ(0, VEL::exists(kFileUtf8.c_str(), "utf-8"));

  // Creation writes the local form of the name.
  ASSERT_EQ(0, VEL::mkdir(kDirUtf8.c_str(), 0750, "GBK"));
  EXPECT_TRUE(veltest::pathExists(root_.sub(toGbk(kDirUtf8))));
  EXPECT_FALSE(veltest::pathExists(root_.sub(kDirUtf8)));
  EXPECT_EQ(1, VEL::isDirectory(kDirUtf8.c_str(), "GBK"));
}

TEST_F(CodeSetTest, UnknownCodeSetSkipsConversion) {
  std::string out = "untouched";
  EXPECT_EQ(0, VEL::codeSetConvert("UTF-8", "UNKNOWN", "abc", out));
  EXPECT_EQ("untouched", out);
  EXPECT_EQ(0, VEL::codeSetConvert("UNKNOWN", "UTF-8", "abc", out));
  EXPECT_EQ("untouched", out);

  // The callers then receive an empty path.
  EXPECT_EQ(0, VEL::convertFromUtf8(out, "abc", "UNKNOWN"));
  EXPECT_EQ("", out);
  EXPECT_EQ(0, VEL::convertToUtf8(out, "abc", "UNKNOWN"));
  EXPECT_EQ("", out);
  veltest::writeFile(root_.sub("present"), "x");
  struct stat st;
  EXPECT_EQ(-1, VEL::stat("present", &st, "UNKNOWN"));
  EXPECT_EQ(0, VEL::stat("present", &st, "UTF-8"));
}

TEST_F(CodeSetTest, OnlyExactUtf8SpellingsSkipIconv) {
  const std::string invalid = "h\xffi";
  std::string out;
  // Identical names copy without iconv, even for bytes iconv would reject.
  EXPECT_EQ(0, VEL::codeSetConvert("UTF-8", "UTF-8", invalid, out));
  EXPECT_EQ(invalid, out);
  EXPECT_TRUE(VEL::isUtf8("UTF-8"));
  EXPECT_TRUE(VEL::isUtf8("utf-8"));
  EXPECT_FALSE(VEL::isUtf8("Utf-8"));
  EXPECT_FALSE(VEL::isUtf8("utf8"));
  EXPECT_FALSE(VEL::isUtf8(nullptr));

  // "Utf-8" goes through iconv: valid text converts to itself, invalid text
  // is refused and the caller falls back to the unconverted bytes.
  out.clear();
  EXPECT_EQ(0, VEL::codeSetConvert("UTF-8", "Utf-8", kFileUtf8, out));
  EXPECT_EQ(kFileUtf8, out);
  out = "before";
  EXPECT_EQ(-1, VEL::codeSetConvert("UTF-8", "Utf-8", invalid, out));
  EXPECT_EQ("before", out);
  EXPECT_EQ(-1, VEL::convertFromUtf8(out, invalid, "Utf-8"));
  EXPECT_EQ(invalid, out);
  EXPECT_FALSE(log_.contains("codeSetConvert"));  // a refused input is not logged
}

TEST_F(CodeSetTest, ConversionResultsAndFailures) {
  std::string out;
  // The count of irreversible conversions is returned, with the output.
  EXPECT_EQ(1, VEL::codeSetConvert("UTF-8", "ASCII//TRANSLIT", "\xe2\x82\xac", out));
  EXPECT_EQ("EUR", out);
  EXPECT_EQ(1, VEL::convertFromUtf8(out, "\xe2\x82\xac", "ASCII//TRANSLIT"));
  EXPECT_EQ("\xe2\x82\xac", out);  // any non-zero result falls back

  // An output larger than twice the input plus two bytes is a failure.
  EXPECT_EQ(-1, VEL::convertFromUtf8(out, "abcd", "UTF-32"));
  EXPECT_EQ("abcd", out);

  // An unknown code set is logged with the target first.
  EXPECT_EQ(-1, VEL::codeSetConvert("UTF-8", "NO-SUCH-SET", "abc", out));
  EXPECT_TRUE(log_.contains("ERROR [VEL] codeSetConvert(), iconv_open(NO-SUCH-SET, UTF-8) failed"));
  EXPECT_EQ(-1, VEL::convertToUtf8(out, "abc", "NO-SUCH-SET"));
  EXPECT_EQ("abc", out);

  EXPECT_EQ(0, VEL::convertToUtf8(out, toGbk(kFileUtf8), "GBK"));
  EXPECT_EQ(kFileUtf8, out);
}

TEST_F(CodeSetTest, CachedDescriptorsServeConcurrentThreads) {
  const std::string expected = toGbk(kFileUtf8 + kDirUtf8);
  std::vector<std::thread> threads;
  std::vector<int> failures(8, 0);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 300; ++i) {
        std::string out;
        if (VEL::convertFromUtf8(out, kFileUtf8 + kDirUtf8, "GBK") != 0 || out != expected) {
          ++failures[t];
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (int t = 0; t < 8; ++t) {
    EXPECT_EQ(0, failures[t]) << "thread " << t;
  }
}

TEST_F(CodeSetTest, RealPaths) {
  veltest::makeDirs(root_.sub("real/dir"));
  ASSERT_EQ(0, ::symlink(root_.sub("real/dir").c_str(), root_.sub("link").c_str()));
  char* resolved = ::realpath(root_.sub("real/dir").c_str(), nullptr);
  ASSERT_NE(nullptr, resolved);
  const std::string target = resolved;
  std::free(resolved);

  EXPECT_EQ(target, VEL::getRealPath(root_.sub("link/./")));
  char* own = VEL::handleRealpath(root_.sub("link").c_str(), nullptr, "UTF-8");
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(target, own);
  std::free(own);
  EXPECT_FALSE(log_.contains("handleRealpath"));

  // Another code set allocates through ACE and always notes "invalid path".
  own = VEL::handleRealpath(root_.sub("link").c_str(), nullptr, "GBK");
  ASSERT_NE(nullptr, own);
  EXPECT_EQ(target, own);
  ACE_OS::free(own);
  EXPECT_EQ(1u, log_.lines("ERROR [VEL] handleRealpath(), invalid path"));
  char buffer[4096];
  EXPECT_EQ(nullptr, VEL::handleRealpath(root_.sub("missing").c_str(), buffer, "GBK"));
  EXPECT_EQ(2u, log_.lines("ERROR [VEL] handleRealpath(), invalid path"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] handleRealpath(), realpath failed, return nullptr"));

  // 4,095 bytes reach realpath; 4,096 are refused before it.
  errno = 0;
  EXPECT_EQ(nullptr, VEL::handleRealpath(std::string(4096, 'a').c_str(), buffer, "UTF-8"));
  EXPECT_EQ(0, errno);
  EXPECT_EQ(nullptr, VEL::handleRealpath(std::string(4095, 'a').c_str(), buffer, "UTF-8"));
  EXPECT_NE(0, errno);
  EXPECT_EQ(nullptr, VEL::handleRealpath(nullptr, buffer, "UTF-8"));

  // The failure message uses no-break spaces.
  log_.clear();
  errno = 0;
  EXPECT_EQ("", VEL::getRealPath(root_.sub("missing")));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL]\xc2\xa0getRealPath(),\xc2\xa0realpath\xc2\xa0"
                    "error:2\n"));
}

TEST_F(CodeSetTest, LocalCallWrappers) {
  const mode_t oldMask = ::umask(077);
  EXPECT_EQ(0, VEL::handleMkdir(root_.sub("wide").c_str(), 0755, "UTF-8"));
  EXPECT_EQ(0755, veltest::permissionsOf(root_.sub("wide")));
  // The mode is applied even when the directory already exists.
  EXPECT_EQ(-1, VEL::handleMkdir(root_.sub("wide").c_str(), 0711, "UTF-8"));
  EXPECT_EQ(0711, veltest::permissionsOf(root_.sub("wide")));
  ::umask(oldMask);

  EXPECT_EQ(-1, VEL::handleRename(nullptr, "x", 0, "UTF-8"));
  EXPECT_EQ(-1, VEL::handleRename("x", nullptr, 0, "UTF-8"));
  EXPECT_EQ(nullptr, VEL::handleFopen(nullptr, "r", "UTF-8"));
  EXPECT_EQ(nullptr, VEL::handleFopen(root_.sub("f").c_str(), nullptr, "UTF-8"));

  const std::string gbk = toGbk(kFileUtf8);
  FILE* file = VEL::handleFopen(root_.sub(kFileUtf8).c_str(), "w", "GBK");
  ASSERT_NE(nullptr, file);
  std::fclose(file);
  EXPECT_TRUE(veltest::pathExists(root_.sub(gbk)));
  EXPECT_EQ(0, VEL::handleAccess(root_.sub(kFileUtf8).c_str(), F_OK, "GBK"));
  EXPECT_EQ(0,
            VEL::handleRename(root_.sub(kFileUtf8).c_str(), root_.sub(kDirUtf8).c_str(), 7, "GBK"));
  EXPECT_TRUE(veltest::pathExists(root_.sub(toGbk(kDirUtf8))));
  EXPECT_EQ(0, VEL::handleRemove(root_.sub(kDirUtf8).c_str(), "GBK"));
  EXPECT_FALSE(veltest::pathExists(root_.sub(toGbk(kDirUtf8))));

  DIR* dir = VEL::handleOpendir(root_.path().c_str(), "UTF-8");
  ASSERT_NE(nullptr, dir);
  struct dirent entry;
  EXPECT_EQ(1, VEL::handleReaddir_r(dir, &entry, nullptr, "GBK"));
  VEL::handleClosedir(dir);
}

TEST_F(CodeSetTest, ChmodRefusesTheRootAndForwardsOtherPaths) {
  EXPECT_EQ(-1, VEL::chmod(nullptr, 0644));
  EXPECT_TRUE(log_.contains("ERROR [VEL] chmod(0, 420), bad parameter: NULL path"));
  for (const char* root : {"/", "", ".", "a/.."}) {
    EXPECT_EQ(-1, VEL::chmod(root, 0644)) << root;
    EXPECT_TRUE(
        log_.contains(std::string("ERROR [VEL] chmod(") + root + ", 420), cannot operate VELRoot"))
        << root;
  }
  EXPECT_EQ(0u, client_.count("chmod"));

  client_.results["chmod"] = -11;
  EXPECT_EQ(-11, VEL::chmod(" /a//b", 0600));
  ASSERT_EQ(1u, client_.count("chmod"));
  EXPECT_EQ("chmod( /a//b,384)", client_.calls.back());  // uncleaned path
}

}  // namespace
