#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_client.h"
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
  veltest::LogCapture log_;
  const std::string file_ = log_.file();
};

// Every line: the stamp, the level's name and the text, cut to 4095
// characters; a null format or text writes nothing.
TEST_F(LogTest, LinesCarryTimeLevelNameAndText) {
  VEL::getLogger()->log(1, "[VEL] value=%d name=%s", 42, "x");
  for (int level : {0, 2, 3, 4, 5, 7}) {
    VEL::getLogger()->log(level, "level %d", level);
  }
  VEL::getLogger()->log(1, nullptr);
  VEL::getLogger()->writeLine(1, nullptr);
  VEL::getLogger()->writeLine(1, "only line");
  VEL::getLogger()->log(1, "%s", std::string(5000, 'x').c_str());
  VEL::getLogger()->log(1, "%s", std::string(4095, 'y').c_str());
  // clang-format off
  const std::vector<std::string> texts = {
      " ERROR [VEL] value=42 name=x", " ASSERT level 0", " CALL level 2", " DEBUG level 3",
      " INFO level 4", " UNKNOWN level 5", " UNKNOWN level 7", " ERROR only line",
      " ERROR " + std::string(4095, 'x'), " ERROR " + std::string(4095, 'y')};
  // clang-format on
  std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(texts.size(), lines.size());
  const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d .*)");
  for (size_t n = 0; n < lines.size(); ++n) {
    EXPECT_TRUE(std::regex_match(lines[n].substr(0, 22), stamp)) << lines[n];
    EXPECT_EQ(texts[n], lines[n].substr(19));
  }
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

TEST_F(LogTest, DeletedFileIsNotRecreatedAReplacedOneIsFollowed) {
  VEL::getLogger()->log(1, "before");
  ASSERT_EQ(0, ::unlink(file_.c_str()));
  VEL::getLogger()->log(1, "after");
  EXPECT_FALSE(pathExists(file_));

  // Another file under the path (as another process's rotation leaves it)
  // gets the next lines; the moved one gets none.
  VEL::releaseLogger();
  VEL::getLogger()->log(1, "first");
  ASSERT_EQ(0, ::rename(file_.c_str(), (file_ + ".old").c_str()));
  veltest::writeFile(file_, "");
  VEL::getLogger()->log(1, "second");
  ASSERT_EQ(1u, linesOf(readFile(file_ + ".old")).size());
  std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ(" ERROR second", lines[0].substr(19));
}

// Under ThreadSanitizer (build-tsan/) this is the test that shows an
// unlocked logger: eight threads that do nothing but log.
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
    const int t = line.size() > 27 ? line[27] - '0' : -1;  // after the stamp, " DEBUG t"
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    EXPECT_EQ(
        " DEBUG t" + std::to_string(t) + " " + std::string(100 + t, static_cast<char>('a' + t)),
        line.substr(19));
    ++perThread[t];
  }
  EXPECT_EQ(std::vector<int>(kThreads, kLines), perThread);
}

// Two processes log long lines (one write() of stdio's buffer could not hold
// them) to one file, in rounds the test paces, until the file was rotated
// several times. Each line's text follows from its writer and number, so a
// torn or mixed line shows; each writer's lines in the final file must run
// without a gap up to its last one, whichever process rotated.
class TwoWriters {
 public:
  static constexpr int kRoundLines = 500;
  static constexpr int kFinalLines = 3;
  static constexpr size_t kTextLength = 4090;

  static std::string textOf(int writer, int seq) {
    char head[32];
    std::snprintf(head, sizeof(head), "w%d s%07d ", writer, seq);
    std::string text(head);
    text.append(kTextLength - text.size(), static_cast<char>('a' + (seq * 2 + writer) % 26));
    return text;
  }

