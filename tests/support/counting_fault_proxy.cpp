#include "support/counting_fault_proxy.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "support/sockets.h"

namespace veltest {

namespace {

// Come back at once: a test waits for nothing.
const char kBusyAnswer[] =
    "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 0\r\nContent-Length: 0\r\n\r\n";

// The Content-Length of a request head, 0 without one.
long long contentLength(const std::string& head) {
  size_t at = 0;
  while ((at = head.find("\r\n", at)) != std::string::npos) {
    at += 2;
    if (head.size() - at > 15 && strncasecmp(head.c_str() + at, "content-length:", 15) == 0) {
      return std::atoll(head.c_str() + at + 15);
    }
  }
  return 0;
}

}  // namespace

struct CountingFaultProxy::Pipe {
  int client = -1;
  int upstream = -1;
  std::thread thread;
};

CountingFaultProxy::CountingFaultProxy(int upstreamPort) : upstreamPort_(upstreamPort) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr = loopback(0);
  socklen_t size = sizeof addr;
  if (fd < 0 || ::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 64) != 0 ||
      ::getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &size) != 0 ||
      ::pipe2(stopPipe_, O_CLOEXEC) != 0) {
    if (fd >= 0) {
      ::close(fd);
    }
    return;
  }
  port_ = ntohs(addr.sin_port);
  listenFd_ = fd;
  acceptor_ = std::thread([this] { acceptLoop(); });
}

CountingFaultProxy::~CountingFaultProxy() {
  if (listenFd_ < 0) {
    return;
  }
  char stop = 's';
  ssize_t ignored = ::write(stopPipe_[1], &stop, 1);
  (void)ignored;
  acceptor_.join();
  for (auto& pipe : pipes_) {
    pipe->thread.join();
  }
  ::close(listenFd_);
  ::close(stopPipe_[0]);
  ::close(stopPipe_[1]);
}

void CountingFaultProxy::arm(Fault fault, int n) {
  struck_ = false;
  target_ = n;
  fault_ = static_cast<int>(fault);
  seen_ = 0;
}

void CountingFaultProxy::acceptLoop() {
  for (;;) {
    struct pollfd fds[2] = {{listenFd_, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
      return;
    }
    if (fds[1].revents != 0) {
      return;
    }
    if ((fds[0].revents & POLLIN) == 0) {
      continue;
    }
    int client = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      continue;
    }
    int upstream = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr = loopback(upstreamPort_);
    if (upstream < 0 ||
        ::connect(upstream, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0) {
      ::close(client);
      if (upstream >= 0) {
        ::close(upstream);
      }
      continue;
    }
    // Heads and bodies are passed on as they come: no waiting to fill a
    // packet.
    int on = 1;
    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ::setsockopt(upstream, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    std::lock_guard<std::mutex> lock(pipesMutex_);
    pipes_.emplace_back(new Pipe{client, upstream, std::thread()});
    Pipe* pipe = pipes_.back().get();
    pipe->thread = std::thread([this, pipe] { serve(pipe); });
  }
}

void CountingFaultProxy::serve(Pipe* pipe) {
  std::string pending;      // bytes from the client not yet passed on
  long long bodyLeft = 0;   // of the current request's body
  bool swallowing = false;  // the current request is answered here
  int onConnection = 0;     // requests that came on this connection
  char chunk[64 * 1024];
  bool open = true;
  while (open) {
    struct pollfd fds[3] = {
        {pipe->client, POLLIN, 0}, {pipe->upstream, POLLIN, 0}, {stopPipe_[0], POLLIN, 0}};
    if (::poll(fds, 3, -1) < 0 && errno != EINTR) {
      break;
    }
    if (fds[2].revents != 0) {
      break;
    }
    if (fds[1].revents != 0) {
      ssize_t n = ::recv(pipe->upstream, chunk, sizeof chunk, 0);
      if (n <= 0 || !sendAll(pipe->client, chunk, static_cast<size_t>(n))) {
        break;
      }
    }
    if (fds[0].revents == 0) {
      continue;
    }
    ssize_t n = ::recv(pipe->client, chunk, sizeof chunk, 0);
    if (n <= 0) {
      break;
    }
    pending.append(chunk, static_cast<size_t>(n));
    while (open && !pending.empty()) {
      if (bodyLeft > 0) {
        size_t take = static_cast<size_t>(std::min<long long>(bodyLeft, pending.size()));
        if (!swallowing && !sendAll(pipe->upstream, pending.data(), take)) {
          open = false;
        }
        pending.erase(0, take);
        bodyLeft -= static_cast<long long>(take);
        if (bodyLeft == 0 && swallowing) {
          swallowing = false;
          open = sendAll(pipe->client, kBusyAnswer, sizeof kBusyAnswer - 1);
        }
        continue;
      }
      size_t end = pending.find("\r\n\r\n");
      if (end == std::string::npos) {
        break;  // the rest of the head is still to come
      }
      const std::string head = pending.substr(0, end + 4);
      pending.erase(0, head.size());
      bodyLeft = contentLength(head);
      const int number = ++seen_;
      ++onConnection;
      const Fault fault = static_cast<Fault>(fault_.load());
      if (fault == Fault::kDropConnection && number >= target_ && onConnection > 1 &&
          !struck_.exchange(true)) {
        open = false;
        break;
      }
      if (fault == Fault::kBusy && number == target_ && !struck_.exchange(true)) {
        swallowing = true;
        if (bodyLeft == 0) {
          swallowing = false;
          open = sendAll(pipe->client, kBusyAnswer, sizeof kBusyAnswer - 1);
        }
        continue;
      }
      open = sendAll(pipe->upstream, head.data(), head.size());
    }
  }
  ::close(pipe->client);
  ::close(pipe->upstream);
}

}  // namespace veltest
