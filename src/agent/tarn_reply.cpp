#include "agent/tarn_reply.h"

#include <json/json.h>

#include <cstdint>
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

namespace {

// One scalar member value of a flat object, as the JSON reader would type
// it: an integer that fits 32 signed bits, or any negative one, is an
// "int"; a larger positive one a "uint".
struct Scalar {
  enum Kind { kAbsent, kString, kInt, kUInt, kOther } kind = kAbsent;
  const char* text = nullptr;  // kString
  size_t length = 0;
  int64_t number = 0;  // kInt, kUInt
};

// A string without escapes or control characters: [begin, end) of its
// text; false when it is not one (or not only one).
bool scanString(const char*& p, const char* end, const char*& begin, size_t& length) {
  if (p == end || *p != '"') {
    return false;
  }
  begin = ++p;
  while (p != end && *p != '"') {
    if (*p == '\\' || static_cast<unsigned char>(*p) < 0x20) {
      return false;
    }
    ++p;
  }
  if (p == end) {
    return false;
  }
  length = static_cast<size_t>(p - begin);
  ++p;
  return true;
}

bool scanLiteral(const char*& p, const char* end, const char* word, size_t length) {
  if (static_cast<size_t>(end - p) < length || std::memcmp(p, word, length) != 0) {
    return false;
  }
  p += length;
  return true;
}

// A string, an integer of at most 18 digits without leading zeros, true,
// false or null.
bool scanScalar(const char*& p, const char* end, Scalar& value) {
  if (p == end) {
    return false;
  }
  if (*p == '"') {
    value.kind = Scalar::kString;
    return scanString(p, end, value.text, value.length);
  }
  if (*p == 't' || *p == 'f' || *p == 'n') {
    value.kind = Scalar::kOther;
    return scanLiteral(p, end, "true", 4) || scanLiteral(p, end, "false", 5) ||
           scanLiteral(p, end, "null", 4);
  }
  const bool negative = *p == '-';
  if (negative) {
    ++p;
  }
  const char* digits = p;
  int64_t magnitude = 0;
  while (p != end && *p >= '0' && *p <= '9' && p - digits < 18) {
    magnitude = magnitude * 10 + (*p - '0');
    ++p;
  }
  const size_t count = static_cast<size_t>(p - digits);
  if (count == 0 || (digits[0] == '0' && (count > 1 || negative)) ||
      (p != end && *p != ',' && *p != '}')) {
    return false;  // "-0", leading zeros, fractions, exponents, 19 digits and more
  }
  value.number = negative ? -magnitude : magnitude;
  value.kind = negative || magnitude <= INT32_MAX ? Scalar::kInt : Scalar::kUInt;
  return true;
}

bool keyIs(const char* key, size_t length, const char* name) {
  return std::strlen(name) == length && std::memcmp(key, name, length) == 0;
}

// A record text field as fromJson reads it: a string, or "" when absent;
// false (another type: fromJson refuses it) otherwise.
bool textField(const Scalar& value, std::string& out) {
  if (value.kind == Scalar::kAbsent) {
    out.clear();
    return true;
  }
  if (value.kind != Scalar::kString) {
    return false;  // null included: left to the full path, which reads it as ""
  }
  out.assign(value.text, value.length);
  return true;
}

}  // namespace

bool readFlatMetaData(const char* text, size_t length, TarnMetaData& out, int32_t& mode) {
  const char* p = text;
  const char* const end = text + length;
  if (p == end || *p++ != '{') {
    return false;
  }
  // The last of duplicate members wins, as in the JSON reader.
  Scalar roles, kind, modified, name, size, modeMember;
  if (p != end && *p == '}') {
    ++p;
  } else {
    for (;;) {
      const char* key = nullptr;
      size_t keyLength = 0;
      Scalar value;
      if (!scanString(p, end, key, keyLength) || p == end || *p++ != ':' ||
          !scanScalar(p, end, value)) {
        return false;
      }
      if (keyIs(key, keyLength, "AccessAllowRoles")) {
        roles = value;
      } else if (keyIs(key, keyLength, "Kind")) {
        kind = value;
      } else if (keyIs(key, keyLength, "LastModifiedTime")) {
        modified = value;
      } else if (keyIs(key, keyLength, "Name")) {
        name = value;
      } else if (keyIs(key, keyLength, "Size")) {
        size = value;
      } else if (keyIs(key, keyLength, "mode")) {
        modeMember = value;
      }
      if (p == end) {
        return false;
      }
      if (*p++ == '}') {
        break;
      }
      if (p[-1] != ',') {
        return false;
      }
    }
  }
  if (p != end) {
    return false;  // the JSON reader would ignore what follows; left to it
  }
  const bool isFile = kind.kind == Scalar::kString && keyIs(kind.text, kind.length, "file");
  const bool sizeIsInteger = size.kind == Scalar::kInt || size.kind == Scalar::kUInt;
  for (const Scalar* field : {&roles, &kind, &modified, &name}) {
    if (field->kind != Scalar::kAbsent && field->kind != Scalar::kString) {
      return false;
    }
  }
  if (isFile && !sizeIsInteger) {
    return false;
  }
  textField(roles, out.AccessAllowRoles);
  textField(kind, out.Kind);
  textField(modified, out.LastModifiedTime);
  textField(name, out.Name);
  out.Size = isFile ? size.number : 0;
  // The "mode" member as a 32-bit integer, signed or unsigned; -1 otherwise.
  mode = -1;
  if (modeMember.kind == Scalar::kInt && modeMember.number >= INT32_MIN &&
      modeMember.number <= INT32_MAX) {
    mode = static_cast<int32_t>(modeMember.number);
  } else if (modeMember.kind == Scalar::kUInt && modeMember.number <= UINT32_MAX) {
    mode = static_cast<int32_t>(static_cast<uint32_t>(modeMember.number));
  }
  return true;
}

int32_t readMetaDataJson(const char* text, size_t length, TarnMetaData& out, int32_t& mode) {
  mode = -1;
  Json::Value root;
  std::string parseErrors;
  bool parsed = false;
  try {
    Json::Reader reader;
    parsed = reader.parse(std::string(text, length), root, true);
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
  mode = modeOf(root);
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
  int32_t modeMember = -1;
  if (!readFlatMetaData(text, reply->len, out, modeMember)) {
    const int32_t status = readMetaDataJson(text, reply->len, out, modeMember);
    if (status != 0) {
      return status;
    }
  }
  if (mode != nullptr) {
    *mode = modeMember;
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
