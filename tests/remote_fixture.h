// Shared by the remote-mode tests: every case starts its own reference agent
// with a fresh store, mirror, socket folder and log folder, points the
// environment at them and initialises the client as "Tavora"; at the end the
// client is finished and the agent stopped.
//
// Each suite runs once per kind of store: the agent serves the store folder
// itself (Folder), a WebDAV server serves it and the agent talks to that
// server (WebDav), or the agent serves a fresh key prefix of the run's S3
// bucket on a one-node Ceph cluster (S3, see support/ceph_cluster.h). The
// store helpers work for all: what they write into the folder is handed to
// the server, and modes go into the server's mode property; with S3 they
// write and read objects and their metadata.
#ifndef VEL_TESTS_REMOTE_FIXTURE_H_
#define VEL_TESTS_REMOTE_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"
#include "vel/client_tavora.h"
#include "vel/instance.h"
#include "vel/log.h"

// kWebDavNginx: a WebDAV store on nginx, a server that ignores the
// conditions of PUT and DELETE and keeps no properties; only the
// two-device suite runs on it (allStores() runs Apache).
enum class StoreKind { kFolder, kWebDav, kS3, kWebDavNginx };

inline bool isWebDav(StoreKind kind) {
  return kind == StoreKind::kWebDav || kind == StoreKind::kWebDavNginx;
}

inline void PrintTo(StoreKind kind, std::ostream* out) {
  *out << (kind == StoreKind::kFolder        ? "folder store"
           : kind == StoreKind::kWebDav      ? "WebDAV store"
           : kind == StoreKind::kWebDavNginx ? "WebDAV store on nginx"
                                             : "S3 store");
}

inline std::string storeKindName(const ::testing::TestParamInfo<StoreKind>& info) {
  return info.param == StoreKind::kFolder        ? "Folder"
         : info.param == StoreKind::kWebDav      ? "WebDav"
         : info.param == StoreKind::kWebDavNginx ? "WebDavNginx"
                                                 : "S3";
}

// Every kind: INSTANTIATE_TEST_SUITE_P(Stores, Suite, allStores(), storeKindName).
inline auto allStores() {
  return ::testing::Values(StoreKind::kFolder, StoreKind::kWebDav, StoreKind::kS3);
}
// The folder and WebDAV kinds only.
inline auto bothStores() { return ::testing::Values(StoreKind::kFolder, StoreKind::kWebDav); }

// Skips the running test where the Ceph programs cannot be had; fails it
// where they are installed and the cluster does not run.
#define VEL_REQUIRE_S3_SERVICE()                                          \
  do {                                                                    \
    std::string why_;                                                     \
    bool unavailable_ = false;                                            \
    if (veltest::sharedS3Service(why_, unavailable_) == nullptr) {        \
      if (unavailable_) GTEST_SKIP() << "no Ceph cluster here: " << why_; \
      FAIL() << why_;                                                     \
    }                                                                     \
  } while (false)

class RemoteFixture : public ::testing::TestWithParam<StoreKind> {
 protected:
  void SetUp() override {
    // A WebDAV case on a machine where no server can run (no Apache) is
    // skipped, saying why.
    std::string why;
    if (webdav() && !veltest::WebDavServer::available(why)) {
      GTEST_SKIP() << "no WebDAV server here: " << why;
    }
    if (s3()) {
      VEL_REQUIRE_S3_SERVICE();
    }
    veltest::AgentOptions options;
    options.webdav = webdav();
    options.s3 = s3();
    agent_.reset(new veltest::AgentFixture(options));
    ASSERT_TRUE(agent_->ready());
    agent_->exportEnv();
    VEL::releaseLogger();
    VEL::init({{"clientType", "Tavora"}});
    ASSERT_NE(dynamic_cast<VEL::VELClientTavora*>(VEL::getInstance()), nullptr);
    agent_->clearJournal();
  }

  void TearDown() override {
    VEL::finish();  // a retired back-end stays reachable; the next init() makes a new one
    VEL::releaseLogger();
    agent_.reset();
  }

