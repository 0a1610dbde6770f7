// The public file API in remote mode, end to end against the reference
// agent: explicit synchronisation both ways, status queries answered by the
// service, listings served from memory, and the namespace mutations, with
// the agent missing or refusing where it matters. No local file may be lost.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <list>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "vel/codeset.h"
#include "vel/hooks.h"
#include "vel/listing.h"
#include "vel/mutations.h"
#include "vel/paths.h"
#include "vel/query.h"

namespace {

using veltest::makeDirs;
using veltest::pathExists;
using veltest::permissionsOf;
using veltest::readFile;
using veltest::writeFile;

class RemoteApiTest : public RemoteFixture {};

TEST_F(RemoteApiTest, SyncFromServerBringsTheNodeAndKeepsLocalOnlyCopies) {
  storeDir("a", 0751);
  storeDir("a/b", 0705);
  storeFile("a/b/f", "from service", 0640);
  EXPECT_EQ(VEL::syncFromServer("a/b/f", false), 0);
  EXPECT_EQ(permissionsOf(mirror("a")), 0751);
  EXPECT_EQ(permissionsOf(mirror("a/b")), 0705);
  EXPECT_EQ(readFile(mirror("a/b/f")), "from service");

  // A path the service does not have: its parent is synchronised, the local
  // copy keeps its name and every byte.
  writeFile(mirror("a/b/mine"), "local work");
  writeFile(mirror("lonely.txt"), "top level work");
  EXPECT_EQ(VEL::syncFromServer("a/b/mine", false), 0);
  EXPECT_EQ(VEL::syncFromServer("lonely.txt", true), 0);
  EXPECT_EQ(readFile(mirror("a/b/mine")), "local work");
  EXPECT_EQ(readFile(mirror("lonely.txt")), "top level work");
  EXPECT_TRUE(keptCopies("a/b", "mine").empty());
  EXPECT_TRUE(keptCopies("", "lonely.txt").empty());

  // With the tree flag the whole tree below comes along.
  storeFile("t/x", "X", 0640);
  storeFile("t/s/y", "Y", 0640);
  EXPECT_EQ(VEL::syncFromServer("t", true), 0);
  EXPECT_EQ(readFile(mirror("t/s/y")), "Y");
}

TEST_F(RemoteApiTest, SyncToServerCreatesDirectoriesBeforeTheirChildren) {
  makeDirs(mirror("up/s"), 0750);
  writeFile(mirror("up/a"), "A");
  writeFile(mirror("up/s/b"), "B");
  testing::internal::CaptureStdout();
  EXPECT_EQ(VEL::syncToServer("up", true), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(readFile(store("up/s/b")), "B");
  std::vector<std::string> j = requests();
  size_t up = indexOf(j, "tarn.createinfo TestService up dir");
  size_t sub = indexOf(j, "tarn.createinfo TestService up/s dir");
  EXPECT_LT(up, indexOf(j, "tarn.uploadlocal TestService up/a"));
  EXPECT_LT(sub, indexOf(j, "tarn.uploadlocal TestService up/s/b"));
  EXPECT_LT(indexOf(j, "tarn.uploadlocal TestService up/s/b"), j.size());

  // The last entry's result is the answer: an earlier failure is forgotten,
  // a failure of the last one is reported.
  setRules(
      R"([{"match": ["tarn.uploadlocal", "TestService", "up/a"], "reply": ["status", "NO"]}])");
  testing::internal::CaptureStdout();
  EXPECT_EQ(VEL::syncToServer("up", true), 0);
  setRules(
      R"([{"match": ["tarn.uploadlocal", "TestService", "up/s/b"], "reply": ["status", "NO"]}])");
  EXPECT_EQ(VEL::syncToServer("up", true), -6);
  EXPECT_EQ(VEL::syncToServer("missing", true), -11);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(readFile(mirror("up/s/b")), "B");
}

TEST_F(RemoteApiTest, QueriesAreAnsweredByTheService) {
  storeDir("q", 0751);
  storeFile("q/f", "12345", 0644);
  storeFile("q/o", "", 0004);
  storeFile("q/g", "", 0020);
  struct stat st;
  ASSERT_EQ(VEL::stat("q/f", &st), 0);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(st.st_mode, 0100644u);
  EXPECT_EQ(VEL::stat("q/none", &st), -1);
  EXPECT_EQ(VEL::stat(nullptr, &st), -4);
  EXPECT_EQ(VEL::isFile("q/f"), 1);
  EXPECT_EQ(VEL::isDirectory("q/f"), 0);
  EXPECT_EQ(VEL::isDirectory("q"), 1);
  EXPECT_EQ(VEL::isFile("q/none"), 0);
  EXPECT_EQ(VEL::exists("q/f"), 1);
  EXPECT_EQ(VEL::exists("q/none"), 0);
  EXPECT_EQ(VEL::getmod("q/f"), 0644);
  EXPECT_EQ(VEL::getmod("q"), 0751);
  EXPECT_EQ(VEL::getmod("q/none"), -1);
  // The masks are the decimal numbers 400, 200 and 100.
  EXPECT_EQ(VEL::access("q/o", 4), -1);
  EXPECT_EQ(VEL::access("q/g", 4), 0);
  EXPECT_EQ(VEL::access("q/f", 0), 0);
  EXPECT_EQ(VEL::access("q/f", 6), -1);
  EXPECT_EQ(VEL::access("/", 0), -4);
  // Nothing was downloaded to answer them.
  EXPECT_FALSE(pathExists(mirror("q")));
  EXPECT_EQ(countOf("tarn.downloadlocal"), 0u);
}

TEST_F(RemoteApiTest, ListingsComeFromTheService) {
  storeFile("L/a", "1", 0640);
  storeDir("L/b", 0750);
  storeFile("L/b/c", "2", 0640);
  storeDir("E", 0750);
  testing::internal::CaptureStdout();

  VEL::VEL_DIR* dir = VEL::opendir("L");
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(permissionsOf(mirror("L")), 0750);
  std::vector<std::string> seen;
  struct dirent entry;
  struct dirent* result = nullptr;
  int rc = 0;
  while ((rc = VEL::readdir_r(dir, &entry, &result)) == 0) {
    ASSERT_NE(result, nullptr);
    seen.push_back(result->d_name);
  }
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(result, nullptr);
  VEL::closedir(dir);
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));

