#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/temp_dir.h"
#include "vel/log.h"

namespace {

using veltest::pathExists;
using veltest::readFile;
using veltest::ScopedEnv;
using veltest::TempDir;

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

// Each case gets a fresh logger writing into its own directory.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VEL::releaseLogger();
    env_ = std::make_unique<ScopedEnv>("_APP_LOG_DIR", dir_.path().c_str());
    file_ = dir_.path() + "/velsdk.log";
  }
  void TearDown() override { VEL::releaseLogger(); }

  TempDir dir_;
  std::unique_ptr<ScopedEnv> env_;
  std::string file_;
};

TEST_F(LogTest, LinesCarryTimeLevelNameAndText) {
  VEL::getLogger()->log(1, "[VEL] value=%d name=%s", 42, "x");
  VEL::getLogger()->log(0, "assert");
  VEL::getLogger()->log(2, "call");
  VEL::getLogger()->log(3, "debug");
  VEL::getLogger()->log(4, "info");
  VEL::getLogger()->log(5, "five");
  VEL::getLogger()->log(7, "seven");
  std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(7u, lines.size());
  // "YYYY-MM-DD HH:MM:SS " before the level name.
  const std::string shape = "dddd-dd-dd dd:dd:dd ";
  for (const std::string& line : lines) {
    ASSERT_GT(line.size(), shape.size()) << line;
    for (size_t i = 0; i < shape.size(); ++i) {
      bool ok = shape[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) != 0
                                : line[i] == shape[i];
      EXPECT_TRUE(ok) << line;
    }
  }
  EXPECT_EQ(" ERROR [VEL] value=42 name=x", lines[0].substr(19));
  EXPECT_EQ(" ASSERT assert", lines[1].substr(19));
  EXPECT_EQ(" CALL call", lines[2].substr(19));
  EXPECT_EQ(" DEBUG debug", lines[3].substr(19));
  EXPECT_EQ(" INFO info", lines[4].substr(19));
  EXPECT_EQ(" UNKNOWN five", lines[5].substr(19));
  EXPECT_EQ(" UNKNOWN seven", lines[6].substr(19));
}

TEST_F(LogTest, NullFormatOrTextWritesNothing) {
  VEL::getLogger()->log(1, nullptr);
  VEL::getLogger()->writeLine(1, nullptr);
  VEL::getLogger()->writeLine(1, "only line");
  std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(" ERROR only line", lines[0].substr(19));
}

TEST_F(LogTest, LongMessagesAreCutTo4095Characters) {
  std::string longText(5000, 'x');
  VEL::getLogger()->log(1, "%s", longText.c_str());
  std::string exact(4095, 'y');
  VEL::getLogger()->log(1, "%s", exact.c_str());
  std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(std::string(" ERROR ") + std::string(4095, 'x'), lines[0].substr(19));
  EXPECT_EQ(std::string(" ERROR ") + exact, lines[1].substr(19));
}

TEST_F(LogTest, FileOfExactlyTheLimitIsKeptOneByteMoreRotates) {
  {
    std::ofstream out(file_, std::ios::binary);
    out << std::string(VEL::kLogMaxFileSize, 'a');
  }
  VEL::getLogger()->log(1, "kept");
  std::string text = readFile(file_);
  ASSERT_GT(text.size(), static_cast<size_t>(VEL::kLogMaxFileSize));
  EXPECT_EQ(std::string::npos, text.substr(0, VEL::kLogMaxFileSize).find_first_not_of('a'));
  EXPECT_EQ(" ERROR kept\n", text.substr(text.size() - 12));

  // The file now exceeds the limit: the next line empties it first.
  VEL::getLogger()->log(1, "first after rotation");
  std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(" ERROR first after rotation", lines[0].substr(19));
}

TEST_F(LogTest, DeletedFileIsNotRecreated) {
  VEL::getLogger()->log(1, "before");
  ASSERT_EQ(0, ::unlink(file_.c_str()));
  VEL::getLogger()->log(1, "after");
  EXPECT_FALSE(pathExists(file_));
}

TEST_F(LogTest, ConcurrentWritersNeverInterleaveWithinALine) {
  constexpr int kThreads = 8;
  constexpr int kLines = 400;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      std::string body(100 + t, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; ++i) {
        VEL::getLogger()->log(3, "t%d %s", t, body.c_str());
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
  std::vector<int> perThread(kThreads, 0);
  for (const std::string& line : lines) {
    std::string text = line.substr(26);  // after the stamp and " DEBUG "
    ASSERT_EQ('t', text[0]) << line;
    int t = text[1] - '0';
    ASSERT_GE(t, 0);
    ASSERT_LT(t, kThreads);
    EXPECT_EQ(std::string("t") + text[1] + " " + std::string(100 + t, static_cast<char>('a' + t)),
              text);
    ++perThread[t];
  }
  for (int count : perThread) {
    EXPECT_EQ(kLines, count);
  }
}

TEST(LogLocationTest, MissingDirectoryDropsLinesQuietly) {
  TempDir dir;
  VEL::releaseLogger();
  ScopedEnv env("_APP_LOG_DIR", dir.sub("no/such/dir").c_str());
  VEL::getLogger()->log(1, "dropped");
  VEL::releaseLogger();
  EXPECT_FALSE(pathExists(dir.sub("no")));
}

TEST(LogLocationTest, TrailingSlashAndUnsetVariable) {
  TempDir dir;
  {
    VEL::releaseLogger();
    ScopedEnv env("_APP_LOG_DIR", (dir.path() + "/").c_str());
    VEL::getLogger()->log(1, "slash");
    VEL::releaseLogger();
    EXPECT_NE(std::string::npos, readFile(dir.sub("velsdk.log")).find("ERROR slash"));
  }
  {
    // Unset: the file is created in the current working directory.
    TempDir cwd;
    char old[4096];
    ASSERT_NE(nullptr, ::getcwd(old, sizeof(old)));
    ASSERT_EQ(0, ::chdir(cwd.path().c_str()));
    ScopedEnv env("_APP_LOG_DIR", nullptr);
    VEL::getLogger()->log(2, "here");
    VEL::releaseLogger();
    ASSERT_EQ(0, ::chdir(old));
    EXPECT_NE(std::string::npos, readFile(cwd.sub("velsdk.log")).find("CALL here"));
  }
}

}  // namespace
