#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/fake_client.h"
#include "vel/paths.h"

namespace {

using veltest::FakeClient;
using veltest::ScopedInstance;

struct CleanCase {
  const char* input;
  bool keepRelative;
  char sep;
  const char* expected;
};

TEST(NormalizePath, Table) {
  const CleanCase cases[] = {
      {nullptr, true, '/', ""},
      {"", true, '/', ""},
      {" \t\n ", true, '/', ""},
      {".", true, '/', ""},
      {"/", true, '/', ""},
      {"/", false, '/', "/"},
      {"  /a//b/  ", true, '/', "a/b"},
      {"  /a//b/  ", false, '/', "/a/b"},
      {"a\\b\\..\\c", true, '/', "a/c"},
      {"../../x", true, '/', "x"},
      {"/../../x", false, '/', "/x"},
      {"a/b/../../..", true, '/', ""},
      {"a/./b/.", true, '/', "a/b"},
      {" a / b c /  d ", true, '/', "a/b c/d"},
      {"a/.../b", true, '/', "a/.../b"},
      {"..a/b..", true, '/', "..a/b.."},
      {"a/b", true, '\\', "a\\b"},
      {"\\a\\b", false, '\\', "\\a\\b"},
      {"x/ . /y/ .. /z", true, '/', "x/z"},
      {"a//\\\\b", true, '/', "a/b"},
  };
  for (const CleanCase& c : cases) {
    EXPECT_EQ(c.expected, VEL::normalizePath(c.input, c.keepRelative, c.sep))
        << "input=\"" << (c.input != nullptr ? c.input : "(null)") << "\" keep=" << c.keepRelative;
  }
}

// Random paths over a small alphabet that favours separators, dots and
// blanks, so that every rule is exercised often.
std::string randomPath(std::mt19937& rng, bool withBlanks) {
  static const std::vector<std::string> pieces = {"a",  "b",  "..", ".",   "",   "/",
                                                  "\\", "//", "c",  "...", "d.e"};
  std::uniform_int_distribution<size_t> count(0, 12);
  std::uniform_int_distribution<size_t> pick(0, pieces.size() - 1);
  std::uniform_int_distribution<int> blank(0, 5);
  std::string path;
  size_t n = count(rng);
  for (size_t i = 0; i < n; ++i) {
    if (withBlanks && blank(rng) == 0) {
      path += ' ';
    }
    path += pieces[pick(rng)];
    if (withBlanks && blank(rng) == 0) {
      path += '\t';
    }
    if (i + 1 < n) {
      path += (rng() & 1) ? "/" : "\\";
    }
  }
  return path;
}

std::vector<std::string> split(const std::string& path) {
  std::vector<std::string> parts;
  std::stringstream in(path);
  for (std::string part; std::getline(in, part, '/');) {
    parts.push_back(part);
  }
  return parts;
}

TEST(NormalizePath, PropertiesOverGeneratedPaths) {
  std::mt19937 rng(20240611);
  for (int i = 0; i < 20000; ++i) {
    const bool blanks = (i % 2) == 0;
    const std::string input = randomPath(rng, blanks);
    const std::string cleaned = VEL::normalizePath(input);
    SCOPED_TRACE("input=\"" + input + "\"");

    // No empty, "." or ".." component, no leading or trailing separator,
    // no blank around a component.
    if (!cleaned.empty()) {
      for (const std::string& part : split(cleaned)) {
        ASSERT_FALSE(part.empty() || part == "." || part == "..") << cleaned;
        ASSERT_FALSE(std::isspace(static_cast<unsigned char>(part.front())) ||
                     std::isspace(static_cast<unsigned char>(part.back())))
            << cleaned;
      }
      ASSERT_NE('/', cleaned.back());
      ASSERT_NE('/', cleaned.front());
    }
    ASSERT_EQ(std::string::npos, cleaned.find('\\'));

    // Idempotent, in both forms.
    ASSERT_EQ(cleaned, VEL::normalizePath(cleaned));
    const std::string absolute = VEL::normalizePath(input, false, '/');
    ASSERT_EQ(absolute, VEL::normalizePath(absolute, false, '/'));

    // Never above its start: leading ".." cannot climb, and a path without
    // ".." stays below whatever it is appended to.
    ASSERT_EQ(cleaned, VEL::normalizePath("../../" + input));
    if (input.find("..") == std::string::npos) {
      const std::string below = VEL::normalizePath("start/" + input);
      ASSERT_EQ(cleaned.empty() ? "start" : "start/" + cleaned, below);
    }

    // Without blanks the result matches lexical resolution below a root.
    if (!blanks) {
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

class PathMappingTest : public ::testing::Test {
 protected:
  FakeClient client_{"/opt/backup/vel"};
  ScopedInstance scope_{&client_};
};

TEST_F(PathMappingTest, MirrorParentAndPlaceholderPaths) {
  EXPECT_EQ("/opt/backup/vel", VEL::getRootPath());
  for (const char* root : {"", "/", ".", " / ", "a/.."}) {
    EXPECT_EQ("/opt/backup/vel", VEL::getMirrorPath(root)) << root;
    EXPECT_EQ("${VEL_ROOT}", VEL::getPlaceholderPath(root)) << root;
  }
  EXPECT_EQ("/opt/backup/vel/etc", VEL::getMirrorPath("../etc"));
  EXPECT_EQ("/opt/backup/vel/a/b", VEL::getMirrorPath("\\a\\b\\"));
  EXPECT_EQ("${VEL_ROOT}/a/b", VEL::getPlaceholderPath("/a/./b"));
  EXPECT_EQ("/opt/backup/vel", VEL::getMirrorParentPath("top"));
  EXPECT_EQ("/opt/backup/vel/a/b", VEL::getMirrorParentPath("a/b/c"));

  // The configured root is used as it stands.
  client_.ownConfig.velRoot = "/m/";
  EXPECT_EQ("/m//x", VEL::getMirrorPath("x"));
}

TEST_F(PathMappingTest, ComponentsOfPaths) {
  EXPECT_EQ("a/b", VEL::getParentPath("/a/b/c/"));
  EXPECT_EQ("", VEL::getParentPath("c"));
  EXPECT_EQ("c", VEL::getBaseName("a/b/c/"));
  EXPECT_EQ("c", VEL::getBaseName("c"));
  EXPECT_EQ("", VEL::getBaseName(""));

  std::string windows = "dir\\sub\\file.txt";
  EXPECT_EQ("file.txt", VEL::getFileName(windows));
  EXPECT_EQ("dir/sub/file.txt", windows);  // changed in place
  std::string plain = "name";
  EXPECT_EQ("name", VEL::getFileName(plain));
  std::string trailing = "a/";
  EXPECT_EQ("", VEL::getFileName(trailing));

  EXPECT_EQ("a/b/c", VEL::joinPath("/a", nullptr, "b/", "./c"));
  EXPECT_EQ("x/z", VEL::joinPath("x", "y", "..", "z", nullptr));
  EXPECT_EQ("", VEL::joinPath(nullptr));
}

TEST_F(PathMappingTest, RelativeFormAndRootMembership) {
  std::string out = "stale";
  ASSERT_NE(nullptr, VEL::toRelativePath("/opt/backup/vel", out));
  EXPECT_EQ("", out);
  ASSERT_NE(nullptr, VEL::toRelativePath(" /opt//backup/vel/a/./b/ ", out));
  EXPECT_EQ("a/b", out);

  for (const char* outside : {"/opt/backup/velx/a", "/opt/backup", "opt/backup/vel/a", "/etc",
                              "/opt/backup/vel/../vel2"}) {
    out = "stale";
    EXPECT_EQ(nullptr, VEL::toRelativePath(outside, out)) << outside;
    EXPECT_EQ("", out) << outside;
    EXPECT_FALSE(VEL::isInRoot(outside)) << outside;
  }
  EXPECT_TRUE(VEL::isInRoot("/opt/backup/vel/x/../y"));

  EXPECT_TRUE(VEL::isAbsolutePath("  /a"));
  EXPECT_TRUE(VEL::isAbsolutePath("\\a"));
  EXPECT_TRUE(VEL::isAbsolutePath("/"));
  EXPECT_FALSE(VEL::isAbsolutePath("a/b"));
  EXPECT_FALSE(VEL::isAbsolutePath(""));
}

}  // namespace
