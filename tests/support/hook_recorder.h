// Test helpers for the open/close hooks and the file streams: a back-end
// that records the synchronisation calls it receives and answers with
// chosen statuses, a scope that publishes it as the process-wide instance,
// a reader of the log lines written since a point in time, and a global
// environment that puts the process into local mode on a temporary mirror.
#ifndef VEL_TESTS_SUPPORT_HOOK_RECORDER_H_
#define VEL_TESTS_SUPPORT_HOOK_RECORDER_H_

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/instance_internal.h"
#include "support/temp_dir.h"
#include "vel/client.h"
#include "vel/client_config.h"
#include "vel/instance.h"
#include "vel/log.h"

namespace veltest {

// Records "sync:<path>", "tree:<path>", "put:<path>" and
// "newDir:<path>:<octal mode>:<recursive>" in call order.
class RecordingClient : public VEL::VELClient {
 public:
  std::vector<std::string> calls;
  int32_t localOnly = 0;
  int32_t syncDefault = 0;
  std::map<std::string, int32_t> syncResults;  // by path, overrides syncDefault
  int32_t putDefault = 0;
  std::map<std::string, int32_t> putResults;
  int32_t newDirResult = 0;
  int32_t treeResult = 0;

  int32_t start() override { return 0; }
  int32_t stop() override { return 0; }
  int32_t isLocalOnly() override { return localOnly; }
  int32_t getNodeInfoFromRemote(const std::string& path, VEL::VELFileInfoWrap*) override {
    calls.push_back("info:" + path);
    return 0;
  }
  int32_t syncNodeFromRemote(const std::string& path, VEL::VELFileInfoMap*) override {
    calls.push_back("sync:" + path);
    auto it = syncResults.find(path);
    return it != syncResults.end() ? it->second : syncDefault;
  }
  int32_t putFileToRemote(const std::string& path) override {
    calls.push_back("put:" + path);
    auto it = putResults.find(path);
    return it != putResults.end() ? it->second : putDefault;
  }
  int32_t removeObjectOnRemote(const std::string& path) override {
    calls.push_back("remove:" + path);
    return 0;
  }
  int32_t syncTreeFromRemote(const std::string& path) override {
    calls.push_back("tree:" + path);
    return treeResult;
  }
  int32_t listDir(const std::string& path, int32_t, bool, std::list<std::string>& names) override {
    calls.push_back("list:" + path);
    names.clear();
    return 0;
  }
  int32_t newDir(const std::string& path, uint32_t mode, bool recursive) override {
    char octal[16];
    std::snprintf(octal, sizeof(octal), "%o", mode);
    calls.push_back("newDir:" + path + ":" + octal + ":" + (recursive ? "1" : "0"));
    return newDirResult;
  }
  int32_t delDir(const std::string&, bool) override { return 0; }
  int32_t rename(const std::string&, const std::string&) override { return 0; }
  int32_t RenameDir(const std::string&, const std::string&) override { return 0; }
  int32_t renameCache(const std::string&, const std::string&) override { return 0; }
  int32_t chmod(const std::string&, uint32_t) override { return 0; }
  void notify() override {}
};

// Publishes a RecordingClient whose mirror root is `root` as the process-wide
// instance for its lifetime, then puts the previous instance back.
class RecordingScope {
 public:
  explicit RecordingScope(const std::string& root) {
    config_.velRoot = root;
    client_.attachConfig(&config_);
    previous_ = VEL::setInstanceForTest(&client_);
  }
  ~RecordingScope() { VEL::setInstanceForTest(previous_); }
  RecordingScope(const RecordingScope&) = delete;
  RecordingScope& operator=(const RecordingScope&) = delete;

  RecordingClient& client() { return client_; }

 private:
  VEL::VELClientConfig config_;
  RecordingClient client_;
  VEL::VELClient* previous_ = nullptr;
};

// The text appended to "$_APP_LOG_DIR/velsdk.log" since construction.
class LogWatch {
 public:
  LogWatch() : path_(logPath()), start_(readFile(path_).size()) {}
  std::string text() const {
    std::string all = readFile(path_);
    return all.size() > start_ ? all.substr(start_) : std::string();
  }
  bool contains(const std::string& needle) const {
    return text().find(needle) != std::string::npos;
  }
  static std::string logPath() {
    const char* dir = std::getenv("_APP_LOG_DIR");
    return std::string(dir != nullptr ? dir : ".") + "/velsdk.log";
  }

 private:
  std::string path_;
  size_t start_;
};

// Puts the whole test process into local mode once: a temporary log
// directory and mirror root ("TARN_ROOT_DIR"), then init() with "Local".
// The instance stays published for the life of the process.
class LocalModeEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    dir_.reset(new TempDir());
    makeDirs(dir_->sub("log"));
    makeDirs(dir_->sub("mirror"));
    setenv("_APP_LOG_DIR", dir_->sub("log").c_str(), 1);
    setenv("TARN_ROOT_DIR", dir_->sub("mirror").c_str(), 1);
    VEL::releaseLogger();
    VEL::init({{"clientType", "Local"}});
    mirror() = dir_->sub("mirror");
  }
  void TearDown() override { dir_.reset(); }

  // The local-mode mirror root of this process.
  static std::string& mirror() {
    static std::string root;
    return root;
  }

 private:
  std::unique_ptr<TempDir> dir_;
};

// Sets both the access and the modification time of `path` to `when`.
inline void setTimes(const std::string& path, time_t when) {
  struct timespec times[2];
  times[0].tv_sec = when;
  times[0].tv_nsec = 0;
  times[1] = times[0];
  utimensat(AT_FDCWD, path.c_str(), times, 0);
}

inline time_t mtimeOf(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_mtime : 0;
}

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_HOOK_RECORDER_H_