  TwoWriters() {
    VEL::releaseLogger();  // each process opens the file itself
    int done[2];
    if (::pipe(done) != 0) {
      return;
    }
    doneFd_ = done[0];
    for (int w = 0; w < 2; ++w) {
      int go[2];
      if (::pipe(go) != 0) {
        return;
      }
      const pid_t pid = ::fork();
      if (pid == 0) {
        ::close(go[1]);
        ::close(done[0]);
        for (int earlier = 0; earlier < w; ++earlier) {
          ::close(goFd_[earlier]);  // or that writer would never see the end
        }
        run(w, go[0], done[1]);
      }
      ::close(go[0]);
      goFd_[w] = go[1];
      pid_[w] = pid;
    }
    ::close(done[1]);
  }
  ~TwoWriters() {
    for (int fd : goFd_) {
      ::close(fd);  // the writer sees the end and exits (-1: none was made)
    }
    for (pid_t pid : pid_) {
      if (pid > 0) {
        ::waitpid(pid, nullptr, 0);
      }
    }
    ::close(doneFd_);
  }
  TwoWriters(const TwoWriters&) = delete;
  TwoWriters& operator=(const TwoWriters&) = delete;

  bool started() const { return pid_[0] > 0 && pid_[1] > 0; }

  // Both write kRoundLines (or kFinalLines) lines at once; true when both
  // reported back in time.
  bool round(bool final) {
    const char command = final ? 'f' : 'r';
    for (int w = 0; w < 2; ++w) {
      if (::write(goFd_[w], &command, 1) != 1) {
        return false;
      }
    }
    linesEach_ += final ? kFinalLines : kRoundLines;
    for (int reported = 0; reported < 2; ++reported) {
      pollfd entry{doneFd_, POLLIN, 0};
      char byte;
      if (::poll(&entry, 1, 60000) != 1 || ::read(doneFd_, &byte, 1) != 1) {
        return false;
      }
    }
    return true;
  }
  int linesEach() const { return linesEach_; }

 private:
  [[noreturn]] static void run(int writer, int goFd, int doneFd) {
    int seq = 0;
    char command;
    while (::read(goFd, &command, 1) == 1) {
      const int lines = command == 'r' ? kRoundLines : kFinalLines;
      for (int i = 0; i < lines; ++i, ++seq) {
        VEL::getLogger()->log(1, "%s", textOf(writer, seq).c_str());
      }
      if (::write(doneFd, "d", 1) != 1) {
        break;
      }
    }
    ::_exit(0);
  }

  int goFd_[2] = {-1, -1};
  pid_t pid_[2] = {-1, -1};
  int doneFd_ = -1;
  int linesEach_ = 0;
};

TEST_F(LogTest, TwoProcessesRotatingOneFileKeepEveryLineWhole) {
  const long long lineBytes = 19 + 7 + TwoWriters::kTextLength + 1;
  const long long finalRoom = 2 * TwoWriters::kFinalLines * lineBytes;
  long long written = 0;
  TwoWriters writers;
  ASSERT_TRUE(writers.started());
  // At least three rotations, then a last round that cannot rotate: both
  // writers' last lines must be in the file.
  for (;;) {
    struct stat st;
    if (written > 4 * VEL::kLogMaxFileSize && ::stat(file_.c_str(), &st) == 0 &&
        st.st_size + finalRoom <= VEL::kLogMaxFileSize) {
      break;
    }
    ASSERT_LT(written, 8 * VEL::kLogMaxFileSize);
    ASSERT_TRUE(writers.round(false));
    written += 2 * TwoWriters::kRoundLines * lineBytes;
  }
  ASSERT_TRUE(writers.round(true));
  const int expectedLast = writers.linesEach() - 1;

  const std::vector<std::string> lines = linesOf(readFile(file_));
  std::vector<int> seqs[2];
  size_t bad = 0;
  std::string torn;
  for (const std::string& line : lines) {
    int writer = -1;
    int seq = -1;
    const bool parsed = line.size() == static_cast<size_t>(lineBytes - 1) &&
                        line.compare(19, 7, " ERROR ") == 0 &&
                        std::sscanf(line.c_str() + 26, "w%d s%d ", &writer, &seq) == 2 &&
                        (writer == 0 || writer == 1) &&
                        line.compare(26, std::string::npos, TwoWriters::textOf(writer, seq)) == 0;
    if (parsed) {
      seqs[writer].push_back(seq);
    } else if (bad++ == 0) {
      torn = line.substr(0, 60);
    }
  }
  EXPECT_EQ(0u, bad) << "of " << lines.size() << " lines, the first: " << torn;
  for (int w = 0; w < 2; ++w) {
    ASSERT_FALSE(seqs[w].empty()) << "writer " << w;
    EXPECT_EQ(expectedLast, seqs[w].back()) << "writer " << w;
    size_t gaps = 0;
    for (size_t i = 1; i < seqs[w].size(); ++i) {
      gaps += seqs[w][i] != seqs[w][i - 1] + 1 ? 1 : 0;
    }
    EXPECT_EQ(0u, gaps) << "writer " << w << " lost lines";
  }
  // Lines before the last rotation are gone: the file was rotated.
  EXPECT_LT(lines.size(), static_cast<size_t>(2 * writers.linesEach()));
}

