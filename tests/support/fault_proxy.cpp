#include "support/fault_proxy.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "support/sockets.h"

namespace veltest {

namespace {

// Moves `count` bytes of the request body from the client (`buffer` first)
// to `to` (-1: dropped).
bool relayBody(int from, std::string& buffer, int to, long long count) {
  while (count > 0) {
    if (buffer.empty()) {
      char chunk[65536];
      ssize_t n = ::recv(from, chunk, sizeof chunk, 0);
      if (n < 0 && errno == EINTR) {
        continue;
      }
      if (n <= 0) {
        return false;
      }
      buffer.assign(chunk, static_cast<size_t>(n));
    }
    size_t take = static_cast<size_t>(std::min<long long>(count, buffer.size()));
    if (to >= 0 && !sendAll(to, buffer.data(), take)) {
      return false;
    }
    buffer.erase(0, take);
    count -= static_cast<long long>(take);
  }
  return true;
}

std::string madeUpAnswer(long status, const char* reason, const char* code, bool head) {
  const std::string body = std::string("<?xml version=\"1.0\" encoding=\"UTF-8\"?><Error><Code>") +
                           code + "</Code><Message>made up by the test proxy</Message></Error>";
  return "HTTP/1.1 " + std::to_string(status) + " " + reason +
         "\r\nContent-Type: application/xml\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + (head ? "" : body);
}

}  // namespace

FaultProxy::FaultProxy(const std::string& upstream) {
  // "http://HOST:PORT"
  size_t start = upstream.find("://");
  std::string authority = upstream.substr(start == std::string::npos ? 0 : start + 3);
  authority = authority.substr(0, authority.find('/'));
  size_t colon = authority.rfind(':');
  upstreamHost_ = authority.substr(0, colon);
  upstreamPort_ = colon == std::string::npos ? 80 : std::atoi(authority.c_str() + colon + 1);

  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in address;
  std::memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, 64) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    if (fd >= 0) ::close(fd);
    return;
  }
  listener_ = fd;
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

FaultProxy::~FaultProxy() {
  if (listener_ < 0) {
    return;
  }
  stopping_ = true;
  release();
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  std::vector<std::thread> workers;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : sockets_) {
      ::shutdown(fd, SHUT_RDWR);
    }
    workers.swap(workers_);
  }
  for (std::thread& worker : workers) {
    worker.join();
  }
  ::close(listener_);
}

std::string FaultProxy::endpoint() const { return "http://127.0.0.1:" + std::to_string(port_); }

void FaultProxy::setRules(const std::vector<Rule>& rules) {
  std::lock_guard<std::mutex> lock(mutex_);
  rules_ = rules;
  seen_.assign(rules.size(), 0);
  requests_.clear();
  faults_ = 0;
  held_ = 0;
  released_ = false;
}

std::vector<std::string> FaultProxy::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

int FaultProxy::faults() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return faults_;
}

bool FaultProxy::waitHeld(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return held_ > 0; });
}

void FaultProxy::release() {
  std::lock_guard<std::mutex> lock(mutex_);
  released_ = true;
  changed_.notify_all();
}

void FaultProxy::acceptLoop() {
  for (;;) {
    int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) {
      if (errno == EINTR) continue;
      return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) {
      ::close(client);
      return;
    }
    sockets_.push_back(client);
    workers_.emplace_back([this, client] { serve(client); });
  }
}

bool FaultProxy::decide(const Head& head, Action& action) {
  std::unique_lock<std::mutex> lock(mutex_);
  requests_.push_back(head.method + " " + head.target);
  for (size_t i = 0; i < rules_.size(); ++i) {
    const Rule& rule = rules_[i];
    if ((!rule.method.empty() && rule.method != head.method) ||
        head.target.find(rule.match) == std::string::npos) {
      continue;
    }
    const int index = seen_[i]++;
    if (index < rule.skip || (rule.times >= 0 && index >= rule.skip + rule.times)) {
      continue;
    }
    ++faults_;
    action = rule.action;
    if (action == Action::kHold) {
      ++held_;
      changed_.notify_all();
      changed_.wait_for(lock, std::chrono::seconds(30), [this] { return released_; });
      return false;
    }
    return true;
  }
  return false;
}

