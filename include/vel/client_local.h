// VELClientLocal: the back-end for hosts without a service ("Local"). It
// answers every remote-only operation with 0 and works on the mirror alone
// for listing, directory creation and permission changes. Stateless; safe
// for concurrent calls as far as the file system calls are.
#ifndef VEL_CLIENT_LOCAL_H_
#define VEL_CLIENT_LOCAL_H_

#include "vel/client.h"
#include "vel/export.h"

namespace VEL {

class VEL_API VELClientLocal : public VELClient {
 public:
  int32_t start() override { return 0; }
  int32_t stop() override { return 0; }
  int32_t release() override { return 0; }
  int32_t isLocalOnly() override { return 1; }
  int32_t getNodeInfoFromRemote(const std::string&, VELFileInfoWrap*) override { return 0; }
  int32_t syncNodeFromRemote(const std::string&, VELFileInfoMap*) override { return 0; }
  int32_t putFileToRemote(const std::string&) override { return 0; }
  int32_t removeObjectOnRemote(const std::string&) override { return 0; }
  int32_t syncTreeFromRemote(const std::string&) override { return 0; }
  // Lists files and directories below the path, up to maxDepth levels
  // (65535 when maxDepth < 1), within the tree bounds VEL_MAX_TREE_DEPTH
  // and VEL_MAX_TREE_ENTRIES (where it stops is logged). Symbolic links are
  // listed, never descended. -11 when missing, -16 for a regular file.
  int32_t listDir(const std::string& path, int32_t maxDepth, bool filesOnly,
                  std::list<std::string>& names) override;
  int32_t newDir(const std::string& path, uint32_t mode, bool recursive) override;
  int32_t delDir(const std::string&, bool) override { return 0; }
  int32_t rename(const std::string&, const std::string&) override { return 0; }
  int32_t RenameDir(const std::string&, const std::string&) override { return 0; }
  int32_t renameCache(const std::string&, const std::string&) override { return 0; }
  int32_t chmod(const std::string& path, uint32_t mode) override;
  void notify() override {}
};

}  // namespace VEL

#endif  // VEL_CLIENT_LOCAL_H_
