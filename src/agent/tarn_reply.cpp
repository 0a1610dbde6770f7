#include "agent/tarn_reply.h"

#include <json/json.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>

#include "vel/log.h"
#include "vel/records.h"

namespace VEL {
namespace tarn {

const char* const kReplyOk = "OK";
const char* const kReplyNotFound = "file not found";

namespace {

constexpr int32_t kUnparsable = -1;
constexpr int32_t kAgentFailure = -6;
constexpr int32_t kNotFound = -19;

// Room for the framing around the text being read: the rest of a bulk
// header ("<length>\r\n") and the closing "\r\n".
constexpr size_t kFramingBytes = 32;

// The reply's integer "mode" member, -1 when there is none. An unsigned
// value is kept in 32 bits.
int32_t modeOf(const Json::Value& root) {
  if (!root.isObject()) {
    return -1;
  }
  const Json::Value& mode = root["mode"];
  if (mode.isInt()) {
    return mode.asInt();
  }
  if (mode.isUInt()) {
    return static_cast<int32_t>(mode.asUInt());
  }
  return -1;
}

}  // namespace

// Compares the whole reply text, embedded NULs included.
bool textIs(const redisReply* reply, const char* expected) {
  const char* text = replyText(reply);
  return text != nullptr && reply->len == std::strlen(expected) &&
         std::memcmp(text, expected, reply->len) == 0;
}

const char* replyText(const redisReply* reply) {
  if (reply == nullptr) {
    return nullptr;
  }
  switch (reply->type) {
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
    case REDIS_REPLY_ERROR:
      return reply->str;
    default:
      return nullptr;
  }
}

OkOutcome classifyOk(const redisReply* reply) {
  const char* text = replyText(reply);
  if (text == nullptr) {
    return OkOutcome::kNullReply;
  }
  return textIs(reply, kReplyOk) ? OkOutcome::kOk : OkOutcome::kRefused;
}

int32_t collectListReply(const redisReply* reply, const std::string& path,
                         std::list<std::string>& entries) {
  if (reply == nullptr) {
    getLogger()->log(kLogError, "[VEL] TarnListFile:Internal Error: null reply.");
    return kAgentFailure;
  }
  if (reply->type != REDIS_REPLY_ARRAY) {
    const char* text = replyText(reply);
    // The listing shares the upload command's failure message.
    getLogger()->log(kLogError, "[VEL] uploadlocal: Failed to upload object. %s, %s",
                     text != nullptr ? text : "", path.c_str());
    std::printf("reply=%s, path=%s\n", text != nullptr ? text : "", path.c_str());
    return kAgentFailure;
  }
  for (size_t i = 0; i < reply->elements; ++i) {
    const char* text = replyText(reply->element[i]);
    if (text == nullptr) {
      break;
    }
    entries.emplace_back(text);
    std::printf("%s:\n", text);
  }
  return 0;
}

int32_t decodeMetaDataReply(const redisReply* reply, const std::string& path, TarnMetaData& out,
                            int32_t* mode) {
  if (mode != nullptr) {
    *mode = -1;
  }
  const char* text = replyText(reply);
  if (text == nullptr) {
    getLogger()->log(kLogError, "[VEL] TarnGetMetaData:Internal Error: null reply.");
    return kAgentFailure;
  }
  if (textIs(reply, kReplyNotFound)) {
    getLogger()->log(kLogError, "[VEL] metadata not found. %s, %s", text, path.c_str());
    return kNotFound;
  }

  Json::Value root;
  std::string parseErrors;
  bool parsed = false;
  try {
    Json::Reader reader;
    parsed = reader.parse(std::string(text, reply->len), root, true);
    if (!parsed) {
      parseErrors = reader.getFormattedErrorMessages();
    }
  } catch (const std::exception& e) {
    // jsoncpp gives up on input nested beyond its stack limit by throwing.
    parseErrors = e.what() != nullptr ? e.what() : "";
  } catch (...) {
    parseErrors.clear();
  }
  if (!parsed) {
    getLogger()->log(kLogError,
                     "[TARN] TarnGetMetaData::TarnGetMetaData() Failed to parse metadata: %s",
                     parseErrors.c_str());
    std::printf("metadata parse error\n");
    return kUnparsable;
  }

  int32_t status = out.fromJson(root);
  if (status != 0) {
    getLogger()->log(
        kLogError, "[TARN] TarnGetMetaData::TarnGetMetaData() Failed to parse metadata: %s", text);
    std::printf("metadata to json error\n");
    return status;
  }
  if (mode != nullptr) {
    *mode = modeOf(root);
  }
  getLogger()->log(kLogError, "[TARN] TarnGetMetaData() %s %s %d %s %s %s", text, out.Name.c_str(),
                   static_cast<int32_t>(out.Size), out.Kind.c_str(), out.LastModifiedTime.c_str(),
                   out.AccessAllowRoles.c_str());
  return 0;
}

CappedReader::CappedReader(redisReader* reader)
    : reader_(reader), ownFunctions_(reader->fn), ownPrivdata_(reader->privdata) {
  capped_ = *ownFunctions_;
  capped_.createString = createString;
  capped_.createArray = createArray;
  reader_->fn = &capped_;
  reader_->privdata = this;
}

CappedReader::~CappedReader() {
  reader_->fn = ownFunctions_;
  reader_->privdata = ownPrivdata_;
}

void* CappedReader::createString(const redisReadTask* task, char* text, size_t len) {
  auto* self = static_cast<CappedReader*>(task->privdata);
  if (len > kMaxReplyBytes - self->bytes_) {
    self->overCap_ = true;
    return nullptr;  // the reader fails the reply and frees what it built
  }
  self->bytes_ += len;
  return self->ownFunctions_->createString(task, text, len);
}

void* CappedReader::createArray(const redisReadTask* task, int elements) {
  auto* self = static_cast<CappedReader*>(task->privdata);
  // Checked before the element table is allocated.
  if (elements < 0 || static_cast<size_t>(elements) > kMaxReplyElements - self->elements_) {
    self->overCap_ = true;
    return nullptr;
  }
  self->elements_ += static_cast<size_t>(elements);
  return self->ownFunctions_->createArray(task, elements);
}

int CappedReader::getReply(void** reply) {
  *reply = nullptr;
  if (overCap_) {
    return REDIS_ERR;
  }
  // Tasks of a reply begun under another cap still point at it.
  for (int i = 0; i <= reader_->ridx && i < static_cast<int>(std::size(reader_->rstack)); ++i) {
    reader_->rstack[i].privdata = this;
  }
  if (redisReaderGetReply(reader_, reply) != REDIS_OK) {
    if (overCap_) {
      std::snprintf(reader_->errstr, sizeof(reader_->errstr), "Reply over the size cap");
    }
    return REDIS_ERR;
  }
  if (*reply != nullptr) {
    bytes_ = 0;
    elements_ = 0;
    return REDIS_OK;
  }
  if (!pendingWithinCaps()) {
    refuse();
    return REDIS_ERR;
  }
  return REDIS_OK;
}

// The reader keeps an incomplete item in its buffer, so the bytes there are
// those of the item being read; a bulk item's announced length waits at the
// cursor, just after the '$' the reader has taken.
bool CappedReader::pendingWithinCaps() const {
  const size_t left = kMaxReplyBytes - bytes_;
  if (reader_->buf == nullptr || reader_->len < reader_->pos) {
    return true;
  }
  if (reader_->len - reader_->pos > left + kFramingBytes) {
    return false;
  }
  const int ridx = reader_->ridx;
  if (ridx < 0 || ridx >= static_cast<int>(std::size(reader_->rstack)) ||
      reader_->rstack[ridx].type != REDIS_REPLY_STRING) {
    return true;
  }
  size_t announced = 0;
  for (size_t i = reader_->pos; i < reader_->len; ++i) {
    const char c = reader_->buf[i];
    if (c < '0' || c > '9') {
      break;
    }
    announced = announced * 10 + static_cast<size_t>(c - '0');
    if (announced > left) {
      return false;
    }
  }
  return true;
}

// Fails the reader the way hiredis fails it on a protocol error, and lets
// the partial reply go at once; the buffer goes with the reader.
void CappedReader::refuse() {
  overCap_ = true;
  if (reader_->reply != nullptr && reader_->fn != nullptr && reader_->fn->freeObject != nullptr) {
    reader_->fn->freeObject(reader_->reply);
  }
  reader_->reply = nullptr;
  reader_->ridx = -1;
  reader_->err = REDIS_ERR_PROTOCOL;
  std::snprintf(reader_->errstr, sizeof(reader_->errstr), "Reply over the size cap");
}

}  // namespace tarn
}  // namespace VEL
