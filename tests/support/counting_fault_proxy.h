// A TCP proxy on a free loopback port in front of an HTTP server, for tests
// that need the server to fail in one precise way at one precise request.
// It reads the requests that pass (a head, then a body of Content-Length
// bytes; chunked bodies are not expected) and counts them from 1; answers
// pass through untouched. Armed with a fault for request n:
//  - kDropConnection: the first request from n on that comes on a
//    connection that carried one before is not passed on; the connection
//    is closed instead, as a server closes a kept-alive connection it
//    thinks idle;
//  - kBusy: request n is not passed on; its body is read and a "503
//    Service Unavailable" with "Retry-After: 0" is answered on the same
//    connection, which stays open.
// One thread per connection and one that accepts; the destructor closes
// everything and joins them. The methods may be called from any thread.
#ifndef VEL_TESTS_SUPPORT_COUNTING_FAULT_PROXY_H_
#define VEL_TESTS_SUPPORT_COUNTING_FAULT_PROXY_H_

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace veltest {

class CountingFaultProxy {
 public:
  enum class Fault { kNone, kDropConnection, kBusy };

  // Proxies to 127.0.0.1:`upstreamPort`; see ready().
  explicit CountingFaultProxy(int upstreamPort);
  ~CountingFaultProxy();
  CountingFaultProxy(const CountingFaultProxy&) = delete;
  CountingFaultProxy& operator=(const CountingFaultProxy&) = delete;

  bool ready() const { return listenFd_ >= 0; }
  int port() const { return port_; }
  // Counts requests from 1 again and arms `fault` for request `n` (kNone:
  // none).
  void arm(Fault fault, int n);
  // Requests seen since the last arm(), and whether the fault was dealt.
  int requests() const { return seen_.load(); }
  bool struck() const { return struck_.load(); }

 private:
  struct Pipe;
  void acceptLoop();
  void serve(Pipe* pipe);

  int upstreamPort_;
  int port_ = 0;
  int listenFd_ = -1;
  int stopPipe_[2] = {-1, -1};
  std::atomic<int> seen_{0};
  std::atomic<int> target_{0};
  std::atomic<int> fault_{0};
  std::atomic<bool> struck_{false};
  std::thread acceptor_;
  std::mutex pipesMutex_;
  std::list<std::unique_ptr<Pipe>> pipes_;
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_COUNTING_FAULT_PROXY_H_
