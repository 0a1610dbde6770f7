// A loopback HTTP proxy that sits between the agent and an S3 gateway and
// breaks the requests a test chooses, the way a real service or network
// does: a "503 SlowDown" answer, a connection dropped in the middle of a
// request's body, a "500 InternalError", or a request held until the test
// lets it go (so that the agent can be killed in the middle of a change).
// Everything else passes through unchanged, one upstream connection per
// client connection.
//
// The proxy answers "Expect: 100-continue" itself and forwards requests
// without it, so that a broken request never leaves half a body in flight
// on a connection that is used again; every answer it makes up closes the
// connection, as a gateway under load does.
//
// Free of GoogleTest. The methods may be called from any thread.
#ifndef VEL_TESTS_SUPPORT_FAULT_PROXY_H_
#define VEL_TESTS_SUPPORT_FAULT_PROXY_H_

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace veltest {

class FaultProxy {
 public:
  enum class Action {
    kSlowDown,            // 503 with the S3 error "SlowDown"
    kServerError,         // 500 with the S3 error "InternalError"
    kPreconditionFailed,  // 412, as a service says when a condition does not hold
    kDropMidBody,         // half the body goes up, then both connections close
    kHold,                // waits until release() (or 30 s), then passes, unless its client is gone
    kDropAnswer,          // the request reaches the service whole, its answer never the client
  };
  struct Rule {
    std::string method;  // "" for any
    std::string match;   // a text the request target must hold ("" for any)
    Action action = Action::kSlowDown;
    int skip = 0;   // matching requests let through first
    int times = 1;  // then acted on this many (-1: all)
  };

  // Forwards to `upstream` ("http://127.0.0.1:PORT"); see ready().
  explicit FaultProxy(const std::string& upstream);
  ~FaultProxy();
  FaultProxy(const FaultProxy&) = delete;
  FaultProxy& operator=(const FaultProxy&) = delete;

  bool ready() const { return listener_ >= 0; }
  // "http://127.0.0.1:PORT": where clients go instead of the upstream.
  std::string endpoint() const;

  // Replaces the rules (their counts start again) and forgets the requests
  // seen.
  void setRules(const std::vector<Rule>& rules);
  // "METHOD target" of every request so far, in order of arrival.
  std::vector<std::string> requests() const;
  // How many requests a rule acted on.
  int faults() const;
  // Waits until a request is held by a kHold rule; false after `ms`.
  bool waitHeld(int ms);
  // Lets every held request (and those to come) through.
  void release();

 private:
  struct Head {
    std::string method;
    std::string target;
    std::string text;  // the head as forwarded, without "Expect"
    long long length = 0;
    bool expectContinue = false;
  };
  void acceptLoop();
  void serve(int client);
  // The rule that acts on this request, if any.
  bool decide(const Head& head, Action& action);

  std::string upstreamHost_;
  int upstreamPort_ = 0;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Rule> rules_;
  std::vector<int> seen_;  // matching requests per rule
  std::vector<std::string> requests_;
  int faults_ = 0;
  int held_ = 0;
  bool released_ = false;
  std::vector<std::thread> workers_;
  std::vector<int> sockets_;  // open connections, shut down at the end
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_FAULT_PROXY_H_
