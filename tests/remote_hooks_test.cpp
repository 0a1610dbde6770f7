// fopen/fclose and the synchronised file streams in remote mode against the
// reference agent: which mode downloads before the open and uploads after
// the close, checked through the agent's journal, its store and the log.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <ios>
#include <sstream>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "vel/fstream.h"
#include "vel/hooks.h"

namespace {

using namespace veltest;

using RemoteHooksTest = RemoteFixture;

TEST_P(RemoteHooksTest, FopenAndStreamsSynchroniseByMode) {
  // "w": only the directory is brought; the file is uploaded on close.
  storeDir("w", 0751);
  FILE* f = VEL::fopen("w/new", "w");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(permissionsOf(mirror("w")), 0751);
  EXPECT_EQ(countOf("tarn.metadata TestService w/new"), 0u);
  EXPECT_EQ(countOf("tarn.downloadlocal"), 0u);
  std::fputs("written", f);
  std::fflush(f);
  EXPECT_EQ(countOf("tarn.uploadlocal"), 0u);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(storeRead("w/new"), "written");

  // "r": the service's copy replaces the mirror's; nothing is uploaded.
  storeFile("w/read", "service copy");
  mirrorFile("w/read", "stale");
  agent_->clearJournal();
  f = VEL::fopen("w/read", "r");
  ASSERT_NE(f, nullptr);
  char buffer[32] = {0};
  EXPECT_EQ(std::string(buffer, std::fread(buffer, 1, sizeof(buffer), f)), "service copy");
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_EQ(countOf("tarn.downloadlocal TestService w/read"), 1u);
  EXPECT_EQ(countOf("tarn.uploadlocal"), 0u);

  // "r+": downloaded before the open, uploaded after the close.
  storeFile("w/both", "0123");
  agent_->clearJournal();
  f = VEL::fopen("w/both", "r+");
  ASSERT_NE(f, nullptr);
  std::fputs("xy", f);
  std::fflush(f);
  EXPECT_EQ(VEL::fclose(f), 0);
  EXPECT_TRUE(
      inOrder({"tarn.downloadlocal TestService w/both", "tarn.uploadlocal TestService w/both"}));
  EXPECT_EQ(storeRead("w/both"), "xy23");

  // An ofstream announces its mirror file and uploads on close; an
  // ifstream reads the service's copy once it changed there.
  std::string printed = stdoutOf([] { VEL::ofstream("w/f.txt") << "stream bytes"; });
  EXPECT_EQ(printed,
            "ofstream open file:" + mirror("w/f.txt") + "\n[TARN]upload file success[w/f.txt]!\n");
  EXPECT_EQ(storeRead("w/f.txt"), "stream bytes");
  storeFile("w/read", "service copy, changed");
  std::stringstream all;
  all << VEL::ifstream("w/read").rdbuf();
  EXPECT_EQ(all.str(), "service copy, changed");
}

// A stream that never opened has written nothing: closing it must not send
// the mirror's stale copy over the service's newer one.
TEST_P(RemoteHooksTest, StreamThatNeverOpenedSendsNothingOnClose) {
  storeFile("h/f", "newer service copy");
  mirrorFile("h/f", "stale mirror copy");
  agent_->setRules(R"([{"match": ["tarn.downloadlocal"], "reply": ["error", "ERR io"]}])");
  {
    VEL::fstream both("h/f");  // in|out: downloads first, would upload after
    EXPECT_FALSE(both.is_open());
    VEL::ofstream append("h/f", std::ios_base::app);
    EXPECT_FALSE(append.is_open());
    append.close();
    EXPECT_TRUE(append.fail());
  }
  EXPECT_TRUE(
      logged("[VEL] fstream::open(), failed to call beforeOpenStream: h/f(24), errCode:-6"));

  // The hook succeeds but the mirror file cannot be opened (a directory).
  agent_->setRules("");
  makeDirs(mirror("h/d"), 0750);
  {
    VEL::ofstream out("h/d");
    EXPECT_FALSE(out.is_open());
  }
  EXPECT_EQ(VEL::fopen("h/d", "w"), nullptr);  // registers nothing ...
  EXPECT_EQ(VEL::fclose(nullptr), EOF);        // ... so its close sends nothing
  EXPECT_EQ(countOf("tarn.uploadlocal"), 0u);
  EXPECT_EQ(storeRead("h/f"), "newer service copy");
}

// A closed stream is forgotten: another stream that the allocator puts at
// the same address and that fopen never saw is not taken for it.
TEST_P(RemoteHooksTest, FcloseForgetsTheStreamSoItsAddressCanBeReused) {
  storeDir("r", 0755);
  FILE* mine = VEL::fopen("r/mine", "w");
  ASSERT_NE(mine, nullptr);
  const uintptr_t closed = reinterpret_cast<uintptr_t>(mine);
  EXPECT_EQ(VEL::fclose(mine), 0);
  EXPECT_EQ(countOf("tarn.uploadlocal TestService r/mine"), 1u);
  EXPECT_TRUE(logged("ERROR [VEL] fclose(), getFileOpenMode: path: r/mine, mode: w\n"));

  TempDir other;
  writeFile(other.sub("x"), "x");
  std::vector<FILE*> foreign;
  bool reused = false;
  for (int i = 0; i < 8 && !reused; ++i) {
    FILE* f = std::fopen(other.sub("x").c_str(), "r");
    ASSERT_NE(f, nullptr);
    foreign.push_back(f);
    reused = reinterpret_cast<uintptr_t>(f) == closed;
  }
  for (FILE* f : foreign) {
    EXPECT_EQ(VEL::fclose(f), 0);
  }
  EXPECT_EQ(countOf("tarn.uploadlocal"), 1u) << (reused ? "address reused" : "address not reused");
  std::string path;
  std::string mode;
  EXPECT_FALSE(VEL::getInstance()->getFileOpenMode(reinterpret_cast<FILE*>(closed), path, mode));
}

INSTANTIATE_TEST_SUITE_P(Stores, RemoteHooksTest, allStores(), storeKindName);

}  // namespace
