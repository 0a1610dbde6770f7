#include "path_locks.h"

namespace velagent {

PathLocks::Guard::~Guard() {
  if (owner_ != nullptr) {
    owner_->release(held_);
  }
}

PathLocks::Guard PathLocks::lock(const std::vector<std::string>& paths) {
  std::map<std::string, bool> wanted;
  for (const std::string& path : paths) {
    wanted[path] = true;
    for (size_t slash = path.find('/'); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
      wanted.emplace(path.substr(0, slash), false);  // an exclusive entry stays exclusive
    }
  }
  std::unique_lock<std::mutex> lock(mutex_);
  // All at once, never one by one: two changes can then never each hold
  // what the other waits for.
  changed_.wait(lock, [&] { return available(wanted); });
  for (const auto& entry : wanted) {
    State& state = states_[entry.first];
    if (entry.second) {
      state.exclusive = true;
    } else {
      ++state.shared;
    }
  }
  return Guard(this, std::move(wanted));
}

bool PathLocks::available(const std::map<std::string, bool>& wanted) const {
  for (const auto& entry : wanted) {
    auto it = states_.find(entry.first);
    if (it == states_.end()) {
      continue;
    }
    if (it->second.exclusive || (entry.second && it->second.shared > 0)) {
      return false;
    }
  }
  return true;
}

void PathLocks::release(const std::map<std::string, bool>& held) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& entry : held) {
      auto it = states_.find(entry.first);
      if (it == states_.end()) {
        continue;
      }
      if (entry.second) {
        it->second.exclusive = false;
      } else {
        --it->second.shared;
      }
      if (!it->second.exclusive && it->second.shared == 0) {
        states_.erase(it);
      }
    }
  }
  changed_.notify_all();
}

}  // namespace velagent
