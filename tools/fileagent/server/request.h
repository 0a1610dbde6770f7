// Reads agent requests (RESP arrays of bulk strings) from bytes fed in any
// pieces, with caps on a request's number of arguments and on their total
// size. Argument bytes go straight into the request being built, so one
// connection holds at most one request (within the caps) and the last
// piece read; between requests, a large buffer is given back. Not
// thread-safe: one reader per connection.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_REQUEST_H_
#define VEL_TOOLS_FILEAGENT_SERVER_REQUEST_H_

#include <cstddef>
#include <string>
#include <vector>

namespace velagent {

// The caps of one connection; the defaults are the agent's.
struct RequestLimits {
  size_t maxArgs = 1024;              // every command has at most five
  size_t maxBytes = 64u << 20;        // all arguments of one request together
  size_t maxUnsentReply = 64u << 20;  // a reply held for a client (agent_server.h)
};

class RequestReader {
 public:
  enum class Result { kIncomplete, kRequest, kError };

  explicit RequestReader(const RequestLimits& limits) : limits_(limits) {}

  // Adds bytes read from the connection.
  void feed(const char* data, size_t size) { buffer_.append(data, size); }
  // True while part of a request has come and the rest has not (whole
  // requests waiting to be taken by next() count too).
  bool midRequest() const { return state_ != State::kArrayHead || pos_ < buffer_.size(); }

  // The next whole request in `args`; kIncomplete when more bytes are
  // needed; kError with `error` ("Protocol error: ...") for input that is
  // no request or breaks a cap, after which the connection is to be closed.
  Result next(std::vector<std::string>& args, std::string& error);

 private:
  enum class State { kArrayHead, kBulkHead, kBulkBody, kBulkEnd };

  // The next CRLF-terminated line, without the CRLF; false when incomplete
  // (or, with `error` set, too long to be a header).
  bool line(std::string& out, std::string& error);
  Result fail(std::string& error, const std::string& text);

  RequestLimits limits_;
  std::string buffer_;
  size_t pos_ = 0;
  State state_ = State::kArrayHead;
  size_t expected_ = 0;   // arguments of the request being read
  size_t remaining_ = 0;  // bytes of the current argument still to come
  size_t bytes_ = 0;      // argument bytes of the request so far
  std::vector<std::string> args_;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_REQUEST_H_
