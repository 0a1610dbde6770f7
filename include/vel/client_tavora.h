// VELClientTavora: the back-end for client type "Tavora". Every remote
// action goes through a fresh TarnClient connection to the file agent whose
// socket is "$UDS_ROOT_OSSUSER/velfileagent/velfileagent.sock"; no
// connection is shared between operations. Its map of known nodes is
// guarded by its own mutex.
//
// Statuses: -18 no agent (-6 for the renames and chmod); -19 the service
// has no such node (lookups); newDir answers -12 when the service already
// had the directory (mirror and mode are brought in step all the same).
// A node the service lacks makes syncNodeFromRemote go on with its parent
// (0 at the top); nothing local is removed for it. A local regular file
// where the service has a directory (also one standing where a parent
// directory belongs) is moved aside with safeRemoveLocalObj, never deleted.
// Listings print "====>%s === %d === %s" per name and always return 0.
//
// Tree walks (syncTreeFromRemote, listDir with depth 0 or -1) go at most
// "VEL_MAX_TREE_DEPTH" levels (default 128) below their start, visit at
// most "VEL_MAX_TREE_ENTRIES" listed entries (default 1000000), and skip a
// listed entry that is not a direct child of the listed directory; both are
// logged. Modes from the service are applied to the mirror with their
// permission bits (0777) only; the queries report them as the service sent
// them. RenameDir removes the source on the service only after every node
// below it reached the mirror, every upload under the new name succeeded
// and the service lists every node it has below the source below the
// destination too (a mirror link standing for a directory is not uploaded);
// otherwise it returns the first failure (-1 for a local one, the depth
// bound or a node the destination lacks) and the service keeps the source.
#ifndef VEL_CLIENT_TAVORA_H_
#define VEL_CLIENT_TAVORA_H_

#include <sys/stat.h>

#include <memory>

#include <ace/Thread_Mutex.h>

#include "vel/client.h"
#include "vel/export.h"

namespace VEL {

class TarnClient;

class VEL_API VELClientTavora : public VELClient {
 public:
  VELClientTavora() = default;
  ~VELClientTavora() override;

  int32_t start() override { return 0; }
  int32_t stop() override { return 0; }
  int32_t release() override { return 0; }
  int32_t isLocalOnly() override { return 0; }
  int32_t getNodeInfoFromRemote(const std::string& path, VELFileInfoWrap* out) override;
  int32_t syncNodeFromRemote(const std::string& path, VELFileInfoMap* infoMap) override;
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
  void notify() override {}
  int32_t stat(const std::string& path, VELFileInfoWrap** out) override;
  int32_t forgetNode(const std::string& path) override;

  // Internal steps, public for tests.
  int32_t doSyncNodeFromRemote(const VELFileInfo& info, VELFileInfoMap* infoMap);
  int32_t DealNotFile(const std::string& localPath, const VELFileInfo& info, struct stat* st);
  int32_t syncCurrentPath(const std::string& dir, bool namesOnly, std::list<std::string>& names);
  int32_t getSubDirOrFileList(const std::string& path, bool keepDirs, int32_t depth, bool namesOnly,
                              std::list<std::string>& names);

 private:
  // A connected agent client, or null (the caller then returns -18 or -6).
  std::unique_ptr<TarnClient> TarnGetClient();
  // syncCurrentPath; with `strict` a skipped entry ends it with -1 and a
  // failed lookup with the lookup's status.
  // Each listed entry takes one from `budget` (when given); at 0 the step
  // ends with -1 and leaves *budget negative.
  int32_t syncListedDir(const std::string& dir, bool namesOnly, bool strict,
                        std::list<std::string>& names, int64_t* budget);
  // The breadth-first walk of getSubDirOrFileList's unlimited depth, `path`
  // first in `names`. Lenient: failures are logged and 0 is returned.
  // Strict: the first failure, a skipped entry or the depth bound ends it
  // with that status (-1 for the last two).
  int32_t walkTree(const std::string& path, bool namesOnly, bool strict,
                   std::list<std::string>& names);
  // The strict walk that fetches every node below `path`: 0 only when all
  // of them reached the mirror.
  int32_t pullTree(const std::string& path);
  // Whether the service holds below `dst` every node it holds below `src`
  // (the same relative name and kind), by two strict name walks: 0 when it
  // does; -1 with the first node it lacks (its path below `src`, a
  // directory ending in "/") in `missing`; or the status of a walk that
  // failed or reached a bound.
  int32_t holdsTreeUnder(const std::string& src, const std::string& dst, std::string& missing);
  // "tarn.move" (or "tarn.move_cache" with `cache`) of src to dst.
  int32_t moveOnRemote(const std::string& src, const std::string& dst, bool cache);
  // "tarn.remove" of one node, or of a whole tree with `tree`.
  int32_t removeOnRemote(const std::string& path, bool tree);

  std::map<std::string, VELFileInfo> nodes_;
  ACE_Thread_Mutex nodesLock_;
};

}  // namespace VEL

#endif  // VEL_CLIENT_TAVORA_H_
