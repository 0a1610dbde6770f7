// A short-lived memory of what a network store last learned about its
// paths, so that the questions a client asks right after a listing (the
// metadata of each entry, then the lookup of its download) cost no further
// request. It answers within `window` of the moment the answer was asked
// for, as a listing or a lookup described the path, or as the store made
// it. The store forgets a file once it has downloaded it (the download is
// the end of what a listing's walk asks about it) or changed it, so that
// the next command's question about it goes to the server again. It never
// says that something is absent: a name another client made a moment ago
// is always looked for.
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

  explicit StatCache(std::chrono::milliseconds window) : window_(window) {}
  StatCache(const StatCache&) = delete;
  StatCache& operator=(const StatCache&) = delete;

  // Taken just before the request whose answer goes into put()/putListing().
  Ticket ticket() const;
  // Remembers `path` ("" is the top) as `st` describes it.
  void put(const Ticket& ticket, const std::string& path, const StoreStat& st);
  // Remembers the folder `path` (`self` describes it) and its `entries`,
  // each described, and forgets what it knew of names the folder no
  // longer holds.
  void putListing(const Ticket& ticket, const std::string& path, const StoreStat& self,
                  const std::vector<StoreEntry>& entries);
  // What is known of `path` within the window: true with `out`, else false.
  bool get(const std::string& path, StoreStat& out) const;
  // Forgets `path` and everything below it.
  void forget(const std::string& path);
  // Forgets what is known of `path` itself (its properties changed, or a
  // walk is done with it: what is known below it stays).
  void forgetNode(const std::string& path);
  // Records that the mode of `path` became `mode` (where `path` is known).
  void changeMode(const std::string& path, unsigned mode);
  std::chrono::milliseconds window() const { return window_; }

 private:
  struct Known {
    StoreStat stat;
    Clock::time_point asked;
  };
  bool fresh(Clock::time_point asked) const { return Clock::now() - asked < window_; }
  // Under mutex_: drops expired entries when the map grows large.
  void trim();

  const std::chrono::milliseconds window_;
  mutable std::mutex mutex_;
  uint64_t changes_ = 0;
  std::map<std::string, Known> paths_;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_STAT_CACHE_H_