void FaultProxy::serve(int client) {
  int up = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in address;
  std::memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(upstreamPort_));
  ::inet_pton(AF_INET, upstreamHost_.c_str(), &address.sin_addr);
  if (up < 0 || ::connect(up, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    if (up >= 0) ::close(up);
    ::shutdown(client, SHUT_RDWR);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    sockets_.push_back(up);
  }
  // Heads and bodies go out in separate writes: without this, each waits
  // for the other side's delayed acknowledgement.
  const int on = 1;
  ::setsockopt(up, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  // Answers go back as they come.
  std::thread pump([client, up] {
    char chunk[65536];
    for (;;) {
      ssize_t n = ::recv(up, chunk, sizeof chunk, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0 || !sendAll(client, chunk, static_cast<size_t>(n))) break;
    }
    ::shutdown(client, SHUT_RDWR);
  });

  std::string buffer;
  for (;;) {
    size_t end;
    while ((end = buffer.find("\r\n\r\n")) == std::string::npos) {
      char chunk[65536];
      ssize_t n = ::recv(client, chunk, sizeof chunk, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        end = std::string::npos;
        break;
      }
      buffer.append(chunk, static_cast<size_t>(n));
    }
    if (end == std::string::npos) {
      break;
    }
    Head head;
    const std::string text = buffer.substr(0, end + 2);
    buffer.erase(0, end + 4);
    size_t lineEnd = text.find("\r\n");
    const std::string requestLine = text.substr(0, lineEnd);
    size_t space = requestLine.find(' ');
    head.method = requestLine.substr(0, space);
    head.target = requestLine.substr(space + 1, requestLine.rfind(' ') - space - 1);
    head.text = requestLine + "\r\n";
    for (size_t from = lineEnd + 2; from < text.size();) {
      size_t next = text.find("\r\n", from);
      const std::string line = text.substr(from, next - from);
      from = next + 2;
      if (strncasecmp(line.c_str(), "expect:", 7) == 0) {
        head.expectContinue = true;
        continue;
      }
      if (strncasecmp(line.c_str(), "content-length:", 15) == 0) {
        head.length = std::atoll(line.c_str() + 15);
      }
      head.text += line + "\r\n";
    }
    head.text += "\r\n";

    Action action = Action::kSlowDown;
    if (!decide(head, action)) {
      // A client that went while its request was held (killed): the
      // request never reaches the service.
      struct pollfd gone = {client, POLLRDHUP, 0};
      if (::poll(&gone, 1, 0) > 0 && (gone.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
        break;
      }
      if ((head.expectContinue && !sendAll(client, "HTTP/1.1 100 Continue\r\n\r\n")) ||
          !sendAll(up, head.text) || !relayBody(client, buffer, up, head.length)) {
        break;
      }
      continue;
    }
    if (action == Action::kDropAnswer) {
      if (head.expectContinue) {
        sendAll(client, "HTTP/1.1 100 Continue\r\n\r\n");
      }
      if (sendAll(up, head.text) && relayBody(client, buffer, up, head.length)) {
        // The client goes before the answer comes; the service finishes
        // the request, whose answer the pump then fails to pass on.
        ::shutdown(client, SHUT_RDWR);
        pump.join();
      }
      break;
    }
    if (action == Action::kDropMidBody) {
      if (head.expectContinue) {
        sendAll(client, "HTTP/1.1 100 Continue\r\n\r\n");
      }
      if (sendAll(up, head.text)) {
        relayBody(client, buffer, up, head.length / 2);
      }
      break;
    }
    // A made-up answer: the body that was sent with the head is read first,
    // so that closing the connection does not reset it before the client
    // reads the answer.
    if (!head.expectContinue) {
      relayBody(client, buffer, -1, head.length);
    }
    const bool bodyless = head.method == "HEAD";
    sendAll(client, action == Action::kSlowDown
                        ? madeUpAnswer(503, "Slow Down", "SlowDown", bodyless)
                    : action == Action::kPreconditionFailed
                        ? madeUpAnswer(412, "Precondition Failed", "PreconditionFailed", bodyless)
                        : madeUpAnswer(500, "Internal Server Error", "InternalError", bodyless));
    break;
  }
  ::shutdown(client, SHUT_RDWR);
  ::shutdown(up, SHUT_RDWR);
  if (pump.joinable()) {
    pump.join();
  }
  std::lock_guard<std::mutex> lock(mutex_);
  for (int fd : {client, up}) {
    sockets_.erase(std::remove(sockets_.begin(), sockets_.end(), fd), sockets_.end());
    ::close(fd);
  }
}

}  // namespace veltest
