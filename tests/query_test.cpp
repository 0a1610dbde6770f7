// Status queries and directory listings, in local mode (the mirror) and in
// remote mode (the test back-end's answers).
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <string>
#include <vector>

#include <ace/OS_Memory.h>

#include "support/fake_client.h"
#include "vel/listing.h"
#include "vel/query.h"

namespace {

using Names = std::vector<std::string>;

// Everything readdir_r hands out, and its first non-zero result in `last`.
Names readAll(VEL::VEL_DIR* dir, int* last) {
  Names names;
  struct dirent entry;
  struct dirent* result = nullptr;
  while ((*last = VEL::readdir_r(dir, &entry, &result, "UTF-8")) == 0 && result != nullptr) {
    names.push_back(result->d_name);
  }
  EXPECT_EQ(nullptr, result);
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

using QueryTest = veltest::BackendTest</*kLocalOnly=*/false>;

TEST_F(QueryTest, RemoteStatAndVerdicts) {
  client_.nodes["f"] = {0, true, true, 0644, 4096};
  client_.nodes["d"] = {0, true, false, 0755};
  client_.nodes["down"] = {-18};
  client_.nodes["nowrap"] = {0, /*giveWrap=*/false};
  client_.nodes["svcerr"] = {0, true, true, 0644, 0, 0, /*errNo=*/-5};

  struct stat st;
  std::memset(&st, 0, sizeof(st));
  st.st_nlink = 7;
  ASSERT_EQ(0, VEL::stat(" /f ", &st, "ignored"));
  EXPECT_EQ("stat(f)", client_.calls.back());  // cleaned
  EXPECT_EQ(4096, st.st_size);
  EXPECT_EQ(7u, st.st_nlink);  // other fields untouched
  EXPECT_EQ(-4, VEL::stat("f", nullptr));

  EXPECT_EQ(1, VEL::exists("f"));
  EXPECT_EQ(0, VEL::exists("none"));
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] exists: Not exist, failed to get File Info from VEL server. none, 0"));
  EXPECT_EQ(0, VEL::exists("down"));
  EXPECT_EQ(0, VEL::exists("nowrap"));
  EXPECT_EQ(0, VEL::isFile("d"));
  EXPECT_EQ(1, VEL::isDirectory("d"));
  EXPECT_EQ(0, VEL::isFile("svcerr"));
  EXPECT_EQ(-1, VEL::getmod("none"));
}

TEST_F(QueryTest, RemoteAccessMasksAreDecimal) {
  // The request bits are tested against 400, 200 and 100 taken as decimal
  // numbers: mode 0004 & 400 == 0 is refused, mode 0020 & 400 is granted.
  struct Case {
    uint32_t mode;
    int request;
    int32_t expected;
  };
  const Case cases[] = {
      {0004, 4, -1}, {0020, 4, 0},  {0400, 4, 0}, {0002, 2, -1}, {0200, 2, 0},  {0010, 2, 0},
      {0100, 1, 0},  {0001, 1, -1}, {0000, 0, 0}, {0777, 6, -1}, {0777, 7, -1}, {0144, 1, 0},
  };
  for (const Case& c : cases) {
    client_.nodes["n"] = {0, true, true, c.mode};
    EXPECT_EQ(c.expected, VEL::access("n", c.request)) << std::oct << c.mode << " " << c.request;
  }
  EXPECT_EQ(-4, VEL::access("/", 0));
  EXPECT_TRUE(log_.contains("ERROR [VEL] access: Internal Error: empty path."));
}

TEST_F(QueryTest, LocalModeAnswersFromTheMirror) {
  client_.localOnly = true;
  veltest::makeDirs(root_.sub("dir/sub"));
  veltest::writeFile(root_.sub("dir/a"), "12345");
  veltest::writeFile(root_.sub("dir/b"), "b");
  ::chmod(root_.sub("dir/a").c_str(), 0644);
  EXPECT_EQ(1, VEL::exists("", "UTF-8"));  // the root itself
  EXPECT_EQ(1, VEL::isDirectory("dir", "UTF-8"));
  EXPECT_EQ(0100644, VEL::getmod("dir/a", "UTF-8"));  // the whole mode

  VEL::VEL_DIR* dir = VEL::opendir("/dir/", "UTF-8");
  ASSERT_NE(nullptr, dir);
  int last = -7;
  Names names = readAll(dir, &last);
  EXPECT_EQ(0, last);  // the local reader ends like readdir_r: 0, null result
  std::sort(names.begin(), names.end());
  EXPECT_EQ((Names{".", "..", "a", "b", "sub"}), names);
  VEL::closedir(dir);

  std::list<std::string> entries = {"kept"};
  EXPECT_EQ(1, VEL::readDir("dir", entries, false, false, "UTF-8"));
  names.assign(entries.begin(), entries.end());
  std::sort(names.begin(), names.end());
  EXPECT_EQ((Names{"a", "b", "kept", "sub"}), names);  // appended, bare names
  EXPECT_TRUE(client_.calls.empty());                  // the service is never asked
}

TEST_F(QueryTest, ListingRemoteOpendirCutsTheFirstEntryScandirAndReadDirDoNot) {
  client_.listings["p/q"] = {"p/q", "a", "sub/"};
  VEL::VEL_DIR* dir = VEL::opendir("p/q", "UTF-8");
  ASSERT_NE(nullptr, dir);
  EXPECT_EQ("listDir(p/q,1,0)", client_.calls.back());
  int last = 0;
  EXPECT_EQ((Names{"q", "a", "sub/"}), readAll(dir, &last));
  EXPECT_EQ(-1, last);
  VEL::closedir(dir);

  client_.results["listDir"] = -18;
  EXPECT_EQ(nullptr, VEL::opendir("x/y", "UTF-8"));
  EXPECT_FALSE(veltest::pathExists(root_.sub("x")));
  client_.results.clear();

  // scandir and readDir keep every name whole.
  client_.listings["s"] = {"s", "d", "b", "a"};
  struct dirent** list = nullptr;
  int count = VEL::scandir("s", &list, skipB, byName, "UTF-8");
  EXPECT_EQ((Names{"a", "d", "s"}), takeNamelist(list, count));  // no name is shortened
  EXPECT_EQ(0, VEL::scandir("empty", &list, nullptr, nullptr, "UTF-8"));
  EXPECT_EQ(nullptr, list);

  client_.listings["/top//d"] = {"top/d", "top/d/a", "x/../top/d/b/", "c", "top/dx"};
  std::list<std::string> entries;
  EXPECT_EQ(1, VEL::readDir("/top//d", entries, true, true, "UTF-8"));
  EXPECT_EQ("listDir(/top//d,-1,1)", client_.calls.back());
  EXPECT_EQ((std::list<std::string>{"top/d", "a", "b", "c", "top/dx"}), entries);
  client_.results["listDir"] = -18;
  EXPECT_EQ(-1, VEL::scandir("s", &list, nullptr, nullptr, "UTF-8"));
}

}  // namespace
