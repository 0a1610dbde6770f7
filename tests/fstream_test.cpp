// The synchronised file streams: which hooks run with which path and mode,
// the stream state after each kind of failure, reopening and destruction,
// and the one stdout line of VEL::ofstream.
#include <gtest/gtest.h>

#include <ios>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/hook_recorder.h"
#include "support/temp_dir.h"
#include "vel/fstream.h"

namespace {

using veltest::LocalModeEnvironment;
using veltest::LogWatch;
using veltest::RecordingClient;
using veltest::RecordingScope;
using veltest::TempDir;
using Calls = std::vector<std::string>;

::testing::Environment* const g_localMode =
    ::testing::AddGlobalTestEnvironment(new LocalModeEnvironment);

class FStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    veltest::makeDirs(mirror("a"));
    scope_.reset(new RecordingScope(root()));
  }
  void TearDown() override { scope_.reset(); }

  std::string root() const { return dir_.sub("mirror"); }
  std::string mirror(const std::string& rel) const { return root() + "/" + rel; }
  RecordingClient& backend() { return scope_->client(); }

  TempDir dir_;
  std::unique_ptr<RecordingScope> scope_;
};

TEST_F(FStreamTest, OfstreamWritesTheMirrorFileAnnouncesItOnceAndUploadsOnClose) {
  testing::internal::CaptureStdout();
  {
    VEL::ofstream out("a/b.txt");
    EXPECT_TRUE(out.is_open());
    EXPECT_TRUE(out.good());
    out << "hello";
    out.close();
    EXPECT_TRUE(out.good());
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ofstream open file:" + mirror("a/b.txt") + "\n");
  EXPECT_EQ(veltest::readFile(mirror("a/b.txt")), "hello");
  // The file is only written: its directory is synced, it is never downloaded.
  EXPECT_EQ(backend().calls, (Calls{"sync:a", "put:a/b.txt"}));
}

TEST_F(FStreamTest, IfstreamPullsThenReadsAndOnlyTouchesTimesOnClose) {
  veltest::writeFile(mirror("a/r.txt"), "service bytes");
  veltest::setTimes(mirror("a/r.txt"), 1000);
  testing::internal::CaptureStdout();
  {
    VEL::ifstream in(" a\\r.txt ");
    ASSERT_TRUE(in.is_open());
    std::string text;
    std::getline(in, text);
    EXPECT_EQ(text, "service bytes");
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(backend().calls, Calls{"sync:a/r.txt"});
  EXPECT_GE(veltest::mtimeOf(mirror("a/r.txt")), std::time(nullptr) - 60);
}

TEST_F(FStreamTest, ANodeUnknownToTheServiceOpensNormally) {
  backend().syncDefault = -19;
  veltest::writeFile(mirror("a/n"), "local");
  VEL::fstream f("a/n");
  EXPECT_TRUE(f.is_open());
  std::string text;
  f >> text;
  EXPECT_EQ(text, "local");
  VEL::ifstream in("a/n");
  EXPECT_TRUE(in.is_open());
}

TEST_F(FStreamTest, PathsThatCleanToNothingOpenNothingSilently) {
  testing::internal::CaptureStdout();
  LogWatch log;
  for (const char* path : {"", "/", ".", " \\ ", static_cast<const char*>(nullptr)}) {
    VEL::ofstream out;
    out.open(path);
    EXPECT_FALSE(out.is_open());
    EXPECT_TRUE(out.good());
    VEL::fstream f(path);
    EXPECT_FALSE(f.is_open());
    EXPECT_TRUE(f.good());
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(backend().calls.empty());
  EXPECT_FALSE(log.contains("open()"));
}

TEST_F(FStreamTest, AHookFailureLeavesTheStreamUnopenedButStillClosesThroughTheHook) {
  backend().syncDefault = -6;
  LogWatch log;
  {
    VEL::ifstream in("a/b");
    EXPECT_FALSE(in.is_open());
    EXPECT_TRUE(in.good());  // no failbit: callers must test is_open()
    in.close();
    EXPECT_TRUE(in.fail());  // nothing was open
    in.clear();
    in.close();  // detached now: only failbit, no second hook
    EXPECT_TRUE(in.fail());
  }
  EXPECT_EQ(backend().calls, Calls{"sync:a/b"});
  EXPECT_TRUE(log.contains(
      "ERROR [VEL] ifstream::open(), failed to call beforeOpenStream: a/b(8), errCode:-6\n"));
  // The after-close hook recorded a read of a file that is not there.
  EXPECT_TRUE(
      log.contains("ERROR [VEL] VelFStreamImpl::afterCloseStream(), failed to call "
                   "VEL::afterCloseStream: a/b(8), errCode:-1\n"));

  // The destructor runs the after-close hook of a stream whose open failed.
  backend().calls.clear();
  testing::internal::CaptureStdout();
  {
    VEL::ofstream out("a/c", std::ios_base::app);
    EXPECT_FALSE(out.is_open());
    VEL::fstream both("a/d");
    EXPECT_FALSE(both.is_open());
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(backend().calls, (Calls{"sync:a/c", "sync:a/d", "put:a/d", "put:a/c"}));
  EXPECT_TRUE(
      log.contains("[VEL] ofstream::open(), failed to call beforeOpenStream: a/c(17), errCode:-6"));
  EXPECT_TRUE(
      log.contains("[VEL] fstream::open(), failed to call beforeOpenStream: a/d(24), errCode:-6"));
}

TEST_F(FStreamTest, ClassBitsAreAddedToTheModeGivenToTheHooks) {
  backend().syncDefault = -18;
  LogWatch log;
  VEL::ifstream binary("a/b", std::ios_base::binary);
  VEL::ofstream appending("a/c", std::ios_base::app | std::ios_base::binary);
  EXPECT_TRUE(log.contains(
      "[VEL] ifstream::open(), failed to call beforeOpenStream: a/b(12), errCode:-18"));
  EXPECT_TRUE(log.contains(
      "[VEL] ofstream::open(), failed to call beforeOpenStream: a/c(21), errCode:-18"));
}

TEST_F(FStreamTest, ABufferOpenFailureSetsFailbitAndStillRunsTheAfterCloseHook) {
  testing::internal::CaptureStdout();
  LogWatch log;
  {
    VEL::ofstream out("nodir/x");  // the parent is not in the mirror
    EXPECT_FALSE(out.is_open());
    EXPECT_TRUE(out.fail());
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_FALSE(log.contains("ofstream::open()"));
  EXPECT_EQ(backend().calls, (Calls{"sync:nodir", "put:nodir/x"}));

  // A later successful open clears the state entirely.
  VEL::ifstream in("nodir/y");
  EXPECT_TRUE(in.fail());
  veltest::writeFile(mirror("a/y"), "y");
  in.open("a/y");
  EXPECT_TRUE(in.is_open());
  EXPECT_TRUE(in.good());
}

TEST_F(FStreamTest, ReopeningClosesTheFirstFileThroughItsHookFirst) {
  veltest::writeFile(mirror("a/one"), "1");
  veltest::writeFile(mirror("a/two"), "2");
  {
    VEL::fstream f("a/one");
    ASSERT_TRUE(f.is_open());
    f.open("a/two", std::ios_base::in);
    ASSERT_TRUE(f.is_open());
    char c = 0;
    f >> c;
    EXPECT_EQ(c, '2');
    EXPECT_EQ(backend().calls, (Calls{"sync:a/one", "put:a/one", "sync:a/two"}));
  }
  // Opened for reading only: the destructor records a read, no upload.
  EXPECT_EQ(backend().calls, (Calls{"sync:a/one", "put:a/one", "sync:a/two"}));

  backend().calls.clear();
  {
    VEL::ofstream out("a/x");
    out.close();
    out.close();  // detached: no second upload
    EXPECT_TRUE(out.fail());
  }
  EXPECT_EQ(backend().calls, (Calls{"sync:a", "put:a/x"}));
}

TEST_F(FStreamTest, ExceptionMasksOfTheApplicationNeverSkipTheHookOrEscapeTheDestructor) {
  testing::internal::CaptureStdout();
  {
    VEL::ofstream out;
    out.exceptions(std::ios_base::failbit);
    EXPECT_THROW(out.open("nodir/x"), std::ios_base::failure);
  }
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(backend().calls, (Calls{"sync:nodir", "put:nodir/x"}));
}

TEST(FStreamLocalMode, StreamsReadAndWriteTheMirrorAlone) {
  const std::string root = LocalModeEnvironment::mirror();
  veltest::makeDirs(root + "/fs");
  testing::internal::CaptureStdout();
  {
    VEL::ofstream out("fs/data.bin", std::ios_base::binary);
    ASSERT_TRUE(out.is_open());
    out << "abc";
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ofstream open file:" + root + "/fs/data.bin\n");
  {
    VEL::fstream f("fs/data.bin", std::ios_base::in | std::ios_base::out | std::ios_base::ate);
    ASSERT_TRUE(f.is_open());
    f << "def";
  }
  VEL::ifstream in("fs/data.bin");
  ASSERT_TRUE(in.is_open());
  std::stringstream all;
  all << in.rdbuf();
  EXPECT_EQ(all.str(), "abcdef");
}

}  // namespace
