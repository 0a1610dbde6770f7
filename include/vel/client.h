// VELClient: the back-end behind every public file operation, and
// VELFileInfoWrap, the owning holder through which a back-end hands out one
// node's record.
//
// One back-end object exists per process (see instance.h). Paths given to
// the back-end are service paths: below the mirror root, cleaned by the
// public API. Every operation returns a signed 32-bit status: 0 success;
// -1 a local mkdir/rename failed or a lookup brought no record; -4 missing
// out-parameter; -6 no agent connection (rename, chmod); -11 object missing;
// -12 directory already exists; -16 not a directory; -18 no agent
// connection (other remote operations); -19 node absent on the service;
// other values are agent statuses passed through. No exception leaves a
// back-end. The open-mode registry has no lock of its own.
#ifndef VEL_CLIENT_H_
#define VEL_CLIENT_H_

#include <cstdint>
#include <cstdio>
#include <list>
#include <map>
#include <string>
#include <utility>

#include "vel/export.h"
#include "vel/records.h"

namespace VEL {

class VELClientConfig;

// Owns at most one VELFileInfo; deletes it when destroyed or given another.
class VEL_API VELFileInfoWrap {
 public:
  VELFileInfoWrap() = default;
  explicit VELFileInfoWrap(VELFileInfo* info) : info_(info) {}
  ~VELFileInfoWrap() { delete info_; }
  VELFileInfoWrap(const VELFileInfoWrap&) = delete;
  VELFileInfoWrap& operator=(const VELFileInfoWrap&) = delete;

  VELFileInfo* get() const { return info_; }
  // Takes ownership of `info`, deleting the record held before.
  void reset(VELFileInfo* info = nullptr) {
    if (info != info_) {
      delete info_;
      info_ = info;
    }
  }
  // Gives up ownership without deleting.
  VELFileInfo* release() {
    VELFileInfo* info = info_;
    info_ = nullptr;
    return info;
  }

 private:
  VELFileInfo* info_ = nullptr;
};

// Records already known to a caller, by service path (not owned by the map).
using VELFileInfoMap = std::map<std::string, VELFileInfo*>;

class VEL_API VELClient {
 public:
  VELClient() = default;
  VELClient(const VELClient&) = delete;
  VELClient& operator=(const VELClient&) = delete;

  // Slot 0: keeps a non-owning pointer to the configuration.
  virtual int32_t attachConfig(VELClientConfig* config);
  // Slot 1: creates the mirror root when it is missing (0750, with its
  // missing parents), then the 19 module directories under it (0750);
  // returns 0 or the result of the last failed mkdir.
  virtual int32_t createRoot();
  // Slots 2..4: life-cycle hooks; finish() calls stop() then release().
  virtual int32_t start() = 0;
  virtual int32_t stop() = 0;
  virtual int32_t release() { return stop(); }
  // Slot 5: 1 for a back-end without a remote side, else 0.
  virtual int32_t isLocalOnly() = 0;
  // Slot 6: looks the node up on the service into `out`.
  virtual int32_t getNodeInfoFromRemote(const std::string& path, VELFileInfoWrap* out) = 0;
  // Slot 7: brings the node (and a file's content) into the mirror.
  virtual int32_t syncNodeFromRemote(const std::string& path, VELFileInfoMap* infoMap) = 0;
  // Slot 8: uploads the mirror file to the service.
  virtual int32_t putFileToRemote(const std::string& path) = 0;
  // Slot 9: removes a file or an empty directory on the service.
  virtual int32_t removeObjectOnRemote(const std::string& path) = 0;
  // Slot 10: synchronises the whole tree below the path from the service.
  virtual int32_t syncTreeFromRemote(const std::string& path) = 0;
  // Slot 11: lists the path into `names` (cleared first).
  virtual int32_t listDir(const std::string& path, int32_t maxDepth, bool filesOnly,
                          std::list<std::string>& names) = 0;
  // Slot 12: creates a directory (and, when recursive, its missing parents).
  virtual int32_t newDir(const std::string& path, uint32_t mode, bool recursive) = 0;
  // Slot 13: removes a directory tree on the service.
  virtual int32_t delDir(const std::string& path, bool flag) = 0;
  // Slot 14: renames a file on the service ("tarn.move").
  virtual int32_t rename(const std::string& src, const std::string& dst) = 0;
  // Slot 15: renames a directory through the mirror.
  virtual int32_t RenameDir(const std::string& src, const std::string& dst) = 0;
  // Slot 16: renames on the service with "tarn.move_cache".
  virtual int32_t renameCache(const std::string& src, const std::string& dst) = 0;
  // Slot 17: changes the permission bits.
  virtual int32_t chmod(const std::string& path, uint32_t mode) = 0;
  // Slot 18: notification hook.
  virtual void notify() = 0;
  // Slot 19: the node lookup of the status queries. Returns -4 when `out`
  // is null; otherwise creates *out when it is null and fills it.
  virtual int32_t stat(const std::string& path, VELFileInfoWrap** out);
  // Slot 20: forgets what the back-end remembers of the path.
  virtual int32_t forgetNode(const std::string& path);
  virtual ~VELClient() = default;

  VELClientConfig* config() const { return config_; }

  // The open-file registry: the path and fopen mode of each open stream.
  void putFileOpenMode(FILE* handle, const std::string& path, const std::string& mode);
  bool getFileOpenMode(FILE* handle, std::string& path, std::string& mode);
  // As getFileOpenMode, and the entry is removed: for a stream being closed,
  // whose address a later stream may reuse.
  bool takeFileOpenMode(FILE* handle, std::string& path, std::string& mode);

  // Client role number for a role name (0 when unknown).
  static int32_t getClientRole(const std::string& name);

 protected:
  VELClientConfig* config_ = nullptr;
  std::string roleName_ = "Client";
  std::string extra_;
  int32_t value_ = 0;
  std::map<FILE*, std::pair<std::string, std::string>> openModes_;
};

// The 19 module directories created under the mirror root, in order.
extern VEL_API const char* const kModuleDirs[19];

}  // namespace VEL

#endif  // VEL_CLIENT_H_
