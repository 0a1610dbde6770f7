// The open/close hooks, fopen/fclose and the explicit tree synchronisation,
// driven against a recording back-end (which calls reach the service, with
// which paths, in which order) and against the local back-end.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "support/hook_recorder.h"
#include "support/temp_dir.h"
#include "vel/hooks.h"
#include "vel/instance.h"

namespace {

using veltest::LocalModeEnvironment;
using veltest::LogWatch;
using veltest::RecordingClient;
using veltest::RecordingScope;
using veltest::TempDir;
using Calls = std::vector<std::string>;

::testing::Environment* const g_localMode =
    ::testing::AddGlobalTestEnvironment(new LocalModeEnvironment);

class HooksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    veltest::makeDirs(root());
    scope_.reset(new RecordingScope(root()));
  }
  void TearDown() override { scope_.reset(); }

  std::string root() const { return dir_.sub("mirror"); }
  std::string mirror(const std::string& rel) const { return root() + "/" + rel; }
  RecordingClient& backend() { return scope_->client(); }
  // Writes a mirror file whose times lie far in the past.
  void oldFile(const std::string& rel, const std::string& content = "old") {
    veltest::makeDirs(mirror(rel).substr(0, mirror(rel).rfind('/')));
    veltest::writeFile(mirror(rel), content);
    veltest::setTimes(mirror(rel), 1000);
  }
  bool touchedNow(const std::string& rel) const {
    return veltest::mtimeOf(mirror(rel)) >= std::time(nullptr) - 60;
  }

  TempDir dir_;
  std::unique_ptr<RecordingScope> scope_;
};

// ---- which hook a mode selects ----

TEST_F(HooksTest, ModeStringsSelectDownloadOrParentAndUploadOrTimestamps) {
  struct Case {
    const char* mode;
    const char* beforeCall;  // the only back-end call of beforeOpenFile
    bool uploads;            // afterCloseFile uploads (else touches the times)
  };
  const Case cases[] = {
      {"r", "sync:a/b", false},  {"rb", "sync:a/b", false}, {"r+", "sync:a/b", true},
      {"rb+", "sync:a/b", true}, {"a", "sync:a/b", true},   {"ab", "sync:a/b", true},
      {"a+", "sync:a/b", true},  {"w", "sync:a", true},     {"wb", "sync:a", true},
      {"w+", "sync:a", true},    {"", "sync:a", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string("mode \"") + c.mode + "\"");
    oldFile("a/b");
    backend().calls.clear();
    EXPECT_EQ(VEL::beforeOpenFile("a/b", c.mode), 0);
    EXPECT_EQ(backend().calls, Calls{c.beforeCall});
    backend().calls.clear();
    EXPECT_EQ(VEL::afterCloseFile("a/b", c.mode), 0);
    EXPECT_EQ(backend().calls, c.uploads ? Calls{"put:a/b"} : Calls{});
    EXPECT_EQ(touchedNow("a/b"), !c.uploads);
  }
  // A null mode syncs the parent and records a read on close.
  oldFile("a/b");
  backend().calls.clear();
  EXPECT_EQ(VEL::beforeOpenFile("a/b", nullptr), 0);
  EXPECT_EQ(VEL::afterCloseFile("a/b", nullptr), 0);
  EXPECT_EQ(backend().calls, Calls{"sync:a"});
  EXPECT_TRUE(touchedNow("a/b"));
}

