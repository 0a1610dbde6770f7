#include "fs/byte_sink.h"

#include <errno.h>
#include <unistd.h>

#include <memory>

namespace velagent {

int ByteSink::copyFrom(int source) {
  constexpr size_t kPiece = 1u << 20;
  std::unique_ptr<char[]> buffer(new char[kPiece]);
  for (;;) {
    ssize_t n = ::read(source, buffer.get(), kPiece);
    if (n == 0) {
      return 0;
    }
    if (n < 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    int err = write(buffer.get(), static_cast<size_t>(n));
    if (err != 0) {
      return err;
    }
  }
}

}  // namespace velagent
