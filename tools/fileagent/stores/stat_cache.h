// A short-lived memory of what a network store last learned about its
// paths, so that the questions a client asks right after a listing (the
// metadata of each entry, then its download) cost no further request: a
// path answered within `window` of the moment its answer was asked for is
// answered again from here, present or (when a complete listing of its
// folder says so) absent.
//
// Staleness is bounded by the window: a change another client makes on the
// service shows here at most `window` late. Changes made through this
// store are never hidden: the store forgets every path it changes before
// and after it changes it, and an answer whose request began before any
// such forgetting is not kept (ticket()).
//
// Thread safety: every method may be called from several threads at once.
#ifndef VEL_TOOLS_FILEAGENT_STORES_STAT_CACHE_H_
#define VEL_TOOLS_FILEAGENT_STORES_STAT_CACHE_H_

#include <chrono>
#include <cstdint>
#include <iterator>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "stores/store.h"

namespace velagent {

class StatCache {
 public:
  using Clock = std::chrono::steady_clock;

  // What a request began with: when it was sent, and how many changes had
  // been made by then.
  struct Ticket {
    Clock::time_point asked;
    uint64_t changes = 0;
  };

  enum class Found { kUnknown, kPresent, kAbsent };

  explicit StatCache(std::chrono::milliseconds window) : window_(window) {}
  StatCache(const StatCache&) = delete;
  StatCache& operator=(const StatCache&) = delete;

  // Taken just before the request whose answer goes into put()/putListing().
  Ticket ticket() const;
  // Remembers `st` for `path` ("" is the top).
  void put(const Ticket& ticket, const std::string& path, const StoreStat& st);
  // Remembers that nothing is at `path`.
  void putAbsent(const Ticket& ticket, const std::string& path);
  // Remembers the folder `path` (`self` describes it) as holding exactly
  // `entries`, each described.
  void putListing(const Ticket& ticket, const std::string& path, const StoreStat& self,
                  const std::vector<StoreEntry>& entries);
  // What is known of `path` within the window: kPresent with `out`, kAbsent
  // (a fresh listing of its folder lacks it), or kUnknown.
  Found get(const std::string& path, StoreStat& out) const;
  // Forgets `path`, everything below it and the listing of its folder.
  void forget(const std::string& path);
  // Forgets what is known of `path` itself (a change of its properties
  // only: what is known below it and beside it stays).
  void forgetNode(const std::string& path);
  // Records that the mode of `path` became `mode` (where `path` is known).
  void changeMode(const std::string& path, unsigned mode);
  std::chrono::milliseconds window() const { return window_; }

 private:
  struct Known {
    StoreStat stat;
    Clock::time_point asked;
    bool absent = false;
  };
  bool fresh(Clock::time_point asked) const { return Clock::now() - asked < window_; }
  // Under mutex_: drops expired entries when the maps grow large.
  void trim();

  const std::chrono::milliseconds window_;
  mutable std::mutex mutex_;
  uint64_t changes_ = 0;
  std::map<std::string, Known> paths_;
  std::map<std::string, Clock::time_point> listings_;  // folders listed whole
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_STAT_CACHE_H_
