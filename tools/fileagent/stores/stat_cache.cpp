#include "stores/stat_cache.h"

#include <set>

namespace velagent {

namespace {

// Entries beyond which expired ones are dropped (and all, if none is).
constexpr size_t kMostEntries = 200000;

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
  paths_[path] = Known{st, ticket.asked};
  trim();
}

void StatCache::putListing(const Ticket& ticket, const std::string& path, const StoreStat& self,
                           const std::vector<StoreEntry>& entries) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (ticket.changes != changes_) {
    return;
  }
  const std::string prefix = path.empty() ? "" : path + "/";
  // What the listing no longer shows is gone, with everything below it.
  std::set<std::string> names;
  for (const StoreEntry& entry : entries) {
    names.insert(entry.name);
  }
  for (auto it = paths_.lower_bound(prefix); it != paths_.end();) {
    if (it->first.compare(0, prefix.size(), prefix) != 0) {
      break;
    }
    const std::string rest = it->first.substr(prefix.size());
    const bool listed = !rest.empty() && names.count(rest.substr(0, rest.find('/'))) > 0;
    it = listed || rest.empty() ? std::next(it) : paths_.erase(it);
  }
  paths_[path] = Known{self, ticket.asked};
  for (const StoreEntry& entry : entries) {
    if (entry.described) {
      paths_[prefix + entry.name] = Known{entry.stat, ticket.asked};
    }
  }
  trim();
}

bool StatCache::get(const std::string& path, StoreStat& out) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto known = paths_.find(path);
  if (known == paths_.end() || !fresh(known->second.asked)) {
    return false;
  }
  out = known->second.stat;
  return true;
}

void StatCache::forget(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++changes_;
  if (path.empty()) {
    paths_.clear();
    return;
  }
  paths_.erase(path);
  const std::string below = path + "/";
  auto it = paths_.lower_bound(below);
  while (it != paths_.end() && it->first.compare(0, below.size(), below) == 0) {
    it = paths_.erase(it);
  }
}

void StatCache::forgetNode(const std::string& path) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++changes_;
  paths_.erase(path);
}

void StatCache::changeMode(const std::string& path, unsigned mode) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++changes_;
  auto known = paths_.find(path);
  if (known != paths_.end()) {
    known->second.stat.mode = mode;
  }
}

void StatCache::trim() {
  if (paths_.size() <= kMostEntries) {
    return;
  }
  for (auto it = paths_.begin(); it != paths_.end();) {
    it = fresh(it->second.asked) ? std::next(it) : paths_.erase(it);
  }
  if (paths_.size() > kMostEntries) {
    paths_.clear();
  }
}

}  // namespace velagent
