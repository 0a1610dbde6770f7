// The content hash of a file: XXH3 with 128 bits, the fingerprint the sync
// record keeps of every copy it vouches for. Two copies with the same hash
// hold the same bytes (for any input that is not crafted to collide: the
// hash guards against lost edits, not against an attacker who writes both
// copies).
//
// Thread safety: a Hasher is used by one thread at a time; hashFile() may
// be called from any thread.
#ifndef VEL_TOOLS_FILEAGENT_FS_CONTENT_HASH_H_
#define VEL_TOOLS_FILEAGENT_FS_CONTENT_HASH_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace velagent {

struct ContentHash {
  uint64_t high = 0;
  uint64_t low = 0;

  bool operator==(const ContentHash& other) const { return high == other.high && low == other.low; }
  bool operator!=(const ContentHash& other) const { return !(*this == other); }
  // 32 lower-case hex digits, high half first; fromHex() reads them back
  // (false for anything else).
  std::string hex() const;
  static bool fromHex(const std::string& text, ContentHash& out);
};

// Hashes bytes fed in pieces; the digest is the hash of all of them.
class Hasher {
 public:
  Hasher();
  ~Hasher();
  Hasher(const Hasher&) = delete;
  Hasher& operator=(const Hasher&) = delete;

  void reset();
  void update(const void* data, size_t size);
  ContentHash digest() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The hash of everything `fd` holds from offset 0 (read with pread, so the
// file position is left alone). 0, or the errno of the read that failed.
int hashFile(int fd, ContentHash& out);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_FS_CONTENT_HASH_H_
