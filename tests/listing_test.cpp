#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <set>
#include <string>
#include <vector>

#include <ace/OS_Memory.h>

#include "support/fake_client.h"
#include "support/temp_dir.h"
#include "vel/listing.h"

namespace {

using veltest::FakeClient;
using veltest::LogCapture;
using veltest::ScopedInstance;
using veltest::TempDir;

using Names = std::vector<std::string>;

// Everything readdir_r hands out, up to its first non-zero result.
Names readAll(VEL::VEL_DIR* dir, int* lastResult = nullptr) {
  Names names;
  struct dirent entry;
  std::memset(&entry, 0, sizeof(entry));
  struct dirent* result = &entry;
  int ret = 0;
  while ((ret = VEL::readdir_r(dir, &entry, &result, "GBK")) == 0 && result != nullptr) {
    names.push_back(result->d_name);
  }
  if (lastResult != nullptr) {
    *lastResult = ret;
  }
  EXPECT_EQ(nullptr, result);
  return names;
}

Names sorted(const std::list<std::string>& list) {
  Names names(list.begin(), list.end());
  std::sort(names.begin(), names.end());
  return names;
}

int skipB(const struct dirent* entry) { return std::strcmp(entry->d_name, "b") != 0 ? 1 : 0; }

int byName(const struct dirent** a, const struct dirent** b) {
  return std::strcmp((*a)->d_name, (*b)->d_name);
}

Names takeNamelist(struct dirent** list, int count) {
  Names names;
  for (int i = 0; i < count; ++i) {
    names.push_back(list[i]->d_name);
    ACE_OS::free(list[i]);
  }
  ACE_OS::free(list);
  return names;
}

// Local mode: the mirror holds dir/{a, b, sub/{c, deep/{e}}}.
class LocalListingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    veltest::makeDirs(root_.sub("dir/sub/deep"));
    veltest::writeFile(root_.sub("dir/a"), "a");
    veltest::writeFile(root_.sub("dir/b"), "b");
    veltest::writeFile(root_.sub("dir/sub/c"), "c");
    veltest::writeFile(root_.sub("dir/sub/deep/e"), "e");
  }
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path(), /*localOnly=*/true};
  ScopedInstance scope_{&client_};
};

TEST_F(LocalListingTest, HandlesReadTheMirrorDirectory) {
  const std::string gbkName = "\xce\xc4\xbc\xfe";  // a GBK name, read back unconverted
  veltest::writeFile(root_.sub("dir/" + gbkName), "");
  VEL::VEL_DIR* dir = VEL::opendir("/dir/", "UTF-8");
  ASSERT_NE(nullptr, dir);
  ASSERT_NE(nullptr, dir->dir);
  EXPECT_EQ(nullptr, dir->entries);
  int last = -7;
  Names names = readAll(dir, &last);
  EXPECT_EQ(0, last);  // the local reader ends like readdir_r: 0, null result
  std::sort(names.begin(), names.end());
  EXPECT_EQ((Names{".", "..", "a", "b", "sub", gbkName}), names);
  VEL::closedir(dir);
  EXPECT_EQ(0u, client_.count("listDir"));

  errno = 0;
  EXPECT_EQ(nullptr, VEL::opendir("nothing", "UTF-8"));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_EQ(nullptr, VEL::opendir(nullptr, "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] opendir(), bad parameter: NULL path"));
}

TEST_F(LocalListingTest, ScandirPassesSelectorAndComparator) {
  struct dirent** list = nullptr;
  int count = VEL::scandir("dir", &list, skipB, byName, "UTF-8");
  ASSERT_EQ(4, count);
  EXPECT_EQ((Names{".", "..", "a", "sub"}), takeNamelist(list, count));

  EXPECT_EQ(-1, VEL::scandir("nothing", &list, nullptr, nullptr, "UTF-8"));
  EXPECT_TRUE(
      log_.contains("DEBUG [VEL] scandir(), failed to scandir." + root_.sub("nothing") + ", -1"));
  EXPECT_EQ(-1, VEL::scandir(nullptr, &list, nullptr, nullptr, "UTF-8"));
  EXPECT_EQ(-1, VEL::scandir("dir", nullptr, nullptr, nullptr, "UTF-8"));
  EXPECT_EQ(2u, log_.lines("ERROR [VEL] scandir(), bad parameter: NULL path("));
}

