#include "fs/content_hash.h"

#include <errno.h>
#include <unistd.h>
#include <xxhash.h>

#include <cstdio>

namespace velagent {

struct Hasher::State {
  XXH3_state_t* xxh = XXH3_createState();
  ~State() { XXH3_freeState(xxh); }
};

Hasher::Hasher() : state_(new State) { reset(); }
Hasher::~Hasher() = default;

void Hasher::reset() { XXH3_128bits_reset(state_->xxh); }

void Hasher::update(const void* data, size_t size) { XXH3_128bits_update(state_->xxh, data, size); }

ContentHash Hasher::digest() const {
  XXH128_hash_t h = XXH3_128bits_digest(state_->xxh);
  ContentHash out;
  out.high = h.high64;
  out.low = h.low64;
  return out;
}

std::string ContentHash::hex() const {
  char text[33];
  std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(high),
                static_cast<unsigned long long>(low));
  return text;
}

bool ContentHash::fromHex(const std::string& text, ContentHash& out) {
  if (text.size() != 32) {
    return false;
  }
  uint64_t halves[2] = {0, 0};
  for (size_t i = 0; i < 32; ++i) {
    char c = text[i];
    int digit = c >= '0' && c <= '9' ? c - '0' : (c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1);
    if (digit < 0) {
      return false;
    }
    halves[i / 16] = (halves[i / 16] << 4) | static_cast<uint64_t>(digit);
  }
  out.high = halves[0];
  out.low = halves[1];
  return true;
}

int hashFile(int fd, ContentHash& out) {
  constexpr size_t kPiece = 1u << 20;
  std::unique_ptr<char[]> buffer(new char[kPiece]);
  Hasher hasher;
  off_t offset = 0;
  for (;;) {
    ssize_t n = ::pread(fd, buffer.get(), kPiece, offset);
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    if (n == 0) {
      break;
    }
    hasher.update(buffer.get(), static_cast<size_t>(n));
    offset += n;
  }
  out = hasher.digest();
  return 0;
}

}  // namespace velagent
