// A store that passes every call to another one, except where a test rule
// armed a store fault for the request being served (faults.h): then a
// conditional upload or removal answers kConflict without changing
// anything, as a web server's 412 does, and a download answers
// kNotModified without writing, as a 304 does. The agent puts it in front
// of its store only when it runs with test rules.
//
// Thread safety: as the store it wraps.
#ifndef VEL_TOOLS_FILEAGENT_STORES_FAULTY_STORE_H_
#define VEL_TOOLS_FILEAGENT_STORES_FAULTY_STORE_H_

#include <memory>
#include <string>
#include <vector>

#include "faults.h"
#include "stores/store.h"

namespace velagent {

class FaultyStore : public Store {
 public:
  explicit FaultyStore(std::unique_ptr<Store> inner) : inner_(std::move(inner)) {}

  std::string identity() const override { return inner_->identity(); }
  Status stat(const std::string& path, bool followLast, StoreStat& out) override {
    return inner_->stat(path, followLast, out);
  }
  Status list(const std::string& path, std::vector<StoreEntry>& out) override {
    return inner_->list(path, out);
  }
  Status download(const std::string& path, ByteSink& target, StoreStat& copied,
                  const std::string& ifNoneMatch) override {
    if (armedStoreFault() == StoreFault::kNotModified) {
      return Status::error(Status::Code::kNotModified, "the service answered \"not modified\"");
    }
    return inner_->download(path, target, copied, ifNoneMatch);
  }
  Status upload(int source, const std::string& path, mode_t mode, const Expect& expect,
                StoreStat& written, ContentHash& sent) override {
    if (armedStoreFault() == StoreFault::kConflict && expect.kind != Expect::Kind::kAnything) {
      return Status::error(Status::Code::kConflict, "refused by a test rule");
    }
    return inner_->upload(source, path, mode, expect, written, sent);
  }
  Status makeDirs(const std::string& path) override { return inner_->makeDirs(path); }
  Status createFile(const std::string& path, mode_t mode) override {
    return inner_->createFile(path, mode);
  }
  Status move(const std::string& from, const std::string& to) override {
    return inner_->move(from, to);
  }
  Status chmod(const std::string& path, mode_t mode) override { return inner_->chmod(path, mode); }
  Status remove(const std::string& path, bool recursive, const Expect& expect) override {
    if (armedStoreFault() == StoreFault::kConflict && expect.kind != Expect::Kind::kAnything) {
      return Status::error(Status::Code::kConflict, "refused by a test rule");
    }
    return inner_->remove(path, recursive, expect);
  }
  Status open(const std::string& path, const OpenMode& mode,
              std::unique_ptr<StoreHandle>& out) override {
    return inner_->open(path, mode, out);
  }

 private:
  std::unique_ptr<Store> inner_;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_STORES_FAULTY_STORE_H_
