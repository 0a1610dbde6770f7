// Interpretation of the file agent's replies, kept apart from the socket so
// that every reply shape can be checked without an agent. Each function
// takes the reply as hiredis delivered it (null when the command failed or
// timed out), logs and prints what the command prescribes, and returns the
// command's status. None of them frees the reply.
#ifndef VEL_AGENT_TARN_REPLY_H_
#define VEL_AGENT_TARN_REPLY_H_

#include <hiredis/hiredis.h>

#include <cstdint>
#include <list>
#include <string>

namespace VEL {

class TarnMetaData;

namespace tarn {

// The only reply text that means success.
extern const char* const kReplyOk;  // "OK"
// The metadata reply for a node the service does not have.
extern const char* const kReplyNotFound;  // "file not found"

enum class OkOutcome { kNullReply, kOk, kRefused };

// The text of a status, string or error reply; null for any other reply.
const char* replyText(const redisReply* reply);

// True when the reply has text and it is exactly `expected`.
bool textIs(const redisReply* reply, const char* expected);

// A null reply or one without text is kNullReply; the exact text "OK" is
// kOk; anything else is kRefused.
OkOutcome classifyOk(const redisReply* reply);

// "tarn.dir": appends the texts of an array reply to `entries` (stopping at
// the first element without text) and prints "%s:\n" for each. 0, or -6
// for a null or non-array reply.
int32_t collectListReply(const redisReply* reply, const std::string& path,
                         std::list<std::string>& entries);

// "tarn.metadata": 0 with `out` filled; -19 for "file not found"; -6 for a
// null reply; -1 when the text is not JSON (also when the parser gives up
// with an exception); otherwise the record's fromJson status. `mode`, when
// given, receives the reply's integer "mode" member or -1.
int32_t decodeMetaDataReply(const redisReply* reply, const std::string& path, TarnMetaData& out,
                            int32_t* mode);

}  // namespace tarn
}  // namespace VEL

#endif  // VEL_AGENT_TARN_REPLY_H_
