// Eight threads race the public API on a few shared paths, in local and in
// remote mode: init, fopen/fclose, exists, stat, opendir/readdir_r/closedir,
// scandir, mkdir_all, mkdir/rmdir, rename, unlink, code-set conversion and
// logging, a bounded number of times. Built with ThreadSanitizer
// (build-tsan/) the run must end without a report. In every tree each call
// must answer within its contract, a file read back holds one writer's whole
// text or nothing, conversions are exact and the log holds every line, whole.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"
#include "vel/codeset.h"
#include "vel/hooks.h"
#include "vel/instance.h"
#include "vel/listing.h"
#include "vel/log.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

constexpr int kThreads = 8;
constexpr int kIterations = 200;
constexpr int kFiles = 4;
constexpr int kDirs = 2;

// The statuses the library documents; anything else (an internal -20, a
// stray positive value) is a fault.
const std::set<int> kKnownStatuses = {0, -1, -4, -6, -9, -11, -12, -16, -18, -19};

// One writer's whole text.
const std::regex kWholeText("writer [0-7] pass [0-9]{3}\n");

std::string fileName(int n) { return "s/f" + std::to_string(n); }
std::string dirName(int n) { return "s/d" + std::to_string(n); }

// Every writer's text has the same length, so that two writers of one file
// leave one whole text, never a mix.
std::string writerText(int thread, int pass) {
  char text[32];
  std::snprintf(text, sizeof text, "writer %d pass %03d\n", thread, pass);
  return text;
}

class StressTest : public ::testing::Test {
 protected:
  // Runs the threads with the client type `type` and the mirror at
  // `mirror`; the log goes to `logDir`. Returns the number of lines each
  // thread logged itself.
  void race(const char* type, const std::string& logDir) {
    VEL::finish();
    VEL::releaseLogger();
    // Every thread starts at the same moment, so that the first calls
    // (creating the instance and the logger) race too.
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([this, t, type, start] {
        start.wait();
        VEL::init({{"clientType", type}});
        std::mt19937 random(static_cast<unsigned>(t) * 7919u + 1u);
        for (int pass = 0; pass < kIterations; ++pass) {
          step(t, pass, static_cast<int>(random() % 13), random, type);
        }
      });
    }
    go.set_value();
    for (std::thread& thread : threads) {
      thread.join();
    }
    VEL::finish();
    VEL::releaseLogger();

