// A folder on this machine (a local disk or a mounted shared file system)
// as the store. Every call resolves its path beneath the folder (beneath.h)
// and works through descriptors from there, so no link can take it
// outside; files are replaced through AtomicFile, so a copy is either all
// there or not at all. A file's version is its inode, size and
// modification time in nanoseconds; a conditional change checks it under
// an advisory lock (flock) on the file's folder just before it acts, so
// agents sharing the folder cannot slip a change in between (programs that
// do not take the lock can, in the moment between check and rename).
// Thread safety and statuses: see store.h.
#ifndef VEL_TOOLS_FILEAGENT_STORES_FOLDER_STORE_H_
#define VEL_TOOLS_FILEAGENT_STORES_FOLDER_STORE_H_

#include <memory>
#include <string>
#include <vector>

#include "fs/atomic_file.h"
#include "fs/beneath.h"
#include "stores/store.h"

namespace velagent {

class FolderStore : public Store {
 public:
  explicit FolderStore(const std::string& folder) : root_(folder) {}

  Status stat(const std::string& path, bool followLast, StoreStat& out) override;
  // Without reading the content note: three system calls fewer.
  Status statBrief(const std::string& path, bool followLast, StoreStat& out) override;
  Status list(const std::string& path, std::vector<StoreEntry>& out) override;
  void describe(const std::string& path, std::vector<StoreEntry>& entries) override;
  std::string identity() const override;
  Status download(const std::string& path, ByteSink& target, StoreStat& copied,
                  const std::string& ifNoneMatch) override;
  Status upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                StoreStat& written, ContentHash& sent) override;
  Status makeDirs(const std::string& path) override;
  Status createFile(const std::string& path, mode_t mode) override;
  Status move(const std::string& from, const std::string& to) override;
  Status chmod(const std::string& path, mode_t mode) override;
  Status remove(const std::string& path, bool recursive, const Expect& expect) override;
  Status open(const std::string& path, const OpenMode& mode,
              std::unique_ptr<StoreHandle>& out) override;

 private:
  Status statAt(const std::string& path, bool followLast, bool withNote, StoreStat& out);

  Root root_;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_FOLDER_STORE_H_
