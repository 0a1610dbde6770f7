// fopen/fclose and the explicit tree synchronisation end to end: the remote
// back-end talking to the reference file agent, checked through the agent's
// journal, its store and the mirror.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "support/hook_recorder.h"
#include "support/temp_dir.h"
#include "vel/hooks.h"

namespace {

using veltest::LogWatch;

// Requests in `list` equal to `prefix` or continuing it with a blank.
int countIn(const std::vector<std::string>& list, const std::string& prefix) {
  int count = 0;
  for (const std::string& request : list) {
    if (request.compare(0, prefix.size(), prefix) == 0 &&
        (request.size() == prefix.size() || request[prefix.size()] == ' ')) {
      ++count;
    }
  }
  return count;
}

using RemoteHooksTest = RemoteFixture;

TEST_F(RemoteHooksTest, WriteModeBringsOnlyTheDirectoryAndUploadsOnClose) {
  veltest::makeDirs(store("w1"), 0751);
  FILE* f = VEL::fopen("w1/b", "w");
  ASSERT_NE(f, nullptr);
  EXPECT_TRUE(veltest::pathExists(mirror("w1")));
  EXPECT_EQ(veltest::permissionsOf(mirror("w1")), 0751);
  auto before = requests();
  EXPECT_EQ(countIn(before, "tarn.downloadlocal"), 0);
  EXPECT_EQ(countIn(before, "tarn.metadata TestService w1/b"), 0);
  EXPECT_GE(countIn(before, "tarn.metadata TestService w1"), 1);
  EXPECT_EQ(countIn(before, "tarn.uploadlocal"), 0);

  std::fputs("written remotely", f);
  std::fflush(f);
  EXPECT_EQ(VEL::fclose(f), 0);
  auto after = requests();
  EXPECT_EQ(countIn(after, "tarn.uploadlocal TestService w1/b"), 1);
  EXPECT_EQ(countIn(after, "tarn.downloadlocal"), 0);
  EXPECT_EQ(veltest::readFile(store("w1/b")), "written remotely");
}

TEST_F(RemoteHooksTest, ReadModeDownloadsFirstAndOnlyTouchesTimesOnClose) {
  veltest::makeDirs(store("r1"));
  veltest::writeFile(store("r1/f"), "service copy");
  veltest::makeDirs(mirror("r1"));
  veltest::writeFile(mirror("r1/f"), "stale");
  FILE* f = VEL::fopen("r1/f", "r");
  ASSERT_NE(f, nullptr);
  char buf[64] = {0};
  std::fread(buf, 1, sizeof(buf) - 1, f);
  EXPECT_STREQ(buf, "service copy");
  EXPECT_EQ(countIn(requests(), "tarn.downloadlocal TestService r1/f"), 1);
  veltest::setTimes(mirror("r1/f"), 1000);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(countIn(requests(), "tarn.uploadlocal"), 0);
  EXPECT_GE(veltest::mtimeOf(mirror("r1/f")), std::time(nullptr) - 60);
}

TEST_F(RemoteHooksTest, ReadWriteModeDownloadsAndUploads) {
  veltest::makeDirs(store("rw"));
  veltest::writeFile(store("rw/f"), "0123");
  FILE* f = VEL::fopen("rw/f", "r+");
  ASSERT_NE(f, nullptr);
  std::fputs("xy", f);
  std::fflush(f);
  EXPECT_EQ(VEL::fclose(f), 0);
  auto seen = requests();
  size_t download = indexOf(seen, "tarn.downloadlocal TestService rw/f");
  size_t upload = indexOf(seen, "tarn.uploadlocal TestService rw/f");
  ASSERT_LT(download, seen.size());
  ASSERT_LT(upload, seen.size());
  EXPECT_LT(download, upload);
  EXPECT_EQ(veltest::readFile(store("rw/f")), "xy23");
}

TEST_F(RemoteHooksTest, AFileTheServiceLacksIsOpenedFromTheMirrorAndKept) {
  veltest::makeDirs(mirror("m1"));
  veltest::writeFile(mirror("m1/local"), "mine");
  FILE* f = VEL::fopen("m1/local", "r");
  ASSERT_NE(f, nullptr);
  char buf[16] = {0};
  std::fread(buf, 1, sizeof(buf) - 1, f);
  EXPECT_STREQ(buf, "mine");
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(countIn(requests(), "tarn.downloadlocal"), 0);
  EXPECT_EQ(countIn(requests(), "tarn.uploadlocal"), 0);
  EXPECT_EQ(veltest::readFile(mirror("m1/local")), "mine");
}

TEST_F(RemoteHooksTest, RefusedDownloadIsLoggedAndTheLocalCopyStillOpens) {
  setRules(
      R"([{"match": ["tarn.metadata", "TestService", "d1/f"], "reply": ["error", "DENIED"]}])");
  veltest::makeDirs(mirror("d1"));
  veltest::writeFile(mirror("d1/f"), "local");
  LogWatch log;
  FILE* f = VEL::fopen("d1/f", "r");
  ASSERT_NE(f, nullptr);
  EXPECT_TRUE(log.contains("[VEL] fopen(), failed to call beforeOpenStream: d1/f(r), errCode:-"));
  EXPECT_TRUE(log.contains("[VEL] beforeRead() Failed to sync file to local:d1/f, errCode:-"));
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(veltest::readFile(mirror("d1/f")), "local");
}

TEST_F(RemoteHooksTest, RootPathsAndForeignStreamsReachNoService) {
  LogWatch log;
  EXPECT_EQ(VEL::fopen("/", "r"), nullptr);
  EXPECT_EQ(VEL::fopen(".", "w"), nullptr);
  EXPECT_TRUE(log.contains("ERROR [VEL] fopen(), bad parameter: null vel path:/\n"));
  EXPECT_TRUE(log.contains("ERROR [VEL] fopen(), bad parameter: null vel path:.\n"));

  veltest::TempDir other;
  veltest::writeFile(other.sub("x"), "x");
  FILE* f = std::fopen(other.sub("x").c_str(), "r");
  ASSERT_NE(f, nullptr);
  int fd = fileno(f);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_TRUE(log.contains("ERROR [VEL] fclose(), failed to call getFileOpenMode()\n"));
  EXPECT_TRUE(requests().empty());
}

TEST_F(RemoteHooksTest, WithoutTheAgentTheMirrorFileIsStillWrittenAndKept) {
  veltest::makeDirs(mirror("na"));
  stopAgent();
  LogWatch log;
  FILE* f = VEL::fopen("na/f", "w");
  ASSERT_NE(f, nullptr);
  std::fputs("offline", f);
  std::fflush(f);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_TRUE(log.contains(
      "ERROR [VEL] fclose(), failed to call VEL::afterCloseFile: na/f(w), errCode:-18\n"));
  EXPECT_EQ(veltest::readFile(mirror("na/f")), "offline");
}

TEST_F(RemoteHooksTest, SyncFromServerKeepsALocalOnlyFileAndPullsTrees) {
  veltest::makeDirs(mirror("lo"));
  veltest::writeFile(mirror("lo/only"), "keep me");
  EXPECT_EQ(VEL::syncFromServer("lo/only", false), 0);
  EXPECT_EQ(veltest::readFile(mirror("lo/only")), "keep me");

  veltest::makeDirs(store("tr/sub"));
  veltest::writeFile(store("tr/a"), "A");
  veltest::writeFile(store("tr/sub/b"), "B");
  EXPECT_EQ(VEL::syncFromServer("tr", true), 0);
  EXPECT_EQ(veltest::readFile(mirror("tr/a")), "A");
  EXPECT_EQ(veltest::readFile(mirror("tr/sub/b")), "B");
}

TEST_F(RemoteHooksTest, SyncToServerCreatesDirectoriesBeforeTheirChildren) {
  veltest::makeDirs(mirror("up/sub"));
  veltest::writeFile(mirror("up/f"), "F");
  veltest::writeFile(mirror("up/sub/g"), "G");
  EXPECT_EQ(VEL::syncToServer("up", true), 0);
  auto seen = requests();
  size_t top = seen.size();
  size_t sub = seen.size();
  for (size_t i = 0; i < seen.size(); ++i) {
    if (seen[i].rfind("tarn.createinfo TestService up ", 0) == 0 && top == seen.size()) {
      top = i;
    }
    if (seen[i].rfind("tarn.createinfo TestService up/sub ", 0) == 0 && sub == seen.size()) {
      sub = i;
    }
  }
  size_t f = indexOf(seen, "tarn.uploadlocal TestService up/f");
  size_t g = indexOf(seen, "tarn.uploadlocal TestService up/sub/g");
  ASSERT_LT(top, seen.size());
  ASSERT_LT(sub, seen.size());
  ASSERT_LT(g, seen.size());
  EXPECT_LT(top, f);
  EXPECT_LT(top, sub);
  EXPECT_LT(sub, g);
  EXPECT_EQ(veltest::readFile(store("up/f")), "F");
  EXPECT_EQ(veltest::readFile(store("up/sub/g")), "G");

  EXPECT_EQ(VEL::syncToServer("up/missing", true), -11);
}

}  // namespace
