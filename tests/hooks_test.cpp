// The open/close hooks, fopen/fclose, the explicit tree synchronisation and
// the file streams, driven against a recording back-end: which calls reach
// the service, with which paths, in which order.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <ios>
#include <string>
#include <vector>

#include "api/local_perm_internal.h"
#include "support/fake_client.h"
#include "vel/fstream.h"
#include "vel/hooks.h"

namespace {

using Calls = std::vector<std::string>;

std::string sync(const std::string& path) { return "syncNodeFromRemote(" + path + ")"; }
std::string put(const std::string& path) { return "putFileToRemote(" + path + ")"; }
std::string newDir(const std::string& path, int mode) {
  return "newDir(" + path + "," + std::to_string(mode) + ",1)";
}

class HooksTest : public veltest::BackendTest</*kLocalOnly=*/false> {
 protected:
  std::string mirror(const std::string& rel) const { return root_.sub(rel); }
  // A mirror file whose times lie far in the past.
  void oldFile(const std::string& rel, const std::string& content = "old") {
    veltest::makeDirs(mirror(rel).substr(0, mirror(rel).rfind('/')));
    veltest::writeFile(mirror(rel), content);
    struct timespec times[2] = {{1000, 0}, {1000, 0}};
    utimensat(AT_FDCWD, mirror(rel).c_str(), times, 0);
  }
  bool touchedNow(const std::string& rel) const {
    struct stat st;
    return ::stat(mirror(rel).c_str(), &st) == 0 && st.st_mtime >= std::time(nullptr) - 60;
  }
};

TEST_F(HooksTest, ModeSelectsDownloadOrParentAndUploadOrTimestamps) {
  // bits < 0: the fopen flavour with `mode`; else the stream flavour with
  // app 1, ate 2, binary 4, in 8, out 16, trunc 32.
  struct Case {
    const char* mode;
    int32_t bits;
    bool download;  // else the parent directory is synced
    bool upload;    // else the times are set to now
  };
  const Case cases[] = {
      {"r", -1, true, false},     {"r+", -1, true, true},      {"a", -1, true, true},
      {"ab+", -1, true, true},    {"w", -1, false, true},      {"w+", -1, false, true},
      {"", -1, false, false},     {nullptr, -1, false, false}, {nullptr, 8, true, false},
      {nullptr, 12, true, false}, {nullptr, 10, true, false},  {nullptr, 1, true, true},
      {nullptr, 24, true, true},  {nullptr, 40, false, false}, {nullptr, 16, false, true},
      {nullptr, 48, false, true}, {nullptr, 33, false, true},  {nullptr, 0, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.mode != nullptr ? c.mode : "(null)") + " " + std::to_string(c.bits));
    oldFile("a/b");
    client_.calls.clear();
    const bool file = c.bits < 0;
    EXPECT_EQ(0, file ? VEL::beforeOpenFile("a/b", c.mode) : VEL::beforeOpenStream("a/b", c.bits));
    EXPECT_EQ(0, file ? VEL::afterCloseFile("a/b", c.mode) : VEL::afterCloseStream("a/b", c.bits));
    Calls expected{sync(c.download ? "a/b" : "a")};
    if (c.upload) {
      expected.push_back(put("a/b"));
    }
    EXPECT_EQ(expected, client_.calls);
    EXPECT_EQ(!c.upload, touchedNow("a/b"));
  }
  client_.calls.clear();
  EXPECT_EQ(0, VEL::beforeOpenStream("top", 16));  // the parent of a top-level name is the root
  EXPECT_EQ(Calls{sync("")}, client_.calls);
}

TEST_F(HooksTest, FailuresAreReportedOnlyByTheHookThatCausedThem) {
  client_.results["syncNodeFromRemote"] = -18;
  EXPECT_EQ(-18, VEL::beforeOpenFile("a/b", "r"));
  EXPECT_EQ(0, VEL::beforeOpenFile("a/b", "w"));  // the parent's result is ignored
  client_.results["putFileToRemote"] = -6;
  EXPECT_EQ(-6, VEL::afterCloseStream("a/b", 16));
  // afterWrite's failure message names beforeRead.
  EXPECT_TRUE(
      log_.contains("ERROR [VEL] beforeRead() Failed to sync file to server:a/b, "
                    "errCode:-6\n"));
}

TEST_F(HooksTest, FopenRefusesTheRootAndFcloseUploadsWhatItRecorded) {
  for (const char* root : {"/", ".", " / . /"}) {
    EXPECT_EQ(nullptr, VEL::fopen(root, "r")) << root;
    EXPECT_TRUE(log_.contains(std::string("ERROR [VEL] fopen(), bad parameter: null vel path:") +
                              root + "\n"));
  }
  // Opened first, a foreign stream never shares the address of one fopen made.
  veltest::writeFile(mirror("foreign"), "x");
  FILE* f = std::fopen(mirror("foreign").c_str(), "r");
  ASSERT_NE(nullptr, f);
  veltest::makeDirs(mirror("a"));
  FILE* mine = VEL::fopen(" a\\b ", "w");  // cleaned to a/b
  ASSERT_NE(nullptr, mine);
  EXPECT_EQ(0, VEL::fclose(mine));
  EXPECT_EQ((Calls{sync("a"), put("a/b")}), client_.calls);

  // A stream fopen did not open is still closed.
  const int fd = fileno(f);
  EXPECT_EQ(0, VEL::fclose(f));
  EXPECT_TRUE(log_.contains("ERROR [VEL] fclose(), failed to call getFileOpenMode()\n"));
  EXPECT_EQ(-1, fcntl(fd, F_GETFD));    // the descriptor is gone
  EXPECT_EQ(2u, client_.calls.size());  // and nothing is uploaded
}

