#include "stores/store.h"

#include <errno.h>

#include <cstring>

namespace velagent {

Status Status::fromErrno(int err) { return Status(Code::kFailed, std::strerror(err)); }

Status Status::fromResolve(int err) {
  if (err == EXDEV) {
    return Status(Code::kRefused, "");
  }
  if (err == ENOENT || err == ENOTDIR) {
    return Status(Code::kNotFound, "");
  }
  return fromErrno(err);
}

void Store::describe(const std::string& path, std::vector<StoreEntry>& entries) {
  for (StoreEntry& entry : entries) {
    if (!entry.described) {
      entry.described =
          stat(path.empty() ? entry.name : path + "/" + entry.name, false, entry.stat).isOk();
    }
  }
}

}  // namespace velagent