TEST_F(LocalListingTest, ReadDirAndTheLocalReader) {
  std::list<std::string> entries = {"kept"};
  EXPECT_EQ(1, VEL::readDir("dir", entries, false, false, "UTF-8"));
  EXPECT_EQ((Names{"a", "b", "kept", "sub"}), sorted(entries));  // appended, bare names

  const std::string base = root_.sub("dir");
  entries.clear();
  EXPECT_EQ(1, VEL::readDir("dir", entries, true, false, "UTF-8"));
  EXPECT_EQ((Names{base + "/a", base + "/b", base + "/sub"}), sorted(entries));

  entries.clear();
  ASSERT_EQ(0, ::symlink("..", root_.sub("dir/sub/up").c_str()));  // a loop, not followed
  EXPECT_EQ(1, VEL::readLocalDir(base, entries, false, true, "UTF-8"));
  EXPECT_EQ((Names{base + "/a", base + "/b", base + "/sub", base + "/sub/c", base + "/sub/deep",
                   base + "/sub/deep/e", base + "/sub/up"}),
            sorted(entries));

  entries.clear();
  EXPECT_EQ(0, VEL::readDir("nothing", entries, false, false, "UTF-8"));
  EXPECT_EQ(0, VEL::readLocalDir(root_.sub("dir/a"), entries, false, false, "UTF-8"));
  EXPECT_TRUE(entries.empty());
}

// Remote mode: listings come from the test back-end.
class RemoteListingTest : public ::testing::Test {
 protected:
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path()};
  ScopedInstance scope_{&client_};
};

TEST_F(RemoteListingTest, OpendirListsOneLevelAndMakesTheMirrorDirectories) {
  client_.listings["p/q"] = {"p/q", "a", "sub/"};
  VEL::VEL_DIR* dir = VEL::opendir("p/q", "UTF-8");
  ASSERT_NE(nullptr, dir);
  EXPECT_EQ(nullptr, dir->dir);
  EXPECT_EQ("listDir(p/q,1,0)", client_.calls.back());
  EXPECT_EQ(0750, veltest::permissionsOf(root_.sub("p")));
  EXPECT_EQ(0750, veltest::permissionsOf(root_.sub("p/q")));

  // The first element is handed out by its base name; the end is -1.
  struct dirent entry;
  std::memset(&entry, 0, sizeof(entry));
  entry.d_ino = 77;
  entry.d_type = DT_FIFO;
  struct dirent* result = nullptr;
  ASSERT_EQ(0, VEL::readdir_r(dir, &entry, &result, "UTF-8"));
  EXPECT_EQ(&entry, result);
  EXPECT_STREQ("q", entry.d_name);
  EXPECT_EQ(256, entry.d_reclen);
  EXPECT_EQ(77u, entry.d_ino);  // left as the caller had them
  EXPECT_EQ(DT_FIFO, entry.d_type);
  int last = 0;
  EXPECT_EQ((Names{"a", "sub/"}), readAll(dir, &last));
  EXPECT_EQ(-1, last);
  EXPECT_EQ(-1, VEL::readdir_r(dir, &entry, &result, "UTF-8"));
  EXPECT_EQ(nullptr, result);

  EXPECT_EQ(-1, VEL::readdir_r(dir, nullptr, &result, "UTF-8"));
  EXPECT_TRUE(log_.contains("ERROR [VEL] readdir_r(), NULL entry point."));
  VEL::closedir(dir);

  // An empty listing still gives a handle and still makes the directories.
  VEL::VEL_DIR* empty = VEL::opendir("e/f", "UTF-8");
  ASSERT_NE(nullptr, empty);
  EXPECT_TRUE(veltest::pathExists(root_.sub("e/f")));
  EXPECT_EQ(Names{}, readAll(empty));
  VEL::closedir(empty);
}