TEST_F(HooksTest, SyncFromServerPullsTheNodeThenTheTreeAndMovesALocalOnlyNodeAside) {
  EXPECT_EQ(0, VEL::syncFromServer(" a//b/ ", true));
  EXPECT_EQ((Calls{sync("a/b"), "syncTreeFromRemote(a/b)"}), client_.calls);
  client_.results[sync("a/c")] = -18;
  EXPECT_EQ(-18, VEL::syncFromServer("a/c", true));  // no tree walk after a failure
  EXPECT_EQ(sync("a/c"), client_.calls.back());

  oldFile("a/f", "precious");
  client_.results[sync("a/f")] = -11;
  const std::string device = VEL::setRandomDeviceForTest(root_.sub("none"));  // suffix 00000000
  EXPECT_EQ(0, VEL::syncFromServer("a/f", true));
  VEL::setRandomDeviceForTest(device);
  EXPECT_FALSE(veltest::pathExists(mirror("a/f")));
  EXPECT_EQ("precious", veltest::readFile(mirror("a/f.vel.keep.00000000")));

  client_.results[sync("")] = -11;  // the root itself is never moved
  EXPECT_EQ(0, VEL::syncFromServer("/", false));
  EXPECT_TRUE(veltest::pathExists(root_.path()));
}

// A tree goes breadth-first; the last entry's result is the call's.
TEST_F(HooksTest, SyncToServerSendsATreeBreadthFirstAndReportsTheLastEntrysResult) {
  EXPECT_EQ(-11, VEL::syncToServer("missing", true));
  veltest::makeDirs(mirror("d/sub"));
  veltest::writeFile(mirror("d/f1"), "1");
  veltest::writeFile(mirror("d/sub/f2"), "2");
  ::chmod(mirror("d").c_str(), 0705);
  ::chmod(mirror("d/sub").c_str(), 0750);
  EXPECT_EQ(0, VEL::syncToServer("d", true));
  Calls calls = client_.calls;
  ASSERT_EQ(4u, calls.size());
  // Within a level the listing order is free.
  std::sort(calls.begin() + 1, calls.begin() + 3);
  EXPECT_EQ((Calls{newDir("d", 0705), newDir("d/sub", 0750), put("d/f1"), put("d/sub/f2")}), calls);

  client_.results[put("d/f1")] = -6;
  EXPECT_EQ(0, VEL::syncToServer("d", true));  // a later success clears the failure
  client_.results[put("d/sub/f2")] = -7;
  EXPECT_EQ(-7, VEL::syncToServer("d", true));
  client_.results["newDir"] = -12;  // already on the service: created
  EXPECT_EQ(0, VEL::syncToServer("d/sub", false));
}

// A closed stream is detached: closing it again uploads nothing. Reopening
// closes the first file through its hook first: in|out uploads it, the
// second, read only, is not uploaded.
TEST_F(HooksTest, StreamsUploadOnceOnCloseAndReopeningClosesTheFirstFileFirst) {
  oldFile("a/one", "1");
  oldFile("a/two", "2");
  {
    VEL::ofstream out("a/b.txt");
    EXPECT_TRUE(out.is_open());
    out.close();
    out.close();
    EXPECT_TRUE(out.fail());
    VEL::fstream f("a/one");
    ASSERT_TRUE(f.is_open());
    f.open("a/two", std::ios_base::in);
    ASSERT_TRUE(f.is_open());
    char c = 0;
    f >> c;
    EXPECT_EQ('2', c);
  }
  EXPECT_EQ((Calls{sync("a"), put("a/b.txt"), sync("a/one"), put("a/one"), sync("a/two")}),
            client_.calls);
}

// A node unknown to the service opens from the mirror; any other hook
// failure leaves the stream unopened (without failbit: callers must test
// is_open()), and its destructor neither uploads nor touches the mirror.
TEST_F(HooksTest, AStreamHookFailureLeavesTheStreamUnopenedButAnUnknownNodeOpens) {
  client_.results[sync("a/n")] = -19;
  client_.results["syncNodeFromRemote"] = -6;
  oldFile("a/n", "local");
  {
    VEL::ifstream known(" a\\n ");
    ASSERT_TRUE(known.is_open());
    std::string text;
    known >> text;
    EXPECT_EQ("local", text);
    VEL::ifstream in("a/b", std::ios_base::binary);
    EXPECT_FALSE(in.is_open());
    EXPECT_TRUE(in.good());
    VEL::ofstream out("a/c", std::ios_base::app);
    EXPECT_FALSE(out.is_open());
  }
  // The ifstream adds in (12 = in|binary).
  EXPECT_TRUE(log_.contains(
      "ERROR [VEL] ifstream::open(), failed to call beforeOpenStream: a/b(12), errCode:-6\n"));
  EXPECT_FALSE(log_.contains("afterCloseStream"));
  EXPECT_EQ((Calls{sync("a/n"), sync("a/b"), sync("a/c")}), client_.calls);
}

}  // namespace
