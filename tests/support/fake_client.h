// A recording test back-end: every slot appends "name(args)" to `calls` and
// answers results["name(args)"], else results["name"], else 0; the node
// lookup (slot 19) answers from `nodes`. Published with ScopedInstance it
// drives the public API in remote mode (or local mode, with localOnly set)
// without an agent.
#ifndef VEL_TESTS_SUPPORT_FAKE_CLIENT_H_
#define VEL_TESTS_SUPPORT_FAKE_CLIENT_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "client/instance_internal.h"
#include "support/temp_dir.h"
#include "vel/client.h"
#include "vel/client_config.h"
#include "vel/log.h"

namespace veltest {

// What slot 19 hands out for one path, in aggregate order:
// {code, giveWrap, isFile, mode, size, lastModifyTime, errNo}.
struct FakeNode {
  int32_t code = 0;      // the slot's return value
  bool giveWrap = true;  // false: leave the caller's wrapper pointer null
  bool isFile = true;
  uint32_t mode = 0644;
  int64_t size = 0;
  int64_t lastModifyTime = 0;
  int32_t errNo = 0;  // -11: not on the service
};

class FakeClient : public VEL::VELClient {
  using S = const std::string&;

 public:
  explicit FakeClient(S root = "/opt/backup/vel", bool localOnly = false);

  std::vector<std::string> calls;  // e.g. "newDir(a/b,488,0)", "putFileToRemote(a)"
  std::map<std::string, int32_t> results;
  std::map<std::string, FakeNode> nodes;  // other paths: not on the service (errNo -11)
  std::map<std::string, std::list<std::string>> listings;  // slot 11 by path
  // Effects of a real back-end on the mirror: newDir creates the directory,
  // rename and RenameDir move the mirror copy.
  bool newDirMakesMirror = false;
  bool renameMovesMirror = false;
  bool localOnly;
  VEL::VELClientConfig ownConfig;

  int32_t start() override { return record(__func__, ""); }
  int32_t stop() override { return record(__func__, ""); }
  int32_t release() override { return record(__func__, ""); }
  int32_t isLocalOnly() override { return localOnly ? 1 : 0; }
  int32_t getNodeInfoFromRemote(S p, VEL::VELFileInfoWrap*) override { return record(__func__, p); }
  int32_t syncNodeFromRemote(S p, VEL::VELFileInfoMap*) override { return record(__func__, p); }
  int32_t putFileToRemote(S p) override { return record(__func__, p); }
  int32_t removeObjectOnRemote(S p) override { return record(__func__, p); }
  int32_t syncTreeFromRemote(S p) override { return record(__func__, p); }
  int32_t listDir(S path, int32_t maxDepth, bool filesOnly, std::list<std::string>& names) override;
  int32_t newDir(S path, uint32_t mode, bool recursive) override;
  int32_t delDir(S p, bool flag) override { return record(__func__, p + (flag ? ",1" : ",0")); }
  int32_t rename(S src, S dst) override { return move(__func__, src, dst); }
  int32_t RenameDir(S src, S dst) override { return move(__func__, src, dst); }
  int32_t renameCache(S src, S dst) override { return record(__func__, src + "," + dst); }
  int32_t chmod(S p, uint32_t m) override { return record(__func__, p + "," + std::to_string(m)); }
  void notify() override { record(__func__, ""); }
  int32_t stat(S path, VEL::VELFileInfoWrap** out) override;

 private:
  int32_t record(S name, S args);
  int32_t move(S name, S src, S dst);
};

// Publishes a back-end as the process-wide instance for its lifetime and
// puts the previous one back afterwards.
class ScopedInstance {
 public:
  explicit ScopedInstance(VEL::VELClient* client) : previous_(VEL::setInstanceForTest(client)) {}
  ~ScopedInstance() { VEL::setInstanceForTest(previous_); }
  ScopedInstance(const ScopedInstance&) = delete;
  ScopedInstance& operator=(const ScopedInstance&) = delete;

 private:
  VEL::VELClient* previous_;
};

// Sends the library's log to a fresh file in a temporary directory for its
// lifetime (the logger is reopened on entry and on exit).
class LogCapture {
 public:
  LogCapture() : env_("_APP_LOG_DIR", dir_.path().c_str()) { VEL::releaseLogger(); }
  ~LogCapture() { VEL::releaseLogger(); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string file() const { return dir_.sub("velsdk.log"); }
  std::string text() const { return readFile(file()); }
  bool contains(const std::string& piece) const { return text().find(piece) != std::string::npos; }
  size_t lines(const std::string& piece) const;  // lines that contain `piece`
  void clear() { writeFile(file(), ""); }        // empties the file

 private:
  TempDir dir_;  // before env_, which is set to its path
  ScopedEnv env_;
};

// A recording back-end published as the instance, on a mirror of its own,
// with the log captured.
template <bool kLocalOnly>
class BackendTest : public ::testing::Test {
 protected:
  LogCapture log_;
  TempDir root_;
  FakeClient client_{root_.path(), kLocalOnly};
  ScopedInstance scope_{&client_};
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_FAKE_CLIENT_H_