TEST_F(HooksTest, StreamBitsSelectDownloadOrParentAndUploadOrTimestamps) {
  // app 1, ate 2, binary 4, in 8, out 16, trunc 32
  struct Case {
    int32_t mode;
    const char* beforeCall;
    bool uploads;
  };
  const Case cases[] = {
      {8, "sync:a/b", false},   // in
      {12, "sync:a/b", false},  // in|binary
      {10, "sync:a/b", false},  // in|ate
      {1, "sync:a/b", true},    // app
      {17, "sync:a/b", true},   // out|app
      {24, "sync:a/b", true},   // in|out: downloaded and uploaded
      {40, "sync:a", false},    // in|trunc
      {16, "sync:a", true},     // out
      {48, "sync:a", true},     // out|trunc
      {33, "sync:a", true},     // app|trunc
      {0, "sync:a", false},    {4, "sync:a", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE("mode " + std::to_string(c.mode));
    oldFile("a/b");
    backend().calls.clear();
    EXPECT_EQ(VEL::beforeOpenStream("a/b", c.mode), 0);
    EXPECT_EQ(backend().calls, Calls{c.beforeCall});
    backend().calls.clear();
    EXPECT_EQ(VEL::afterCloseStream("a/b", c.mode), 0);
    EXPECT_EQ(backend().calls, c.uploads ? Calls{"put:a/b"} : Calls{});
    EXPECT_EQ(touchedNow("a/b"), !c.uploads);
  }
}

TEST_F(HooksTest, ParentOfATopLevelNameIsTheRoot) {
  EXPECT_EQ(VEL::beforeOpenFile("top", "w"), 0);
  EXPECT_EQ(VEL::beforeOpenStream("top", 16), 0);
  EXPECT_EQ(backend().calls, (Calls{"sync:", "sync:"}));
}

// ---- results and messages of the four basic hooks ----

TEST_F(HooksTest, DownloadFailuresAreReportedOnlyForReads) {
  backend().syncResults["a/b"] = -18;
  backend().syncResults["a"] = -18;
  LogWatch log;
  EXPECT_EQ(VEL::beforeOpenFile("a/b", "r"), -18);
  EXPECT_EQ(VEL::beforeOpenStream("a/b", 8), -18);
  EXPECT_EQ(VEL::beforeOpenFile("a/b", "w"), 0);  // the parent's result is ignored
  EXPECT_EQ(VEL::beforeOpenStream("a/b", 48), 0);
  EXPECT_EQ(VEL::beforeWrite("a/b"), -18);  // pulls the node itself, not the parent
  EXPECT_EQ(backend().calls, (Calls{"sync:a/b", "sync:a/b", "sync:a", "sync:a", "sync:a/b"}));
  std::string text = log.text();
  EXPECT_NE(text.find("DEBUG [VEL] beforeRead() Before read file:a/b\n"), std::string::npos);
  EXPECT_NE(text.find("ERROR [VEL] beforeRead() Failed to sync file to local:a/b, errCode:-18\n"),
            std::string::npos);
  EXPECT_NE(text.find("DEBUG [VEL] beforeWrite() Before write file:a/b\n"), std::string::npos);
  EXPECT_NE(text.find("ERROR [VEL] beforeWrite() Failed to sync file to local:a/b, errCode:-18\n"),
            std::string::npos);
}

TEST_F(HooksTest, UploadFailureKeepsItsHistoricMessage) {
  backend().putDefault = -6;
  LogWatch log;
  EXPECT_EQ(VEL::afterWrite("a/b"), -6);
  EXPECT_EQ(VEL::afterCloseFile("a/b", "w"), -6);
  EXPECT_EQ(VEL::afterCloseStream("a/b", 16), -6);
  EXPECT_EQ(backend().calls, (Calls{"put:a/b", "put:a/b", "put:a/b"}));
  EXPECT_TRUE(log.contains("DEBUG [VEL] afterWrite() After write file:a/b\n"));
  EXPECT_TRUE(
      log.contains("ERROR [VEL] beforeRead() Failed to sync file to server:a/b, errCode:-6\n"));
}

TEST_F(HooksTest, NullPathsAreRefusedWithMinusFour) {
  LogWatch log;
  EXPECT_EQ(VEL::beforeRead(nullptr), -4);
  EXPECT_EQ(VEL::beforeWrite(nullptr), -4);
  EXPECT_EQ(VEL::afterRead(nullptr), -4);
  EXPECT_EQ(VEL::afterWrite(nullptr), -4);
  EXPECT_EQ(VEL::beforeOpenFile(nullptr, "r"), -4);
  EXPECT_EQ(VEL::beforeOpenFile(nullptr, "w"), -4);
  EXPECT_EQ(VEL::beforeOpenStream(nullptr, 16), -4);
  EXPECT_EQ(VEL::afterCloseStream(nullptr, 8), -4);
  EXPECT_TRUE(backend().calls.empty());
  for (const char* name : {"beforeRead", "beforeWrite", "afterRead", "afterWrite"}) {
    EXPECT_TRUE(log.contains(std::string("ERROR [VEL] ") + name + "(): null input\n")) << name;
  }
}

TEST_F(HooksTest, AfterReadSetsBothTimesToNowOrFails) {
  oldFile("a/b");
  LogWatch log;
  EXPECT_EQ(VEL::afterRead("a/b"), 0);
  struct stat st;
  ASSERT_EQ(::stat(mirror("a/b").c_str(), &st), 0);
  EXPECT_GE(st.st_mtime, std::time(nullptr) - 60);
  EXPECT_GE(st.st_atime, std::time(nullptr) - 60);
  EXPECT_TRUE(log.contains("DEBUG [VEL] afterRead() After read file:a/b\n"));

  EXPECT_EQ(VEL::afterRead("a/missing"), -1);
  EXPECT_TRUE(log.contains(
      "ERROR [VEL] afterRead() Failed to update timestamp:" + mirror("a/missing") + ", rtn:-1\n"));
  EXPECT_EQ(VEL::afterCloseFile("a/missing", "r"), -1);
  EXPECT_TRUE(backend().calls.empty());
}

// ---- fopen / fclose ----

TEST_F(HooksTest, WriteOpenSyncsOnlyTheParentAndCloseUploads) {
  veltest::makeDirs(mirror("a"));
  LogWatch log;
  FILE* f = VEL::fopen(" a\\b ", "w");  // cleaned to a/b
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(backend().calls, Calls{"sync:a"});
  EXPECT_TRUE(log.contains("[VEL] fopen(), putFileOpenMode: path: a/b, mode: w\n"));
  ASSERT_GE(std::fputs("written", f), 0);
  std::fflush(f);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(backend().calls, (Calls{"sync:a", "put:a/b"}));
  EXPECT_TRUE(log.contains("[VEL] fclose(), getFileOpenMode: path: a/b, mode: w\n"));
  EXPECT_EQ(veltest::readFile(mirror("a/b")), "written");
}

TEST_F(HooksTest, ReadOpenFallsBackToTheLocalCopyAndCloseOnlyTouchesTimes) {
  oldFile("a/b", "local bytes");
  backend().syncResults["a/b"] = -19;
  LogWatch log;
  FILE* f = VEL::fopen("a/b", "r");
  ASSERT_NE(f, nullptr);
  char buf[32] = {0};
  EXPECT_EQ(std::fread(buf, 1, sizeof(buf) - 1, f), 11u);
  EXPECT_STREQ(buf, "local bytes");
  EXPECT_TRUE(
      log.contains("ERROR [VEL] fopen(), failed to call beforeOpenStream: a/b(r), errCode:-19\n"));
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(backend().calls, Calls{"sync:a/b"});
  EXPECT_TRUE(touchedNow("a/b"));

  // Without a local copy the open fails as the system's would.
  errno = 0;
  EXPECT_EQ(VEL::fopen("a/none", "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(HooksTest, ReadWriteOpenDownloadsAndUploads) {
  oldFile("a/b", "0123");
  FILE* f = VEL::fopen("a/b", "r+");
  ASSERT_NE(f, nullptr);
  std::fputs("xy", f);
  std::fflush(f);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(backend().calls, (Calls{"sync:a/b", "put:a/b"}));
  EXPECT_EQ(veltest::readFile(mirror("a/b")), "xy23");
}

TEST_F(HooksTest, FopenRefusesNullArgumentsAndTheRoot) {
  LogWatch log;
  EXPECT_EQ(VEL::fopen(nullptr, "r"), nullptr);
  EXPECT_TRUE(log.contains("ERROR [VEL] fopen(), bad parameter: 0 "));
  EXPECT_EQ(VEL::fopen("a/b", nullptr), nullptr);
  for (const char* path : {"/", ".", "", " / . /"}) {
    EXPECT_EQ(VEL::fopen(path, "r"), nullptr) << path;
    EXPECT_TRUE(log.contains(std::string("ERROR [VEL] fopen(), bad parameter: null vel path:") +
                             path + "\n"))
        << path;
  }
  EXPECT_TRUE(backend().calls.empty());
}

TEST_F(HooksTest, FcloseOfAForeignStreamLogsAndStillCloses) {
  veltest::writeFile(dir_.sub("foreign"), "x");
  FILE* f = std::fopen(dir_.sub("foreign").c_str(), "r");
  ASSERT_NE(f, nullptr);
  int fd = fileno(f);
  LogWatch log;
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_TRUE(log.contains("ERROR [VEL] fclose(), failed to call getFileOpenMode()\n"));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);  // the descriptor is gone
  EXPECT_TRUE(backend().calls.empty());
}

TEST_F(HooksTest, FcloseLogsAFailedUploadAndReturnsTheCloseResult) {
  veltest::makeDirs(mirror("a"));
  backend().putDefault = -6;
  FILE* f = VEL::fopen("a/b", "wb");
  ASSERT_NE(f, nullptr);
  LogWatch log;
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_TRUE(log.contains(
      "ERROR [VEL] fclose(), failed to call VEL::afterCloseFile: a/b(wb), errCode:-6\n"));
  EXPECT_TRUE(veltest::pathExists(mirror("a/b")));
}

TEST_F(HooksTest, LocalOnlyBackEndRecordsNoStreams) {
  backend().localOnly = 1;
  veltest::makeDirs(mirror("a"));
  FILE* f = VEL::fopen("a/b", "w");
  ASSERT_NE(f, nullptr);
  LogWatch log;
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_TRUE(log.contains("[VEL] fclose(), failed to call getFileOpenMode()"));
  EXPECT_EQ(backend().calls, Calls{"sync:a"});  // no upload
}

// ---- syncFromServer ----

TEST_F(HooksTest, SyncFromServerPullsTheNodeAndOptionallyTheTree) {
  EXPECT_EQ(VEL::syncFromServer(" a//b/ ", false), 0);
  EXPECT_EQ(VEL::syncFromServer("a/b", true), 0);
  EXPECT_EQ(backend().calls, (Calls{"sync:a/b", "sync:a/b", "tree:a/b"}));

  backend().treeResult = -6;
  EXPECT_EQ(VEL::syncFromServer("a", true), -6);
  backend().syncDefault = -18;
  backend().calls.clear();
  EXPECT_EQ(VEL::syncFromServer("a", true), -18);  // no tree walk after a failure
  EXPECT_EQ(backend().calls, Calls{"sync:a"});
}

TEST_F(HooksTest, SyncFromServerMovesALocalOnlyNodeAside) {
  oldFile("a/f", "precious");
  backend().syncResults["a/f"] = -11;
  EXPECT_EQ(VEL::syncFromServer("a/f", true), 0);
  EXPECT_FALSE(veltest::pathExists(mirror("a/f")));
  std::vector<std::string> kept;
  DIR* d = ::opendir(mirror("a").c_str());
  ASSERT_NE(d, nullptr);
  while (struct dirent* e = ::readdir(d)) {
    std::string name = e->d_name;
    if (name.rfind("f.vel.keep.", 0) == 0) kept.push_back(name);
  }
  ::closedir(d);
  ASSERT_EQ(kept.size(), 1u);
  const std::string digits = kept[0].substr(std::string("f.vel.keep.").size());
  EXPECT_GE(digits.size(), 8u);  // "%08u" of a random value
  EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << kept[0];
  EXPECT_EQ(veltest::readFile(mirror("a/" + kept[0])), "precious");
  EXPECT_EQ(backend().calls, Calls{"sync:a/f"});  // no tree walk

  // The root itself is never moved; other codes pass through untouched.
  backend().syncResults[""] = -11;
  EXPECT_EQ(VEL::syncFromServer("/", false), 0);
  EXPECT_TRUE(veltest::pathExists(root()));
  oldFile("a/g", "kept");
  backend().syncResults["a/g"] = -18;
  EXPECT_EQ(VEL::syncFromServer("a/g", false), -18);
  EXPECT_EQ(veltest::readFile(mirror("a/g")), "kept");
}

// ---- syncToServer ----

TEST_F(HooksTest, SyncToServerSendsATreeBreadthFirst) {
  veltest::makeDirs(mirror("d/sub/deep"));
  veltest::writeFile(mirror("d/f1"), "1");
  veltest::writeFile(mirror("d/sub/f2"), "2");
  veltest::writeFile(mirror("d/sub/deep/f3"), "3");
  ::chmod(mirror("d").c_str(), 0705);
  ::chmod(mirror("d/sub").c_str(), 0750);
  ::chmod(mirror("d/sub/deep").c_str(), 0700);
  LogWatch log;
  EXPECT_EQ(VEL::syncToServer("d", true), 0);
  const Calls& calls = backend().calls;
  ASSERT_EQ(calls.size(), 6u);
  EXPECT_EQ(calls[0], "newDir:d:705:1");
  // Level 1 in listing order, then level 2, then level 3.
  Calls level1(calls.begin() + 1, calls.begin() + 3);
  std::sort(level1.begin(), level1.end());
  EXPECT_EQ(level1, (Calls{"newDir:d/sub:750:1", "put:d/f1"}));
  Calls level2(calls.begin() + 3, calls.begin() + 5);
  std::sort(level2.begin(), level2.end());
  EXPECT_EQ(level2, (Calls{"newDir:d/sub/deep:700:1", "put:d/sub/f2"}));
  EXPECT_EQ(calls[5], "put:d/sub/deep/f3");
  EXPECT_TRUE(log.contains("DEBUG [VEL] syncToServer() d " + mirror("d") + "\n"));
  EXPECT_TRUE(
      log.contains("ERROR [SHOWINFO] pair.first is d/f1, pair.second is " + mirror("d/f1") + "\n"));

  backend().calls.clear();
  EXPECT_EQ(VEL::syncToServer("d", false), 0);
  EXPECT_EQ(backend().calls, Calls{"newDir:d:705:1"});
}

TEST_F(HooksTest, SyncToServerFromTheRootUsesBareNames) {
  veltest::writeFile(mirror("top.txt"), "t");
  EXPECT_EQ(VEL::syncToServer("", true), 0);
  ASSERT_EQ(backend().calls.size(), 2u);
  EXPECT_EQ(backend().calls[0].rfind("newDir::", 0), 0u);
  EXPECT_EQ(backend().calls[1], "put:top.txt");
}

TEST_F(HooksTest, SyncToServerReportsTheLastEntrysResult) {
  LogWatch log;
  EXPECT_EQ(VEL::syncToServer("missing", true), -11);
  EXPECT_TRUE(log.contains("ERROR [VEL] syncToServer() Failed to sync missing, File not exist:" +
                           mirror("missing") + "\n"));
  EXPECT_TRUE(backend().calls.empty());

  // A failing first file, then a succeeding last entry: 0.
  veltest::makeDirs(mirror("t/s"));
  veltest::writeFile(mirror("t/a"), "a");
  veltest::writeFile(mirror("t/s/b"), "b");
  backend().putResults["t/a"] = -6;
  EXPECT_EQ(VEL::syncToServer("t", true), 0);
  EXPECT_TRUE(log.contains("ERROR [VEL] syncToServer() Failed to sync File t/a, errCode=-6\n"));
  // The last entry failing decides the result.
  backend().putResults["t/s/b"] = -7;
  EXPECT_EQ(VEL::syncToServer("t", true), -7);
  // A single file returns the upload's code.
  EXPECT_EQ(VEL::syncToServer("t/a", true), -6);

  // A directory that already exists on the service counts as created.
  backend().putResults.clear();
  backend().newDirResult = -12;
  EXPECT_EQ(VEL::syncToServer("t/s", false), 0);
  backend().newDirResult = -6;
  EXPECT_EQ(VEL::syncToServer("t/s", false), -6);
  EXPECT_TRUE(log.contains("ERROR [VEL] syncToServer() Failed to sync Dir t/s, errCode=-6\n"));
}

TEST_F(HooksTest, LocalOnlyBackEndSkipsExplicitSync) {
  backend().localOnly = 1;
  veltest::writeFile(mirror("x"), "x");
  EXPECT_EQ(VEL::syncFromServer("x", true), 0);
  EXPECT_EQ(VEL::syncToServer("x", true), 0);
  EXPECT_TRUE(backend().calls.empty());
  EXPECT_TRUE(veltest::pathExists(mirror("x")));
}

// ---- the real local back-end ----

TEST(HooksLocalMode, FopenAndFcloseWorkOnTheMirrorAlone) {
  const std::string root = LocalModeEnvironment::mirror();
  veltest::makeDirs(root + "/loc");
  FILE* f = VEL::fopen("loc/w.txt", "w");
  ASSERT_NE(f, nullptr);
  std::fputs("local", f);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(veltest::readFile(root + "/loc/w.txt"), "local");

  veltest::setTimes(root + "/loc/w.txt", 1000);
  f = VEL::fopen("loc/w.txt", "r");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(VEL::afterCloseFile("loc/w.txt", "r"), 0);
  EXPECT_GE(veltest::mtimeOf(root + "/loc/w.txt"), std::time(nullptr) - 60);
  EXPECT_EQ(VEL::syncFromServer("loc/w.txt", true), 0);
  EXPECT_EQ(VEL::syncToServer("loc", true), 0);
  EXPECT_EQ(veltest::readFile(root + "/loc/w.txt"), "local");
}

}  // namespace