  bool webdav() const { return GetParam() == StoreKind::kWebDav; }
  bool s3() const { return GetParam() == StoreKind::kS3; }

  std::string store(const std::string& rel) const { return agent_->store() + "/" + rel; }
  // What the service holds at `rel`: a file's bytes ("" when none), and
  // whether anything (file or folder) is there.
  std::string storeRead(const std::string& rel) const {
    if (s3()) {
      veltest::S3Client::Answer answer = agent_->s3()->get(rel);
      return answer.status == 200 ? answer.body : "";
    }
    return veltest::readFile(store(rel));
  }
  bool storeHas(const std::string& rel) const {
    return s3() ? agent_->s3()->exists(rel) : veltest::pathExists(store(rel));
  }
  std::string mirror(const std::string& rel) const { return agent_->mirror() + "/" + rel; }

  void storeDir(const std::string& rel, mode_t mode) {
    if (s3()) {
      agent_->s3()->putFolder(rel, mode);
      return;
    }
    veltest::makeDirs(store(rel), 0755);
    ::chmod(store(rel).c_str(), mode);
    handOver(rel, mode);
  }
  void storeFile(const std::string& rel, const std::string& content, mode_t mode = 0644) {
    if (s3()) {
      agent_->s3()->putFile(rel, content, mode);
      return;
    }
    agent_->storeFile(rel, content);
    ::chmod(store(rel).c_str(), mode);
    handOver(rel, mode);
  }
  // The mode the service has for `rel`: the file's with a folder store,
  // the mode property with WebDAV, the mode metadata with S3; -1 when
  // there is none.
  int storeMode(const std::string& rel) const {
    return webdav() ? agent_->server()->mode(rel)
           : s3()   ? agent_->s3()->mode(rel)
                    : veltest::permissionsOf(store(rel));
  }
  void mirrorFile(const std::string& rel, const std::string& content) {
    veltest::makeDirs(mirror(rel).substr(0, mirror(rel).rfind('/')), 0750);
    veltest::writeFile(mirror(rel), content);
  }

  // Every request so far, its arguments joined by single blanks.
  std::vector<std::string> requests() const { return agent_->requests(); }
  size_t countOf(const std::string& prefix) const {
    std::vector<std::string> all = requests();
    return std::count_if(all.begin(), all.end(), [&](const std::string& request) {
      return request.compare(0, prefix.size(), prefix) == 0;
    });
  }
  // Success when the journal holds the requests of `order` in that order.
  ::testing::AssertionResult inOrder(const std::vector<std::string>& order) const {
    std::vector<std::string> all = requests();
    auto from = all.begin();
    for (const std::string& request : order) {
      from = std::find(from, all.end(), request);
      if (from == all.end()) {
        return ::testing::AssertionFailure() << "missing or out of order: " << request;
      }
      ++from;
    }
    return ::testing::AssertionSuccess();
  }

  bool logged(const std::string& text) const {
    return veltest::readFile(agent_->logDir() + "/velsdk.log").find(text) != std::string::npos;
  }
  // Mirror paths of the copies of `rel` kept aside under ".vel.keep.<8 digits>".
  std::vector<std::string> keptCopies(const std::string& rel) const {
    return veltest::matching(mirror(rel) + ".vel.keep.[0-9][0-9][0-9][0-9][0-9][0-9][0-9][0-9]*");
  }
  // What `run` prints to standard output.
  template <typename Run>
  static std::string stdoutOf(Run run) {
    testing::internal::CaptureStdout();
    run();
    return testing::internal::GetCapturedStdout();
  }

  std::unique_ptr<veltest::AgentFixture> agent_;

 private:
  // With WebDAV, what was written into the store folder goes to the
  // server's user, and the mode into its property.
  void handOver(const std::string& rel, mode_t mode) {
    if (webdav()) {
      agent_->server()->adopt();
      EXPECT_TRUE(agent_->server()->setMode(rel, mode)) << rel;
    }
  }
};

#endif  // VEL_TESTS_REMOTE_FIXTURE_H_
