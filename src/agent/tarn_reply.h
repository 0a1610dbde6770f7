// Interpretation of the file agent's replies, kept apart from the socket so
// that every reply shape can be checked without an agent. Each function
// takes the reply as hiredis delivered it (null when the command failed or
// timed out), logs and prints what the command prescribes, and returns the
// command's status. None of them frees the reply.
//
// CappedReader bounds what one reply may cost before it is decoded, so that
// an agent announcing or sending a huge reply cannot exhaust memory.
#ifndef VEL_AGENT_TARN_REPLY_H_
#define VEL_AGENT_TARN_REPLY_H_

#include <hiredis/hiredis.h>

#include <cstddef>
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

// Largest reply accepted: bytes of all its texts plus the bytes buffered and
// not yet decoded, and a bulk text may announce no more than what is left.
constexpr size_t kMaxReplyBytes = 64u * 1024u * 1024u;
// Most array elements accepted in one reply, nested arrays included.
constexpr size_t kMaxReplyElements = 1000000;

// Holds a hiredis reader (one made by redisReaderCreate, as every
// redisContext's is) to the reply caps while it lives. It puts counting
// object functions in front of the reader's own (the count lives in the
// reader's privdata) and restores both when destroyed, so it must not
// outlive the reader and the reader must not be used by another cap at the
// same time. A reply is refused as soon as its headers or the buffered bytes
// show it is over a cap: nothing is allocated in proportion to an announced
// size. The count starts again after each whole reply.
class CappedReader {
 public:
  explicit CappedReader(redisReader* reader);
  ~CappedReader();
  CappedReader(const CappedReader&) = delete;
  CappedReader& operator=(const CappedReader&) = delete;

  // Like redisReaderGetReply: REDIS_OK with the next reply in `*reply`
  // (owned by the caller, freed with freeReplyObject), or null while more
  // bytes are needed; REDIS_ERR on a protocol error or a reply over a cap.
  // After REDIS_ERR the reader stays failed and `*reply` is null.
  int getReply(void** reply);
  // True once a reply was refused for going over a cap.
  bool overCap() const { return overCap_; }

 private:
  static void* createString(const redisReadTask* task, char* text, size_t len);
  static void* createArray(const redisReadTask* task, int elements);
  bool pendingWithinCaps() const;
  void refuse();

  redisReader* reader_;
  redisReplyObjectFunctions* ownFunctions_;
  void* ownPrivdata_;
  redisReplyObjectFunctions capped_{};
  size_t bytes_ = 0;
  size_t elements_ = 0;
  bool overCap_ = false;
};

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

// The two readers decodeMetaDataReply uses for a reply text of `length`
// bytes. readFlatMetaData takes the agent's usual answer, one flat object of
// strings, integers, booleans and nulls written without blanks or escapes,
// whose record fields have their expected types: then it fills `out` and
// `mode` exactly as the JSON reader and fromJson would, and returns true.
// For anything else it returns false and touches nothing. readMetaDataJson
// parses with jsoncpp and fills `out` with fromJson; it logs and prints the
// failures and returns 0, -1 (not JSON) or the fromJson status.
bool readFlatMetaData(const char* text, size_t length, TarnMetaData& out, int32_t& mode);
int32_t readMetaDataJson(const char* text, size_t length, TarnMetaData& out, int32_t& mode);

}  // namespace tarn
}  // namespace VEL

#endif  // VEL_AGENT_TARN_REPLY_H_
