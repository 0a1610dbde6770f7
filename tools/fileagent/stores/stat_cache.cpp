#include "stores/stat_cache.h"

namespace velagent {

namespace {

// Entries beyond which expired ones are dropped (and all, if none is).
constexpr size_t kMostEntries = 200000;

std::string parentOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "" : path.substr(0, slash);
}

// Erases `path` and every key below it ("" erases everything).
template <typename Map>
void eraseTree(Map& map, const std::string& path) {
  if (path.empty()) {
    map.clear();
    return;
  }
  map.erase(path);
  const std::string below = path + "/";
  auto it = map.lower_bound(below);
  while (it != map.end() && it->first.compare(0, below.size(), below) == 0) {
    it = map.erase(it);
  }
}

}  // namespace

StatCache::Ticket StatCache::ticket() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return Ticket{Clock::now(), changes_};
}

void StatCache::put(const Ticket& ticket, const std::string& path, const StoreStat& st) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (ticket.changes != changes_) {
    return;  // something changed while the answer was on its way
  }
  paths_[path] = Known{st, ticket.asked, false};
  trim();
}

void StatCache::putAbsent(const Ticket& ticket, const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (ticket.changes != changes_) {
    return;
  }
  paths_[path] = Known{StoreStat(), ticket.asked, true};
  trim();
}

void StatCache::putListing(const Ticket& ticket, const std::string& path, const StoreStat& self,
                           const std::vector<StoreEntry>& entries) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (ticket.changes != changes_) {
    return;
  }
  const std::string prefix = path.empty() ? "" : path + "/";
  paths_[path] = Known{self, ticket.asked, false};
  for (const StoreEntry& entry : entries) {
    if (entry.described) {
      paths_[prefix + entry.name] = Known{entry.stat, ticket.asked, false};
    }
  }
  listings_[path] = ticket.asked;
  trim();
}

StatCache::Found StatCache::get(const std::string& path, StoreStat& out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto known = paths_.find(path);
  const bool haveKnown = known != paths_.end() && fresh(known->second.asked);
  auto listing = path.empty() ? listings_.end() : listings_.find(parentOf(path));
  const bool haveListing = listing != listings_.end() && fresh(listing->second);
  // The later answer wins: a listing made after a stat that lacks the name
  // says it is gone; a stat made after a listing says what came since.
  if (haveKnown && (!haveListing || known->second.asked >= listing->second)) {
    if (known->second.absent) {
      return Found::kAbsent;
    }
    out = known->second.stat;
    return Found::kPresent;
  }
  return haveListing ? Found::kAbsent : Found::kUnknown;
}

void StatCache::forget(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++changes_;
  eraseTree(paths_, path);
  eraseTree(listings_, path);
  if (!path.empty()) {
    listings_.erase(parentOf(path));
  }
}

void StatCache::forgetNode(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++changes_;
  paths_.erase(path);
  // The listing above must not take the name for gone.
  if (!path.empty()) {
    listings_.erase(parentOf(path));
  }
}

void StatCache::changeMode(const std::string& path, unsigned mode) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++changes_;
  auto known = paths_.find(path);
  if (known != paths_.end() && !known->second.absent) {
    known->second.stat.mode = mode;
  }
}

void StatCache::trim() {
  if (paths_.size() + listings_.size() <= kMostEntries) {
    return;
  }
  for (auto it = paths_.begin(); it != paths_.end();) {
    it = fresh(it->second.asked) ? std::next(it) : paths_.erase(it);
  }
  for (auto it = listings_.begin(); it != listings_.end();) {
    it = fresh(it->second) ? std::next(it) : listings_.erase(it);
  }
  if (paths_.size() + listings_.size() > kMostEntries) {
    paths_.clear();
    listings_.clear();
  }
}

}  // namespace velagent