  struct dirent** list = nullptr;
  ASSERT_EQ(VEL::scandir("L", &list, nullptr, nullptr), 2);
  EXPECT_STREQ(list[0]->d_name, "L/a");
  EXPECT_STREQ(list[1]->d_name, "b");
  std::free(list[0]);
  std::free(list[1]);
  std::free(list);

  std::list<std::string> names;
  EXPECT_EQ(VEL::readDir("L", names, false, false), 1);
  EXPECT_EQ(names, (std::list<std::string>{"a", "b"}));

  // An empty directory: a valid handle that ends at once; no scandir list.
  dir = VEL::opendir("E");
  ASSERT_NE(dir, nullptr);
  EXPECT_EQ(VEL::readdir_r(dir, &entry, &result), -1);
  VEL::closedir(dir);
  EXPECT_EQ(VEL::scandir("E", &list, nullptr, nullptr), 0);
  EXPECT_EQ(list, nullptr);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("====>L/a === 2 === L\n"), std::string::npos);
  EXPECT_FALSE(pathExists(mirror("L/a")));
}

TEST_F(RemoteApiTest, MutationsGoToTheServiceFirst) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(VEL::mkdir("newd", 0750), 0);
  EXPECT_TRUE(pathExists(store("newd")));
  EXPECT_EQ(permissionsOf(mirror("newd")), 0750);
  EXPECT_EQ(VEL::mkdir("newd", 0750), -1);
  EXPECT_EQ(VEL::mkdir_all("newd/x/y", 0700), 0);
  EXPECT_EQ(permissionsOf(mirror("newd/x/y")), 0700);

  // A refused removal keeps the mirror directory and reports success.
  storeFile("rd/x", "inside", 0640);
  makeDirs(mirror("rd"), 0750);
  EXPECT_EQ(VEL::rmdir("rd"), 0);
  EXPECT_TRUE(pathExists(mirror("rd")));
  EXPECT_TRUE(pathExists(store("rd/x")));

  // File rename: the service, then the mirror.
  storeFile("f1", "content", 0640);
  writeFile(mirror("f1"), "content");
  EXPECT_EQ(VEL::rename("f1", "f2"), 0);
  EXPECT_EQ(readFile(store("f2")), "content");
  EXPECT_EQ(readFile(mirror("f2")), "content");
  EXPECT_FALSE(pathExists(mirror("f1")));

  // Directory rename through the mirror.
  storeFile("D1/x", "dx", 0640);
  clearRequests();
  EXPECT_EQ(VEL::rename("D1", "D2"), 0);
  EXPECT_EQ(readFile(store("D2/x")), "dx");
  EXPECT_FALSE(pathExists(store("D1")));
  EXPECT_EQ(readFile(mirror("D2/x")), "dx");
  std::vector<std::string> j = requests();
  EXPECT_LT(indexOf(j, "tarn.downloadlocal TestService D1/x"),
            indexOf(j, "tarn.uploadlocal TestService D2/x"));
  EXPECT_LT(indexOf(j, "tarn.uploadlocal TestService D2/x"),
            indexOf(j, "tarn.remove TestService D1 true"));
  EXPECT_LT(indexOf(j, "tarn.remove TestService D1 true"), j.size());

  // Permission change of a node only on the service.
  storeFile("svc_only", "s", 0600);
  EXPECT_EQ(VEL::chmod("svc_only", 0640), -11);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("chmod remote success, svc_only -> mod:416.\n"), std::string::npos) << out;
  EXPECT_EQ(permissionsOf(store("svc_only")), 0640);

  // unlink of a mirror-only file (the service removal is idempotent).
  writeFile(mirror("local_only"), "bye");
  EXPECT_EQ(VEL::unlink("local_only"), 0);
  EXPECT_FALSE(pathExists(mirror("local_only")));
}

