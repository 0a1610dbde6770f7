// One answer of the file agent and its encoding on the wire.
#ifndef VEL_TOOLS_FILEAGENT_REPLY_H_
#define VEL_TOOLS_FILEAGENT_REPLY_H_

#include <string>
#include <vector>

namespace velagent {

struct Reply {
  enum class Kind { kStatus, kBulk, kError, kInt, kArray, kNil, kClose, kRaw };
  Kind kind = Kind::kNil;
  std::string text;                // status, bulk, error text or raw bytes
  long long number = 0;            // integer reply
  std::vector<std::string> items;  // array reply (bulk elements)

  static Reply status(const std::string& text);
  static Reply ok() { return status("OK"); }
  static Reply bulk(const std::string& text);
  static Reply error(const std::string& text);
  static Reply integer(long long value);
  static Reply array(std::vector<std::string> items);
  static Reply nil();
  static Reply close();
  // Bytes sent exactly as given: lets tests craft malformed or oversized
  // replies.
  static Reply raw(const std::string& bytes);
};

// The RESP bytes of `reply` ("" for a close). Status and error texts are
// kept on one line: CR and LF are replaced by spaces.
std::string encode(const Reply& reply);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_REPLY_H_
