// The synchronised file streams end to end against the reference file
// agent: written bytes reach the store, read bytes come from the store, and
// the hooks' modes and failures are visible in the journal and the log.
#include <gtest/gtest.h>

#include <ios>
#include <sstream>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "support/hook_recorder.h"
#include "support/temp_dir.h"
#include "vel/fstream.h"

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

using RemoteFStreamTest = RemoteFixture;

TEST_F(RemoteFStreamTest, OfstreamBytesReachTheStoreWithoutADownload) {
  veltest::makeDirs(store("o1"));
  testing::internal::CaptureStdout();
  {
    VEL::ofstream out("o1/f.txt");
    ASSERT_TRUE(out.is_open());
    out << "stream bytes";
    out.close();
    EXPECT_TRUE(out.good());
  }
  std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("ofstream open file:" + mirror("o1/f.txt") + "\n"), std::string::npos);
  EXPECT_EQ(veltest::readFile(store("o1/f.txt")), "stream bytes");
  auto seen = requests();
  EXPECT_EQ(countIn(seen, "tarn.downloadlocal"), 0);
  EXPECT_EQ(countIn(seen, "tarn.uploadlocal TestService o1/f.txt"), 1);
}

TEST_F(RemoteFStreamTest, IfstreamReadsTheServicesBytesAndUploadsNothing) {
  veltest::makeDirs(store("i1"));
  veltest::writeFile(store("i1/f"), "from service");
  veltest::makeDirs(mirror("i1"));
  veltest::writeFile(mirror("i1/f"), "stale mirror copy");
  {
    VEL::ifstream in("i1/f");
    ASSERT_TRUE(in.is_open());
    std::stringstream all;
    all << in.rdbuf();
    EXPECT_EQ(all.str(), "from service");
  }
  auto seen = requests();
  EXPECT_EQ(countIn(seen, "tarn.downloadlocal TestService i1/f"), 1);
  EXPECT_EQ(countIn(seen, "tarn.uploadlocal"), 0);
}

TEST_F(RemoteFStreamTest, FstreamDownloadsEditsAndUploads) {
  veltest::makeDirs(store("e1"));
  veltest::writeFile(store("e1/f"), "abc");
  {
    VEL::fstream f("e1/f");
    ASSERT_TRUE(f.is_open());
    std::string text;
    f >> text;
    EXPECT_EQ(text, "abc");
    f.clear();
    f.seekp(0, std::ios_base::end);
    f << "def";
  }
  EXPECT_EQ(veltest::readFile(store("e1/f")), "abcdef");
}

TEST_F(RemoteFStreamTest, BinaryOnlyIfstreamHandsModeTwelveToTheHook) {
  setRules(
      R"([{"match": ["tarn.metadata", "TestService", "i2/bin"], "reply": ["error", "DENIED"]}])");
  LogWatch log;
  VEL::ifstream in("i2/bin", std::ios_base::binary);
  EXPECT_FALSE(in.is_open());
  EXPECT_TRUE(in.good());
  EXPECT_TRUE(log.contains(
      "ERROR [VEL] ifstream::open(), failed to call beforeOpenStream: i2/bin(12), errCode:-"));
}

TEST_F(RemoteFStreamTest, AStreamWhoseOpenFailedStillRunsTheAfterCloseHook) {
  setRules(
      R"([{"match": ["tarn.metadata", "TestService", "h1/f"], "reply": ["error", "DENIED"]}])");
  veltest::makeDirs(mirror("h1"));
  veltest::writeFile(mirror("h1/f"), "local edit");
  {
    VEL::fstream f("h1/f");
    EXPECT_FALSE(f.is_open());
    EXPECT_EQ(countIn(requests(), "tarn.uploadlocal"), 0);
  }
  // in|out: the after-close hook uploads what the mirror holds.
  EXPECT_EQ(countIn(requests(), "tarn.uploadlocal TestService h1/f"), 1);
  EXPECT_EQ(veltest::readFile(store("h1/f")), "local edit");
}

}  // namespace