// Requests for `ino` waiting in flock(), from /proc/locks.
int flockWaiters(ino_t ino) {
  std::ifstream locks("/proc/locks");
  const std::string id = ":" + std::to_string(ino) + " ";
  int waiters = 0;
  for (std::string line; std::getline(locks, line);) {
    waiters += line.find("-> FLOCK") != std::string::npos && line.find(id) != std::string::npos;
  }
  return waiters;
}

// Two processes that both find the file over the limit: it is emptied only
// under the exclusive lock, and only once, so the line of the one that gets
// the lock second is appended to what the first left.
TEST_F(LogTest, AFullFileIsEmptiedOnceUnderTheExclusiveLock) {
  veltest::writeFile(file_, std::string(VEL::kLogMaxFileSize + 1, 'a'));
  const int held = ::open(file_.c_str(), O_RDONLY);
  ASSERT_NE(-1, held);
  ASSERT_EQ(0, ::flock(held, LOCK_EX));
  struct stat st;
  ASSERT_EQ(0, ::fstat(held, &st));
  pid_t children[2];
  for (int c = 0; c < 2; ++c) {
    children[c] = ::fork();
    if (children[c] == 0) {
      ::close(held);  // or the lock would live on in this copy
      VEL::getLogger()->log(1, "child %d", c);
      ::_exit(0);
    }
  }
  for (int i = 0; i < 1000 && flockWaiters(st.st_ino) < 2; ++i) {
    ::usleep(10000);
  }
  EXPECT_EQ(2, flockWaiters(st.st_ino));
  struct stat now;
  ASSERT_EQ(0, ::stat(file_.c_str(), &now));
  EXPECT_EQ(VEL::kLogMaxFileSize + 1, now.st_size) << "emptied while another held the lock";
  ::close(held);
  for (pid_t child : children) {
    ::waitpid(child, nullptr, 0);
  }
  std::vector<std::string> texts;
  for (const std::string& line : linesOf(readFile(file_))) {
    texts.push_back(line.substr(19));
  }
  std::sort(texts.begin(), texts.end());
  EXPECT_EQ((std::vector<std::string>{" ERROR child 0", " ERROR child 1"}), texts);
}

// Each line carries the second it was written in, also when lines of one
// second share the formatting of their stamp.
TEST_F(LogTest, EachLineCarriesTheSecondItWasWrittenIn) {
  auto stampNow = [] {
    const time_t now = std::time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
    return std::string(text);
  };
  std::vector<std::pair<std::string, std::string>> bounds;
  for (int i = 0; i < 3; ++i) {
    if (i > 0) {
      ::usleep(600000);
    }
    const std::string before = stampNow();
    VEL::getLogger()->log(1, "line %d", i);
    bounds.emplace_back(before, stampNow());
  }
  const std::vector<std::string> lines = linesOf(readFile(file_));
  ASSERT_EQ(3u, lines.size());
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string stamp = lines[i].substr(0, 19);
    EXPECT_LE(bounds[i].first, stamp) << lines[i];
    EXPECT_GE(bounds[i].second, stamp) << lines[i];
  }
  EXPECT_NE(lines.front().substr(0, 19), lines.back().substr(0, 19));
}

TEST(LogLocationTest, MissingDirectoryTrailingSlashAndUnsetVariable) {
  TempDir dir;
  {
    // A missing folder drops the lines quietly, and is not created.
    VEL::releaseLogger();
    ScopedEnv env("_APP_LOG_DIR", dir.sub("no/such/dir").c_str());
    VEL::getLogger()->log(1, "dropped");
    VEL::releaseLogger();
    EXPECT_FALSE(pathExists(dir.sub("no")));
  }
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
