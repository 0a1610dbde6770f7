#include "agent/tarn_reply.h"

#include <json/json.h>

#include <cstdio>
#include <cstring>
#include <exception>

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

}  // namespace tarn
}  // namespace VEL
