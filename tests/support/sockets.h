// Small socket helpers the test servers and proxies share: the loopback
// address of a port, and a send that writes every byte (false once the
// peer is gone; never SIGPIPE).
#ifndef VEL_TESTS_SUPPORT_SOCKETS_H_
#define VEL_TESTS_SUPPORT_SOCKETS_H_

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace veltest {

inline struct sockaddr_in loopback(int port) {
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof addr);
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  return addr;
}

inline bool sendAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

inline bool sendAll(int fd, const std::string& text) {
  return sendAll(fd, text.data(), text.size());
}

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_SOCKETS_H_
