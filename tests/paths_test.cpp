// Path cleaning and mapping, real paths and code-set conversion.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sanitizer/asan_interface.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "support/fake_client.h"
#include "vel/codeset.h"
#include "vel/paths.h"
#include "vel/query.h"

namespace {

TEST(NormalizePath, Table) {
  struct Case {
    const char* input;
    bool keepRelative;
    char sep;
    const char* expected;
  };
  // clang-format off
  const Case cases[] = {
      {nullptr, true, '/', ""},           {".", true, '/', ""},
      {"/", true, '/', ""},               {"/", false, '/', "/"},
      {"  /a//b/  ", true, '/', "a/b"},   {"a\\b\\..\\c", true, '/', "a/c"},
      {"../../x", true, '/', "x"},        {"/../../x", false, '/', "/x"},
      {"a/b/../../..", true, '/', ""},    {" a / b c /  d ", true, '/', "a/b c/d"},
      {"\\a\\b", false, '\\', "\\a\\b"},  {"x/ . /y/ .. /z", true, '/', "x/z"},
  };
  // clang-format on

  for (const Case& c : cases) {
    EXPECT_EQ(c.expected, VEL::normalizePath(c.input, c.keepRelative, c.sep))
        << "input=\"" << (c.input != nullptr ? c.input : "(null)") << "\" keep=" << c.keepRelative;
  }
}

// Random paths over pieces that favour separators, dots and blanks.
TEST(NormalizePath, NeverClimbsAboveItsStartOverGeneratedPaths) {
  static const std::vector<std::string> pieces = {"a",  "b", "..",  ".",  "",   "/",
                                                  "\\", "c", "...", ".c", "c.."};
  static const char* const separators[] = {"", "/", "\\"};
  std::mt19937 rng(20240611);
  for (int i = 0; i < 20000; ++i) {
    const bool blanks = (i % 2) == 0;
    std::string input;
    for (size_t n = rng() % 12; n > 0; --n) {
      input += (blanks && rng() % 5 == 0 ? (rng() % 2 == 0 ? " " : "\t") : "") +
               pieces[rng() % pieces.size()] + separators[rng() % 3];
    }
    const std::string cleaned = VEL::normalizePath(input);
    SCOPED_TRACE("input=\"" + input + "\"");
    // Cleaning with "/" (which returns a clean path as it is) matches
    // cleaning with "\\" (which always rebuilds it), up to the separator.
    for (bool keepRelative : {true, false}) {
      std::string rebuilt = VEL::normalizePath(input, keepRelative, '\\');
      std::replace(rebuilt.begin(), rebuilt.end(), '\\', '/');
      ASSERT_EQ(rebuilt, VEL::normalizePath(input, keepRelative, '/')) << keepRelative;
    }
    ASSERT_EQ(cleaned, VEL::normalizePath(cleaned));  // idempotent
    ASSERT_EQ(cleaned, VEL::normalizePath("../../" + input));
    // Without "..", a path appended to a start directory stays below it.
    if (input.find("..") == std::string::npos) {
      ASSERT_EQ(cleaned.empty() ? "start" : "start/" + cleaned,
                VEL::normalizePath("start/" + input));
    }
    if (!blanks) {  // matches lexical resolution below a root
      std::string slashed = input;
      std::replace(slashed.begin(), slashed.end(), '\\', '/');
      std::string oracle = std::filesystem::path("/" + slashed).lexically_normal().string();
      while (oracle.size() > 1 && oracle.back() == '/') {
        oracle.pop_back();
      }
      ASSERT_EQ(oracle, "/" + cleaned);
    }
  }
}

const std::string kFileUtf8 = "\xe6\x96\x87\xe4\xbb\xb6.txt";  // "文件.txt"
const std::string kFileGbk = "\xce\xc4\xbc\xfe.txt";

using PathsTest = veltest::BackendTest</*kLocalOnly=*/true>;

TEST_F(PathsTest, MirrorAndRelativeForms) {
  client_.ownConfig.velRoot = "/opt/backup/vel";
  for (const char* root : {"", "/", ".", "a/.."}) {
    EXPECT_EQ("/opt/backup/vel", VEL::getMirrorPath(root)) << root;
    EXPECT_EQ("${VEL_ROOT}", VEL::getPlaceholderPath(root)) << root;
  }
  EXPECT_EQ("/opt/backup/vel/etc", VEL::getMirrorPath("../etc"));
  EXPECT_EQ("${VEL_ROOT}/a/b", VEL::getPlaceholderPath("/a/./b"));
  EXPECT_EQ("/opt/backup/vel/a/b", VEL::getMirrorParentPath("a/b/c"));
  EXPECT_EQ("x/z", VEL::joinPath("x", "y", "..", "z", nullptr));
  std::string windows = "dir\\sub\\file.txt";
  EXPECT_EQ("file.txt", VEL::getFileName(windows));
  EXPECT_EQ("dir/sub/file.txt", windows);  // changed in place

  std::string out = "stale";
  ASSERT_NE(nullptr, VEL::toRelativePath(" /opt//backup/vel/a/./b/ ", out));
  EXPECT_EQ("a/b", out);
  for (const char* outside :
       {"/opt/backup/velx/a", "/opt/backup", "opt/backup/vel/a", "/opt/backup/vel/../vel2"}) {
    out = "stale";
    EXPECT_EQ(nullptr, VEL::toRelativePath(outside, out)) << outside;
    EXPECT_EQ("", out) << outside;
    EXPECT_FALSE(VEL::isInRoot(outside)) << outside;
  }
}

// The local queries reach the same file whether the path is clean, needs
// cleaning, or maps to a mirror path too long to be assembled in place.
TEST_F(PathsTest, LocalQueriesMapEveryFormOfAPathToItsMirrorFile) {
  const std::string deep =
      std::string(120, 'd') + "/" + std::string(120, 'e') + "/" + std::string(120, 'f');
  ASSERT_TRUE(std::filesystem::create_directories(root_.sub(deep)));
  ASSERT_TRUE(std::filesystem::create_directories(root_.sub("a")));
  veltest::writeFile(root_.sub("a/b.txt"), "five!");
  veltest::writeFile(root_.sub(deep + "/g.txt"), "seven!!");
  struct stat st;
  for (const std::string& path : {std::string("a/b.txt"), std::string(" a/./b.txt "),
                                  std::string("x/..\\a//b.txt"), std::string("/a/b.txt/")}) {
    EXPECT_EQ(0, VEL::stat(path.c_str(), &st)) << path;
    EXPECT_EQ(5, st.st_size) << path;
    EXPECT_EQ(1, VEL::exists(path.c_str())) << path;
  }
  for (const std::string& path : {deep + "/g.txt", deep + "/./g.txt"}) {
    EXPECT_EQ(0, VEL::stat(path.c_str(), &st)) << path;
    EXPECT_EQ(7, st.st_size) << path;
    EXPECT_EQ(1, VEL::exists(path.c_str())) << path;
  }
  for (const char* missing : {"a/b", "a/b.txt.", "b.txt", "a/x/../c"}) {
    EXPECT_EQ(0, VEL::exists(missing)) << missing;
  }
  EXPECT_EQ(1, VEL::exists("a/b.txt/.."));  // "a"
}

TEST_F(PathsTest, GbkNamedFileIsListedAndStatedThroughTheCodeSet) {
  veltest::writeFile(root_.sub(kFileGbk), "twelve bytes");
  DIR* dir = VEL::handleOpendir(root_.path().c_str(), "GBK");
  ASSERT_NE(nullptr, dir);
  std::vector<std::string> names;
  struct dirent entry;
  struct dirent* result = nullptr;
  while (VEL::handleReaddir_r(dir, &entry, &result, "GBK") == 0 && result != nullptr) {
    names.push_back(result->d_name);
  }
  VEL::handleClosedir(dir);
  EXPECT_NE(names.end(), std::find(names.begin(), names.end(), kFileUtf8));

  struct stat st;
  ASSERT_EQ(0, VEL::stat(kFileUtf8.c_str(), &st, "GBK"));
  EXPECT_EQ(12, st.st_size);
  EXPECT_EQ(0, VEL::exists(kFileUtf8.c_str(), "utf-8"));  // no UTF-8 name on disk
}

// A name of 255 Latin-1 bytes converts to 510 bytes of UTF-8: more than an
// entry's d_name holds. The call ends with an error; nothing past d_name is
// written, and names that fit still convert.
TEST_F(PathsTest, ConvertedNameLongerThanAnEntryEndsTheCallWithoutOverflow) {
  const std::string longName(255, '\xe9');  // "é" in ISO-8859-1
  const std::string shortName(100, '\xe9');
  veltest::writeFile(root_.sub(longName), "");
  veltest::writeFile(root_.sub(shortName), "");
  DIR* dir = VEL::handleOpendir(root_.path().c_str(), "ISO-8859-1");
  ASSERT_NE(nullptr, dir);
  struct Guarded {
    struct dirent entry;
    unsigned char after[512];
  } buffer;
  std::memset(&buffer, 0, sizeof(buffer));
  std::memset(buffer.after, 0x5A, sizeof(buffer.after));
  // Under AddressSanitizer a write past d_name is reported at once.
  ASAN_POISON_MEMORY_REGION(buffer.after, sizeof(buffer.after));
  std::vector<std::string> names;
  int tooLong = 0;
  for (int i = 0; i < 8; ++i) {
    struct dirent* result = &buffer.entry;
    int ret = VEL::handleReaddir_r(dir, &buffer.entry, &result, "ISO-8859-1");
    if (ret == ENAMETOOLONG) {
      ++tooLong;
      EXPECT_EQ(nullptr, result);
      continue;
    }
    if (ret != 0 || result == nullptr) {
      EXPECT_EQ(0, ret);
      break;
    }
    names.push_back(result->d_name);
  }
  VEL::handleClosedir(dir);
  ASAN_UNPOISON_MEMORY_REGION(buffer.after, sizeof(buffer.after));
  EXPECT_EQ(1, tooLong);
  EXPECT_EQ(std::string(512, '\x5A'),
            std::string(reinterpret_cast<const char*>(buffer.after), sizeof(buffer.after)));
  std::string shortUtf8;
  for (int i = 0; i < 100; ++i) shortUtf8 += "\xc3\xa9";
  EXPECT_NE(names.end(), std::find(names.begin(), names.end(), shortUtf8));
  EXPECT_TRUE(log_.contains("ERROR [VEL] handleReaddir_r(): converted name of \""));
  EXPECT_TRUE(log_.contains("\" takes 510 bytes, more than the 255 of an entry\n"));
}

TEST_F(PathsTest, ConversionRules) {
  std::string out = "untouched";
  EXPECT_EQ(0, VEL::codeSetConvert("UTF-8", "UNKNOWN", "abc", out));
  EXPECT_EQ("untouched", out);
  EXPECT_EQ(0, VEL::convertFromUtf8(out, "abc", "UNKNOWN"));  // the caller gets an empty path
  EXPECT_EQ("", out);

  // "Utf-8" is not an exact spelling: iconv runs, refuses invalid bytes, and
  // the caller falls back to the unconverted text without a log line.
  const std::string invalid = "h\xffi";
  EXPECT_EQ(-1, VEL::convertFromUtf8(out, invalid, "Utf-8"));
  EXPECT_EQ(invalid, out);
  EXPECT_FALSE(log_.contains("codeSetConvert"));

  EXPECT_EQ(-1, VEL::convertFromUtf8(out, "abcd", "UTF-32"));  // more than twice the input
  EXPECT_EQ("abcd", out);
  EXPECT_EQ(-1, VEL::codeSetConvert("UTF-8", "NO-SUCH-SET", "abc", out));
  EXPECT_TRUE(log_.contains("ERROR [VEL] codeSetConvert(), iconv_open(NO-SUCH-SET, UTF-8) failed"));
}

TEST_F(PathsTest, RealPaths) {
  veltest::makeDirs(root_.sub("real"));
  ASSERT_EQ(0, ::symlink(root_.sub("real").c_str(), root_.sub("link").c_str()));
  char* resolved = ::realpath(root_.sub("real").c_str(), nullptr);
  ASSERT_NE(nullptr, resolved);
  const std::string target = resolved;
  std::free(resolved);
  EXPECT_EQ(target, VEL::getRealPath(root_.sub("link/./")));

  char buffer[4096];
  errno = 0;
  EXPECT_EQ(nullptr, VEL::handleRealpath(std::string(4096, 'a').c_str(), buffer, "UTF-8"));
  EXPECT_EQ(0, errno);  // refused before realpath
  EXPECT_EQ("", VEL::getRealPath(root_.sub("missing")));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL]\xc2\xa0getRealPath(),\xc2\xa0realpath\xc2\xa0"
                    "error:2\n"));
}

TEST_F(PathsTest, ChmodRefusesTheRootAndForwardsOtherPaths) {
  EXPECT_EQ(-1, VEL::chmod(nullptr, 0644));
  for (const char* root : {"/", "", ".", "a/.."}) {
    EXPECT_EQ(-1, VEL::chmod(root, 0644)) << root;
  }
  EXPECT_TRUE(client_.calls.empty());
  client_.results["chmod"] = -11;
  EXPECT_EQ(-11, VEL::chmod(" /a//b", 0600));
  EXPECT_EQ(std::vector<std::string>{"chmod( /a//b,384)"}, client_.calls);  // uncleaned
}

}  // namespace
