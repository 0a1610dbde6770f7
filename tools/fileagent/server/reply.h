// One answer of the file agent and its encoding on the wire.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_REPLY_H_
#define VEL_TOOLS_FILEAGENT_SERVER_REPLY_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace velagent {

// Produces the bytes of a large bulk reply piece by piece while it is sent,
// so that a reply a client does not read never sits whole in memory.
class BulkSource {
 public:
  virtual ~BulkSource() = default;
  // Fills `buffer` with the next `n` bytes of the reply; false when they
  // cannot be produced (the length is already on the wire, so the
  // connection is then closed).
  virtual bool next(char* buffer, size_t n) = 0;
};

struct Reply {
  enum class Kind { kStatus, kBulk, kError, kInt, kArray, kNil, kClose, kRaw, kStream };
  Kind kind = Kind::kNil;
  std::string text;                    // status, bulk, error text or raw bytes
  long long number = 0;                // integer reply; the length of a streamed bulk
  std::vector<std::string> items;      // array reply (bulk elements)
  std::shared_ptr<BulkSource> source;  // streamed bulk
  bool refused = false;                // an error for a request the agent does not accept: logged

  static Reply status(const std::string& text);
  static Reply ok() { return status("OK"); }
  static Reply bulk(const std::string& text);
  static Reply error(const std::string& text);
  // An error reply for a request that is not accepted (unknown command,
  // bad arguments, a path that leaves the store or the mirror).
  static Reply refusal(const std::string& text);
  static Reply integer(long long value);
  static Reply array(std::vector<std::string> items);
  static Reply nil();
  static Reply close();
  // Bytes sent exactly as given: lets tests craft malformed or oversized
  // replies.
  static Reply raw(const std::string& bytes);
  // A bulk reply of `size` bytes that `source` produces while it is sent.
  static Reply stream(long long size, std::shared_ptr<BulkSource> source);
};

// The RESP bytes of `reply` ("" for a close; only the length line of a
// streamed bulk). Status and error texts are kept on one line: CR and LF
// are replaced by spaces.
std::string encode(const Reply& reply);
// The number of bytes encode() would give, without building them; a
// streamed bulk counts its length line only.
size_t encodedSize(const Reply& reply);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_REPLY_H_
