// Where a store puts the bytes of a file it reads from the service: the
// mirror's temporary file (AtomicFile), or nowhere but a hash (HashSink),
// when all the agent needs to know is what the service holds. Every sink
// hashes what it is given, so that the sync record learns the content hash
// of a copy from the copy itself, in the same pass.
//
// Not thread-safe; one owner at a time.
#ifndef VEL_TOOLS_FILEAGENT_FS_BYTE_SINK_H_
#define VEL_TOOLS_FILEAGENT_FS_BYTE_SINK_H_

#include <cstddef>

#include "fs/content_hash.h"

namespace velagent {

class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Appends `size` bytes; 0 or errno.
  virtual int write(const char* data, size_t size) = 0;
  // Appends everything `source` still has to read; 0 or errno.
  virtual int copyFrom(int source);
  // The hash and the number of the bytes appended so far.
  ContentHash hash() const { return hasher_.digest(); }
  long long size() const { return size_; }

 protected:
  // For implementations: counts and hashes bytes that were appended.
  void appended(const char* data, size_t size) {
    hasher_.update(data, size);
    size_ += static_cast<long long>(size);
  }
  void restart() {
    hasher_.reset();
    size_ = 0;
  }

 private:
  Hasher hasher_;
  long long size_ = 0;
};

// Keeps nothing but the hash and the size.
class HashSink : public ByteSink {
 public:
  int write(const char* data, size_t size) override {
    appended(data, size);
    return 0;
  }
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_FS_BYTE_SINK_H_
