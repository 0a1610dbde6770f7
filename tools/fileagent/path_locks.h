// Orders changes by path instead of holding one lock for every request: a
// change waits only for changes to the same path, to a folder above it or
// to anything below it. Changes elsewhere, and every read (metadata,
// listings), go on meanwhile: each change reaches the file system as one
// rename, mkdir or unlink, so a reader sees the old state or the new one.
//
// Thread safety: lock() may be called from any thread; a Guard is released
// by the thread that owns it.
#ifndef VEL_TOOLS_FILEAGENT_PATH_LOCKS_H_
#define VEL_TOOLS_FILEAGENT_PATH_LOCKS_H_

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace velagent {

class PathLocks {
 public:
  // Holds the locks of one change until it is destroyed.
  class Guard {
   public:
    Guard(Guard&& other) noexcept : owner_(other.owner_), held_(std::move(other.held_)) {
      other.owner_ = nullptr;
    }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;
    Guard& operator=(Guard&&) = delete;
    ~Guard();

   private:
    friend class PathLocks;
    Guard(PathLocks* owner, std::map<std::string, bool> held)
        : owner_(owner), held_(std::move(held)) {}
    PathLocks* owner_;
    std::map<std::string, bool> held_;  // path -> exclusive
  };

  // Waits until every path of `paths` (clean relative paths, "" the top)
  // can be changed, and takes them all at once: each path exclusively, the
  // folders above it shared.
  Guard lock(const std::vector<std::string>& paths);

 private:
  struct State {
    int shared = 0;
    bool exclusive = false;
  };

  bool available(const std::map<std::string, bool>& wanted) const;
  void release(const std::map<std::string, bool>& held);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, State> states_;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_PATH_LOCKS_H_
