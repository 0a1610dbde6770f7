// Shared by the remote back-end tests: every case starts its own reference
// agent with a fresh store, mirror, socket folder and log folder, points the
// environment at them and initialises the client as "Tavora"; at the end the
// client is finished and deleted and the agent stopped.
#ifndef VEL_TESTS_REMOTE_FIXTURE_H_
#define VEL_TESTS_REMOTE_FIXTURE_H_

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"
#include "vel/client_config.h"
#include "vel/client_tavora.h"
#include "vel/instance.h"
#include "vel/log.h"

class RemoteFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    agent_.reset(new veltest::AgentFixture());
    ASSERT_TRUE(agent_->ready());
    agent_->exportEnv();
    VEL::releaseLogger();
    VEL::init({{"clientType", "Tavora"}});
    client_ = dynamic_cast<VEL::VELClientTavora*>(VEL::getInstance());
    ASSERT_NE(client_, nullptr);
    agent_->clearJournal();
  }

  void TearDown() override {
    if (client_ != nullptr) {
      VEL::VELClientConfig* config = client_->config();
      VEL::finish();
      delete client_;
      delete config;
      client_ = nullptr;
    }
    VEL::releaseLogger();
    agent_.reset();
  }

  std::string store(const std::string& rel) const { return agent_->store() + "/" + rel; }
  std::string mirror(const std::string& rel) const { return agent_->mirror() + "/" + rel; }
  std::string mirrorRoot() const { return agent_->mirror(); }
  std::string udsRoot() const { return agent_->udsRoot(); }

  void storeDir(const std::string& rel, mode_t mode) {
    veltest::makeDirs(store(rel), 0755);
    ::chmod(store(rel).c_str(), mode);
  }
  void storeFile(const std::string& rel, const std::string& content, mode_t mode) {
    std::string path = store(rel);
    veltest::makeDirs(path.substr(0, path.rfind('/')), 0755);
    veltest::writeFile(path, content);
    ::chmod(path.c_str(), mode);
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
  void clearRequests() { agent_->clearJournal(); }
  // Position of the first request equal to `request`; size() when absent.
  static size_t indexOf(const std::vector<std::string>& list, const std::string& request) {
    for (size_t i = 0; i < list.size(); ++i) {
      if (list[i] == request) return i;
    }
    return list.size();
  }
  size_t countOf(const std::string& prefix) const {
    size_t count = 0;
    for (const std::string& request : requests()) {
      if (request.compare(0, prefix.size(), prefix) == 0) ++count;
    }
    return count;
  }

  void setRules(const std::string& json) { agent_->setRules(json); }
  void stopAgent() { agent_->stop(); }
  std::string logText() const { return veltest::readFile(agent_->logDir() + "/velsdk.log"); }

  // Mirror-relative names of the kept copies of dir/name.
  std::vector<std::string> keptCopies(const std::string& dir, const std::string& name) const {
    std::vector<std::string> kept;
    std::string local = dir.empty() ? mirrorRoot() : mirror(dir);
    DIR* handle = ::opendir(local.c_str());
    if (handle == nullptr) return kept;
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

  std::unique_ptr<veltest::AgentFixture> agent_;
  VEL::VELClientTavora* client_ = nullptr;
};

#endif  // VEL_TESTS_REMOTE_FIXTURE_H_
