// End-to-end cases of the public API in remote mode: every case starts the
// reference file agent on a fresh store, mirror, socket folder and log
// folder, exports them, and initialises the process-wide client as
// "Tavora"; at the end the client is finished and the agent stopped.
#ifndef VEL_TESTS_REMOTE_E2E_H_
#define VEL_TESTS_REMOTE_E2E_H_

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"
#include "vel/client_tavora.h"
#include "vel/instance.h"
#include "vel/log.h"

namespace veltest {

// Captures standard output for its lifetime, so that a failing ASSERT
// inside a capture cannot leave it active for the cases that follow.
class StdoutCapture {
 public:
  StdoutCapture() { testing::internal::CaptureStdout(); }
  ~StdoutCapture() {
    if (active_) {
      testing::internal::GetCapturedStdout();
    }
  }
  StdoutCapture(const StdoutCapture&) = delete;
  StdoutCapture& operator=(const StdoutCapture&) = delete;
  // Ends the capture and returns what was printed.
  std::string text() {
    active_ = false;
    return testing::internal::GetCapturedStdout();
  }

 private:
  bool active_ = true;
};

class RemoteE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    agent_.reset(new AgentFixture());
    ASSERT_TRUE(agent_->ready());
    agent_->exportEnv();
    VEL::releaseLogger();
    VEL::init({{"clientType", "Tavora"}});
    ASSERT_NE(dynamic_cast<VEL::VELClientTavora*>(VEL::getInstance()), nullptr);
    agent_->clearJournal();
  }

  void TearDown() override {
    // finish() keeps the retired back-end reachable; a new init() creates
    // a fresh one for the next case.
    VEL::finish();
    VEL::releaseLogger();
    agent_.reset();
  }

  std::string store(const std::string& rel) const { return agent_->store() + "/" + rel; }
  std::string mirror(const std::string& rel) const { return agent_->mirror() + "/" + rel; }
  std::string mirrorRoot() const { return agent_->mirror(); }

  void storeDir(const std::string& rel, mode_t mode) {
    makeDirs(store(rel), 0755);
    ::chmod(store(rel).c_str(), mode);
  }
  void storeFile(const std::string& rel, const std::string& content, mode_t mode = 0644) {
    std::string path = store(rel);
    makeDirs(path.substr(0, path.rfind('/')), 0755);
    writeFile(path, content);
    ::chmod(path.c_str(), mode);
  }
  void mirrorFile(const std::string& rel, const std::string& content) {
    std::string path = mirror(rel);
    makeDirs(path.substr(0, path.rfind('/')), 0750);
    writeFile(path, content);
  }

  // Every request so far, its arguments joined by single blanks.
  std::vector<std::string> requests() const {
    std::vector<std::string> joined;
    for (const std::vector<std::string>& request : agent_->journal()) {
      std::string line;
      for (const std::string& arg : request) {
        line += (line.empty() ? "" : " ") + arg;
      }
      joined.push_back(line);
    }
    return joined;
  }
  // Index of the first request equal to `request`, or -1.
  long indexOf(const std::string& request) const {
    std::vector<std::string> all = requests();
    for (size_t i = 0; i < all.size(); ++i) {
      if (all[i] == request) {
        return static_cast<long>(i);
      }
    }
    return -1;
  }
  size_t countOf(const std::string& prefix) const {
    size_t count = 0;
    for (const std::string& request : requests()) {
      count += request.compare(0, prefix.size(), prefix) == 0 ? 1 : 0;
    }
    return count;
  }

  std::string logText() const { return readFile(agent_->logDir() + "/velsdk.log"); }
  bool logged(const std::string& text) const { return logText().find(text) != std::string::npos; }

  // Mirror-relative names of the kept copies of `rel` (same folder).
  std::vector<std::string> keptCopies(const std::string& rel) const {
    std::vector<std::string> kept;
    size_t slash = rel.rfind('/');
    std::string dir = slash == std::string::npos ? "" : rel.substr(0, slash);
    std::string name = slash == std::string::npos ? rel : rel.substr(slash + 1);
    DIR* handle = ::opendir(dir.empty() ? mirrorRoot().c_str() : mirror(dir).c_str());
    if (handle == nullptr) {
      return kept;
    }
    std::string prefix = name + ".vel.keep.";
    while (struct dirent* entry = ::readdir(handle)) {
      std::string found = entry->d_name;
      if (found.compare(0, prefix.size(), prefix) == 0) {
        kept.push_back(dir.empty() ? found : dir + "/" + found);
      }
    }
    ::closedir(handle);
    return kept;
  }

  // Everything below `root`: relative path -> "dir <mode>" or
  // "file <mode> <content>". Compared before and after an operation to
  // prove that no local byte was lost.
  static std::map<std::string, std::string> snapshot(const std::string& root) {
    std::map<std::string, std::string> nodes;
    walk(root, "", nodes);
    return nodes;
  }

  std::unique_ptr<AgentFixture> agent_;

 private:
  static void walk(const std::string& root, const std::string& rel,
                   std::map<std::string, std::string>& nodes) {
    std::string dir = rel.empty() ? root : root + "/" + rel;
    DIR* handle = ::opendir(dir.c_str());
    if (handle == nullptr) {
      return;
    }
    std::vector<std::string> names;
    while (struct dirent* entry = ::readdir(handle)) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") {
        names.push_back(name);
      }
    }
    ::closedir(handle);
    for (const std::string& name : names) {
      std::string child = rel.empty() ? name : rel + "/" + name;
      struct stat st;
      if (::lstat((root + "/" + child).c_str(), &st) != 0) {
        continue;
      }
      std::string mode = std::to_string(st.st_mode & 07777);
      if (S_ISDIR(st.st_mode)) {
        nodes[child] = "dir " + mode;
        walk(root, child, nodes);
      } else {
        nodes[child] = "file " + mode + " " + readFile(root + "/" + child);
      }
    }
  }
};

}  // namespace veltest

#endif  // VEL_TESTS_REMOTE_E2E_H_
