// A test back-end: every slot records its call and answers with a chosen
// status; the node lookup (slot 19) answers with chosen records. Together
// with ScopedInstance it runs the public API in remote mode (or local mode,
// with localOnly set) without an agent.
#ifndef VEL_TESTS_SUPPORT_FAKE_CLIENT_H_
#define VEL_TESTS_SUPPORT_FAKE_CLIENT_H_

#include <cstdint>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "vel/client.h"
#include "vel/client_config.h"

namespace veltest {

// What slot 19 hands out for one path.
struct FakeNode {
  int32_t code = 0;        // the slot's return value
  bool giveWrap = true;    // false: leave the caller's wrapper pointer null
  bool giveRecord = true;  // false: a wrapper without a record
  bool isFile = true;
  uint32_t mode = 0644;
  int64_t size = 0;
  int64_t lastModifyTime = 0;
  int32_t errNo = 0;  // -11: not on the service
};

class FakeClient : public VEL::VELClient {
 public:
  // `root` becomes the configured mirror root.
  explicit FakeClient(const std::string& root = "/opt/backup/vel", bool localOnly = false);

  // Calls in order, e.g. "newDir(a/b,488,0)", "stat(a)", "rename(a,b)".
  std::vector<std::string> calls;
  // Status of each operation by name ("newDir", "listDir", "rename", ...);
  // 0 when absent.
  std::map<std::string, int32_t> results;
  // Slot 19 answers by path; `missingNode` for other paths.
  std::map<std::string, FakeNode> nodes;
  FakeNode missingNode;  // by default: found on no path (errNo -11)
  // Slot 11 answers by path; an unknown path lists nothing.
  std::map<std::string, std::list<std::string>> listings;
  // Side effects that a real back-end has on the mirror.
  bool newDirMakesMirror = false;  // newDir creates the mirror directory
  bool renameMovesMirror = false;  // rename / RenameDir move the mirror copy
  bool localOnly;
  VEL::VELClientConfig ownConfig;

  int32_t start() override;
  int32_t stop() override;
  int32_t release() override;
  int32_t isLocalOnly() override { return localOnly ? 1 : 0; }
  int32_t getNodeInfoFromRemote(const std::string& path, VEL::VELFileInfoWrap* out) override;
  int32_t syncNodeFromRemote(const std::string& path, VEL::VELFileInfoMap* infoMap) override;
  int32_t putFileToRemote(const std::string& path) override;
  int32_t removeObjectOnRemote(const std::string& path) override;
  int32_t syncTreeFromRemote(const std::string& path) override;
  int32_t listDir(const std::string& path, int32_t maxDepth, bool filesOnly,
                  std::list<std::string>& names) override;
  int32_t newDir(const std::string& path, uint32_t mode, bool recursive) override;
  int32_t delDir(const std::string& path, bool flag) override;
  int32_t rename(const std::string& src, const std::string& dst) override;
  int32_t RenameDir(const std::string& src, const std::string& dst) override;
  int32_t renameCache(const std::string& src, const std::string& dst) override;
  int32_t chmod(const std::string& path, uint32_t mode) override;
  void notify() override;
  int32_t stat(const std::string& path, VEL::VELFileInfoWrap** out) override;

  // Number of recorded calls that start with `prefix`.
  size_t count(const std::string& prefix) const;

 private:
  int32_t record(const std::string& name, const std::string& args);
  void moveMirror(const std::string& src, const std::string& dst);
};

// Publishes a back-end as the process-wide instance for its lifetime and
// puts the previous one back afterwards.
class ScopedInstance {
 public:
  explicit ScopedInstance(VEL::VELClient* client);
  ~ScopedInstance();
  ScopedInstance(const ScopedInstance&) = delete;
  ScopedInstance& operator=(const ScopedInstance&) = delete;

 private:
  VEL::VELClient* previous_;
};

// Sends the library's log to a fresh file in a temporary directory for its
// lifetime (the logger is reopened on entry and on exit).
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string text() const;
  bool contains(const std::string& piece) const { return text().find(piece) != std::string::npos; }
  // Number of lines that contain `piece`.
  size_t lines(const std::string& piece) const;
  // Empties the file; later lines are appended to the empty file.
  void clear();

 private:
  TempDir dir_;
  ScopedEnv env_;
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_FAKE_CLIENT_H_