TEST_F(RemoteListingTest, LongNamesAndBrokenHandles) {
  const std::string longName(300, 'n');
  client_.listings["d"] = {"d", longName};
  VEL::VEL_DIR* dir = VEL::opendir("d", "UTF-8");
  ASSERT_NE(nullptr, dir);
  struct dirent entry;
  struct dirent* result = nullptr;
  ASSERT_EQ(0, VEL::readdir_r(dir, &entry, &result, "UTF-8"));
  ASSERT_EQ(0, VEL::readdir_r(dir, &entry, &result, "UTF-8"));
  EXPECT_EQ(std::string(255, 'n'), entry.d_name);
  EXPECT_EQ(300, entry.d_reclen);
  VEL::closedir(dir);

  result = &entry;
  EXPECT_EQ(-1, VEL::readdir_r(nullptr, &entry, &result, "UTF-8"));
  EXPECT_EQ(&entry, result);  // untouched, nothing logged
  EXPECT_FALSE(log_.contains("readdir_r"));

  auto* broken = new VEL::VEL_DIR();
  EXPECT_EQ(-1, VEL::readdir_r(broken, &entry, &result, "UTF-8"));
  EXPECT_EQ(nullptr, result);
  EXPECT_TRUE(log_.contains("ERROR [VEL] readdir_r(), invalid VEL_DIR data."));
  VEL::closedir(broken);
  EXPECT_TRUE(log_.contains("ERROR [VEL] closedir(), dir already closed."));
  VEL::closedir(nullptr);
  EXPECT_TRUE(log_.contains("ERROR [VEL] closedir(), NULL input."));

  client_.results["listDir"] = -18;
  EXPECT_EQ(nullptr, VEL::opendir("x/y", "UTF-8"));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] opendir(), failed to list dir on VEL server. x/y, errCode=-18"));
  EXPECT_FALSE(veltest::pathExists(root_.sub("x")));
}

TEST_F(RemoteListingTest, Scandir) {
  client_.listings["s"] = {"s", "d", "b", "a"};
  struct dirent** list = nullptr;
  int count = VEL::scandir("s", &list, skipB, byName, "UTF-8");
  ASSERT_EQ(3, count);
  EXPECT_EQ((Names{"a", "d", "s"}), takeNamelist(list, count));  // no name is shortened
  count = VEL::scandir("s", &list, nullptr, nullptr, "UTF-8");
  EXPECT_EQ((Names{"s", "d", "b", "a"}), takeNamelist(list, count));  // listing order
  EXPECT_EQ("listDir(s,1,0)", client_.calls.back());

  list = reinterpret_cast<struct dirent**>(&count);
  EXPECT_EQ(0, VEL::scandir("empty", &list, nullptr, nullptr, "UTF-8"));
  EXPECT_EQ(nullptr, list);
  EXPECT_TRUE(log_.contains("ERROR [VEL] scandir(), return null namelist for empty."));

  client_.results["listDir"] = -6;
  EXPECT_EQ(-1, VEL::scandir("s", &list, nullptr, nullptr, "UTF-8"));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] scandir(), failed to list dir on VEL server. s, errCode=-6"));
}

TEST_F(RemoteListingTest, ReadDirMakesEntriesRelative) {
  client_.listings["/top//d"] = {"top/d", "top/d/a", "x/../top/d/b/", "c", "top/dx"};
  std::list<std::string> entries;
  EXPECT_EQ(1, VEL::readDir("/top//d", entries, true, true, "UTF-8"));
  EXPECT_EQ("listDir(/top//d,-1,1)", client_.calls.back());
  EXPECT_EQ((std::list<std::string>{"top/d", "a", "b", "c", "top/dx"}), entries);
  entries.clear();
  EXPECT_EQ(1, VEL::readDir("/top//d", entries, false, false, "UTF-8"));
  EXPECT_EQ("listDir(/top//d,1,0)", client_.calls.back());
  EXPECT_EQ((std::list<std::string>{"top/d", "a", "b", "c", "top/dx"}), entries);

  client_.results["listDir"] = -18;
  EXPECT_EQ(0, VEL::readDir("top", entries, false, false, "UTF-8"));
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] readDir(), failed to list dir on VEL server. top, errCode=-18"));
}

}  // namespace