TEST_F(RemoteApiTest, WithoutAgentNothingLocalIsLost) {
  writeFile(mirror("keep.txt"), "precious");
  makeDirs(mirror("kd"), 0750);
  writeFile(mirror("kd/inner"), "inner");
  stopAgent();
  struct stat st;
  EXPECT_EQ(VEL::stat("keep.txt", &st), -1);
  EXPECT_EQ(VEL::exists("keep.txt"), 0);
  EXPECT_EQ(VEL::syncFromServer("keep.txt", false), -18);
  EXPECT_EQ(VEL::syncToServer("keep.txt", false), -18);
  EXPECT_EQ(VEL::mkdir("nd", 0750), -18);
  EXPECT_EQ(VEL::unlink("keep.txt"), -18);
  EXPECT_EQ(VEL::rmdir("kd"), 0);
  EXPECT_EQ(VEL::rename("keep.txt", "moved.txt"), -6);
  // The service cannot confirm a directory, so this is a file rename.
  EXPECT_EQ(VEL::rename("kd", "kd2"), -6);
  EXPECT_EQ(VEL::chmod("keep.txt", 0600), -6);
  std::list<std::string> names;
  EXPECT_EQ(VEL::readDir("kd", names, false, false), 1);
  EXPECT_TRUE(names.empty());
  // The listing of an unreachable service is empty, not an error.
  VEL::VEL_DIR* dir = VEL::opendir("kd");
  ASSERT_NE(dir, nullptr);
  struct dirent entry;
  struct dirent* result = nullptr;
  EXPECT_EQ(VEL::readdir_r(dir, &entry, &result), -1);
  VEL::closedir(dir);
  EXPECT_EQ(readFile(mirror("keep.txt")), "precious");
  EXPECT_EQ(readFile(mirror("kd/inner")), "inner");
  EXPECT_FALSE(pathExists(mirror("moved.txt")));
  EXPECT_FALSE(pathExists(mirror("kd2")));
  EXPECT_FALSE(pathExists(mirror("nd")));
}

TEST_F(RemoteApiTest, DroppedConnectionsMidOperationKeepLocalFiles) {
  storeFile("m/f", "service", 0640);
  makeDirs(mirror("m"), 0750);
  writeFile(mirror("m/f"), "local edit");
  setRules(R"([{"match": ["tarn.uploadlocal"], "reply": ["close", ""]},
               {"match": ["tarn.downloadlocal"], "reply": ["close", ""]},
               {"match": ["tarn.move"], "reply": ["close", ""]},
               {"match": ["tarn.remove"], "reply": ["close", ""]}])");
  EXPECT_EQ(VEL::syncFromServer("m/f", false), -6);
  EXPECT_EQ(VEL::syncToServer("m/f", false), -6);
  EXPECT_EQ(VEL::rename("m/f", "m/g"), -6);
  EXPECT_EQ(VEL::unlink("m/f"), -6);
  EXPECT_EQ(readFile(mirror("m/f")), "local edit");
  // A directory rename whose upload breaks off leaves the tree moved in the
  // mirror (with its local content) and the source in place on the service.
  EXPECT_EQ(VEL::rename("m", "m2"), -6);
  EXPECT_EQ(readFile(mirror("m2/f")), "local edit");
  EXPECT_FALSE(pathExists(mirror("m")));
  EXPECT_EQ(readFile(store("m/f")), "service");
}

}  // namespace
