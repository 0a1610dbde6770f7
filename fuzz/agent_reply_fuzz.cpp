// libFuzzer target: bytes from the agent, read as the client reads them (a
// hiredis reader held to the reply caps by CappedReader), and every reply
// handed to each reply function. The first byte chooses the size of the
// pieces the rest is fed in, as a socket would deliver it. A reply that comes
// out must be within the caps; once the reader fails it stays failed. A
// metadata text the flat reader takes must read alike through jsoncpp.
#include <hiredis/hiredis.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

#include "agent/tarn_reply.h"
#include "fuzz_support.h"
#include "vel/records.h"

namespace {

using VEL::tarn::CappedReader;

// Texts and array elements of a reply, nested arrays included.
void measure(const redisReply* reply, size_t& bytes, size_t& elements) {
  switch (reply->type) {
    case REDIS_REPLY_STRING:
    case REDIS_REPLY_STATUS:
    case REDIS_REPLY_ERROR:
      bytes += reply->len;
      break;
    case REDIS_REPLY_ARRAY:
      elements += reply->elements;
      for (size_t i = 0; i < reply->elements; ++i) {
        measure(reply->element[i], bytes, elements);
      }
      break;
    default:
      break;
  }
}

// A metadata text the flat reader takes reads the same through jsoncpp
// and fromJson.
void sameMetaData(const redisReply* reply) {
  const char* text = VEL::tarn::replyText(reply);
  VEL::TarnMetaData flat;
  int32_t flatMode = 0;
  if (text == nullptr || !VEL::tarn::readFlatMetaData(text, reply->len, flat, flatMode)) {
    return;
  }
  VEL::TarnMetaData json;
  int32_t jsonMode = 0;
  if (VEL::tarn::readMetaDataJson(text, reply->len, json, jsonMode) != 0 ||
      json.AccessAllowRoles != flat.AccessAllowRoles || json.Kind != flat.Kind ||
      json.LastModifiedTime != flat.LastModifiedTime || json.Name != flat.Name ||
      json.Size != flat.Size || jsonMode != flatMode) {
    velfuzz::fail("the flat metadata reader and the JSON reader disagree",
                  std::string(text, reply->len));
  }
}

void handOut(const redisReply* reply) {
  (void)VEL::tarn::classifyOk(reply);
  std::list<std::string> entries;
  if (VEL::tarn::collectListReply(reply, "fuzz/dir", entries) == 0 &&
      (reply->type != REDIS_REPLY_ARRAY || entries.size() > reply->elements)) {
    velfuzz::fail("collectListReply took a non-array or invented entries");
  }
  VEL::TarnMetaData meta;
  int32_t mode = 0;
  (void)VEL::tarn::decodeMetaDataReply(reply, "fuzz/node", meta, &mode);
  sameMetaData(reply);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return velfuzz::quietLibrary(); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const size_t piece = 1 + data[0] % 64;
  ++data;
  --size;

  redisReader* hiredisReader = redisReaderCreate();
  if (hiredisReader == nullptr) {
    return 0;
  }
  {
    CappedReader reader(hiredisReader);
    bool failed = false;
    for (size_t fed = 0; fed < size && !failed;) {
      const size_t n = size - fed < piece ? size - fed : piece;
      if (redisReaderFeed(hiredisReader, reinterpret_cast<const char*>(data) + fed, n) !=
          REDIS_OK) {
        break;
      }
      fed += n;
      for (;;) {
        void* raw = nullptr;
        if (reader.getReply(&raw) != REDIS_OK) {
          failed = true;
          if (raw != nullptr) {
            velfuzz::fail("a failed read handed out a reply");
          }
          break;
        }
        if (raw == nullptr) {
          break;
        }
        auto* reply = static_cast<redisReply*>(raw);
        size_t bytes = 0;
        size_t elements = 0;
        measure(reply, bytes, elements);
        if (bytes > VEL::tarn::kMaxReplyBytes || elements > VEL::tarn::kMaxReplyElements) {
          velfuzz::fail("a reply over the caps came through");
        }
        handOut(reply);
        freeReplyObject(reply);
      }
    }
    if (failed) {
      void* raw = nullptr;
      if (reader.getReply(&raw) == REDIS_OK || raw != nullptr) {
        velfuzz::fail("the reader recovered after a failure");
      }
    }
  }
  redisReaderFree(hiredisReader);
  return 0;
}