    for (const std::string& failure : failures_) {
      ADD_FAILURE() << failure;
    }
    checkLog(logDir + "/velsdk.log");
  }

  // Every file left holds one writer's whole text, or nothing.
  static void checkFiles(const std::string& root) {
    for (int n = 0; n < kFiles; ++n) {
      const std::string path = root + "/" + fileName(n);
      const std::string text = veltest::readFile(path);
      EXPECT_TRUE(!veltest::pathExists(path) || text.empty() || std::regex_match(text, kWholeText))
          << path << " holds \"" << text << "\"";
    }
  }

 private:
  void failed(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex_);
    failures_.push_back(what);
  }
  void known(const std::string& what, int status) {
    if (kKnownStatuses.count(status) == 0) {
      failed(what + ": status " + std::to_string(status));
    }
  }

  void step(int t, int pass, int op, std::mt19937& random, const char* type) {
    const std::string file = fileName(static_cast<int>(random() % kFiles));
    const std::string dir = dirName(static_cast<int>(random() % kDirs));
    switch (op) {
      case 0:
        if (VEL::init({{"clientType", type}}) != 0) failed("init");
        break;
      case 1: {  // write a whole text
        FILE* out = VEL::fopen(file.c_str(), "w");
        if (out == nullptr) {
          failed("fopen w " + file);
          break;
        }
        const std::string text = writerText(t, pass);
        std::fputs(text.c_str(), out);
        std::fflush(out);  // the upload runs before the stream is closed
        if (VEL::fclose(out) != 0) failed("fclose " + file);
        break;
      }
      case 2: {  // read back: one whole text or nothing
        FILE* in = VEL::fopen(file.c_str(), "r");
        if (in == nullptr) {
          break;  // renamed or removed meanwhile
        }
        char buffer[64] = {0};
        const size_t got = std::fread(buffer, 1, sizeof buffer - 1, in);
        if (VEL::fclose(in) != 0) failed("fclose " + file);
        const std::string text(buffer, got);
        if (!text.empty() && !std::regex_match(text, kWholeText)) {
          failed("read of " + file + " gave \"" + text + "\"");
        }
        break;
      }
      case 3: {
        // A non-UTF-8 code set sends the path through the conversion cache.
        const int found = VEL::exists(file.c_str(), pass % 2 == 0 ? "UTF-8" : "ISO-8859-1");
        if (found != 0 && found != 1) failed("exists " + file + ": " + std::to_string(found));
        break;
      }
      case 4: {
        struct stat st;
        const int rtn = VEL::stat(file.c_str(), &st, pass % 2 == 0 ? "UTF-8" : "ISO-8859-1");
        if (rtn != 0 && rtn != -1) failed("stat " + file + ": " + std::to_string(rtn));
        if (rtn == 0 && !S_ISREG(st.st_mode)) failed("stat " + file + ": not a file");
        break;
      }
      case 5: {
        VEL::VEL_DIR* handle = VEL::opendir(pass % 2 == 0 ? "s" : dir.c_str());
        if (handle == nullptr) {
          break;  // a directory that another thread removed
        }
        struct dirent entry;
        struct dirent* result = nullptr;
        while (VEL::readdir_r(handle, &entry, &result) == 0 && result != nullptr) {
          if (entry.d_name[0] == '\0' || std::string(entry.d_name).find('/') != std::string::npos) {
            failed(std::string("readdir_r entry \"") + entry.d_name + "\"");
          }
        }
        VEL::closedir(handle);
        break;
      }
      case 6: {
        struct dirent** names = nullptr;
        const int count = VEL::scandir("s", &names, nullptr, nullptr);
        if (count < 0) failed("scandir s: " + std::to_string(count));
        for (int i = 0; i < count; ++i) {
          std::free(names[i]);
        }
        std::free(names);
        break;
      }
      case 7: {
        // Another thread may create or remove a level meanwhile.
        known("mkdir_all " + dir, VEL::mkdir_all(dir + "/a/b", 0750));
        break;
      }
      case 8: {
        known("mkdir " + dir, VEL::mkdir(dir.c_str(), 0750));
        known("rmdir " + dir, VEL::rmdir(dir.c_str()));
        break;
      }
      case 9: {
        const std::string to = fileName(static_cast<int>(random() % kFiles));
        known("rename " + file, VEL::rename(file.c_str(), to.c_str()));
        break;
      }
      case 10:
        known("unlink " + file, VEL::unlink(file.c_str()));
        break;
      case 11: {
        std::string latin1;
        std::string utf8;
        if (VEL::convertFromUtf8(latin1, "caf\xC3\xA9", "ISO-8859-1") != 0 || latin1 != "caf\xE9" ||
            VEL::convertToUtf8(utf8, latin1, "ISO-8859-1") != 0 || utf8 != "caf\xC3\xA9") {
          failed("conversion gave \"" + latin1 + "\", \"" + utf8 + "\"");
        }
        break;
      }
      default:
        VEL::getLogger()->log(VEL::kLogError, "[VEL] stress thread %d pass %03d", t, pass);
        logged_[t].push_back(pass);
        break;
    }
  }

  // Every line is whole ("YYYY-MM-DD HH:MM:SS LEVEL text") and every line a
  // thread logged is there exactly once.
  void checkLog(const std::string& path) {
    std::istringstream lines(veltest::readFile(path));
    static const std::regex kLine(
        "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} "
        "(ASSERT|ERROR|CALL|DEBUG|INFO|UNKNOWN) .*");
    static const std::regex kOwn(".* ERROR \\[VEL\\] stress thread ([0-7]) pass ([0-9]{3})");
    std::vector<std::vector<int>> seen(kThreads, std::vector<int>(kIterations, 0));
    std::string line;
    int torn = 0;
    while (std::getline(lines, line)) {
      if (!std::regex_match(line, kLine)) {
        if (++torn <= 5) ADD_FAILURE() << "torn log line: " << line;
        continue;
      }
      std::smatch own;
      if (std::regex_match(line, own, kOwn)) {
        ++seen[std::stoi(own[1])][std::stoi(own[2])];
      }
    }
    EXPECT_EQ(torn, 0);
    for (int t = 0; t < kThreads; ++t) {
      for (int pass : logged_[t]) {
        EXPECT_EQ(seen[t][pass], 1) << "thread " << t << " pass " << pass;
      }
    }
  }

  std::mutex mutex_;
  std::vector<std::string> failures_;
  std::vector<int> logged_[kThreads];
};

// The shared paths as the threads find them: s/d0 and every file with
// one whole text.
void seed(const std::string& root) {
  veltest::makeDirs(root + "/s/d0");
  for (int n = 0; n < kFiles; ++n) {
    veltest::writeFile(root + "/" + fileName(n), writerText(0, 0));
  }
}

TEST_F(StressTest, LocalMode) {
  veltest::TempDir dir;
  const std::string mirror = dir.sub("mirror");
  seed(mirror);
  veltest::makeDirs(dir.sub("log"));
  veltest::ScopedEnv root("TARN_ROOT_DIR", mirror.c_str());
  veltest::ScopedEnv log("_APP_LOG_DIR", dir.sub("log").c_str());
  race("Local", dir.sub("log"));
  checkFiles(mirror);
}

TEST_F(StressTest, RemoteMode) {
  veltest::AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  agent.exportEnv();
  seed(agent.store());
  race("Tavora", agent.logDir());
  checkFiles(agent.mirror());
  checkFiles(agent.store());
}

}  // namespace
