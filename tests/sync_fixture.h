// Several devices sharing one service, for the sync tests: each device is
// a reference agent with a mirror, a socket and a sync record of its own,
// and every one serves the store of the first (its folder, the WebDAV
// server in front of it, or its prefix of the S3 bucket). The library is one per process, so it is
// moved from device to device (finish, the device's environment, init) by as().
#ifndef VEL_TESTS_SYNC_FIXTURE_H_
#define VEL_TESTS_SYNC_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "support/agent_fixture.h"
#include "support/temp_dir.h"
#include "vel/hooks.h"
#include "vel/instance.h"
#include "vel/log.h"
#include "vel/mutations.h"

class Fleet {
 public:
  // `count` devices on a store of `kind`; `args` go to every agent.
  Fleet(StoreKind kind, int count, const std::vector<std::string>& args = {}) : kind_(kind) {
    for (int i = 0; i < count; ++i) {
      veltest::AgentOptions options = veltest::quiet(args);
      options.webdav = isWebDav(kind);
      if (kind == StoreKind::kWebDavNginx) {
        options.server.kind = veltest::WebDavServerKind::kNginx;
      }
      options.s3 = kind == StoreKind::kS3;
      options.sharedWith = devices_.empty() ? nullptr : devices_.front().get();
      devices_.emplace_back(new veltest::AgentFixture(options));
    }
  }
  ~Fleet() {
    VEL::finish();
    VEL::releaseLogger();
    // The first device holds the store (and its server): it goes last.
    while (!devices_.empty()) {
      devices_.pop_back();
    }
  }
  Fleet(const Fleet&) = delete;
  Fleet& operator=(const Fleet&) = delete;

  bool ready() const {
    for (const auto& device : devices_) {
      if (!device->ready()) {
        return false;
      }
    }
    return true;
  }
  veltest::AgentFixture& device(int i) { return *devices_.at(static_cast<size_t>(i)); }
  int size() const { return static_cast<int>(devices_.size()); }

  // Runs `action` with the library working as device `i`.
  template <typename Action>
  auto as(int i, Action action) -> decltype(action()) {
    if (current_ != i) {
      VEL::finish();
      VEL::releaseLogger();
      device(i).exportEnv();
      VEL::init({{"clientType", "Tavora"}});
      current_ = i;
    }
    return action();
  }
  // `vel update PATH` and `vel commit PATH` on device `i`.
  int update(int i, const std::string& path) {
    return as(i, [&] { return VEL::syncFromServer(path, true); });
  }
  int commit(int i, const std::string& path) {
    return as(i, [&] { return VEL::syncToServer(path, true); });
  }

  // The service's bytes of `rel`, read from the store folder or the bucket
  // ("" when there is none).
  std::string service(const std::string& rel) const {
    if (kind_ == StoreKind::kS3) {
      veltest::S3Client::Answer answer = devices_.front()->s3()->get(rel);
      return answer.status == 200 ? answer.body : "";
    }
    return veltest::readFile(storePath(rel));
  }
  bool onService(const std::string& rel) const {
    return kind_ == StoreKind::kS3 ? devices_.front()->s3()->exists(rel)
                                   : veltest::pathExists(storePath(rel));
  }
  // The service's files below the folder `rel` ("" for all), by path below
  // it, with their bytes; for S3 (the others are folders: snapshot them).
  std::map<std::string, std::string> bucketFiles(const std::string& rel) const {
    std::map<std::string, std::string> out;
    veltest::S3Client& client = *devices_.front()->s3();
    const std::string below = rel.empty() ? "" : rel + "/";
    for (const std::string& key : client.keys(below)) {
      if (!key.empty() && key.back() != '/') {
        out[key.substr(below.size())] = client.get(key).body;
      }
    }
    return out;
  }
  bool s3() const { return kind_ == StoreKind::kS3; }
  // Another program changes `rel` on the service.
  void serviceWrite(const std::string& rel, const std::string& content) {
    devices_.front()->storeFile(rel, content);
  }
  std::string storePath(const std::string& rel) const {
    return devices_.front()->store() + "/" + rel;
  }

  std::string mirrorPath(int i, const std::string& rel) { return device(i).mirror() + "/" + rel; }
  std::string mirror(int i, const std::string& rel) {
    return veltest::readFile(mirrorPath(i, rel));
  }
  bool inMirror(int i, const std::string& rel) { return veltest::pathExists(mirrorPath(i, rel)); }
  // An application writes the mirror file of device `i` directly.
  void edit(int i, const std::string& rel, const std::string& content) {
    std::string path = mirrorPath(i, rel);
    veltest::makeDirs(path.substr(0, path.rfind('/')), 0750);
    veltest::writeFile(path, content);
  }
  // The kept copies of `rel` in the mirror of device `i`.
  std::vector<std::string> kept(int i, const std::string& rel) {
    return veltest::matching(mirrorPath(i, rel) + ".vel.keep.[0-9]*");
  }
  // Every kept copy anywhere below the mirror of device `i`.
  std::vector<std::string> allKept(int i) {
    std::vector<std::string> out;
    for (const auto& entry : veltest::snapshot(device(i).mirror())) {
      if (entry.first.find(".vel.keep.") != std::string::npos) {
        out.push_back(entry.first);
      }
    }
    return out;
  }
  // Which file the mirror holds at `rel`: its inode and modification time
  // (a copy put in place is a new file, with a new time); "" for none.
  std::string fileAt(int i, const std::string& rel) {
    struct stat st;
    if (::lstat(mirrorPath(i, rel).c_str(), &st) != 0) {
      return "";
    }
    return std::to_string(st.st_ino) + "@" + std::to_string(st.st_mtim.tv_sec) + "." +
           std::to_string(st.st_mtim.tv_nsec);
  }

 private:
  StoreKind kind_;
  std::vector<std::unique_ptr<veltest::AgentFixture>> devices_;
  int current_ = -1;
};

#endif  // VEL_TESTS_SYNC_FIXTURE_H_
