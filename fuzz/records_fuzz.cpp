// libFuzzer target: JSON text, parsed as the client parses agent replies,
// into each of the five records, written back with toJson and decoded into
// a fresh record: the second decode must succeed and write the same JSON
// text as the first, whatever the first decode made of the input (a failed
// decode leaves a partly filled record, which must still round-trip).
#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "fuzz_support.h"
#include "vel/records.h"

namespace {

// Strings may hold any bytes (the reader takes them as they come): they are
// written as they are, so that the text keeps them. By default jsoncpp
// would replace a byte that is not UTF-8 by U+FFFD, a change of the text's
// own making.
std::string textOf(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

template <typename Record>
void roundTrip(const Json::Value& input) {
  Record first;
  (void)first.fromJson(input);
  Json::Value written;
  if (first.toJson(written) != 0) {
    std::fprintf(stderr, "%s: toJson of a decoded record failed\n", first.getClassName().c_str());
    std::abort();
  }
  const std::string once = textOf(written);

  Json::Value reread;
  Json::Reader reader;
  if (!reader.parse(once, reread, false)) {
    std::fprintf(stderr, "%s: toJson wrote text that does not parse: %s\n",
                 first.getClassName().c_str(), once.c_str());
    std::abort();
  }
  Record second;
  if (second.fromJson(reread) != 0) {
    std::fprintf(stderr, "%s: its own JSON does not decode: %s\n", first.getClassName().c_str(),
                 once.c_str());
    std::abort();
  }
  Json::Value rewritten;
  if (second.toJson(rewritten) != 0 || textOf(rewritten) != once) {
    std::fprintf(stderr, "%s: second decode differs:\n%s\n%s\n", first.getClassName().c_str(),
                 once.c_str(), textOf(rewritten).c_str());
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  velfuzz::quietLibrary();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  Json::Value root;
  try {
    // As the client reads metadata replies: comments collected. jsoncpp
    // gives up on deep nesting by throwing.
    Json::Reader reader;
    if (!reader.parse(text, root, true)) {
      return 0;
    }
  } catch (const std::exception&) {
    return 0;
  }
  roundTrip<VEL::VELModuleInfo>(root);
  roundTrip<VEL::VELFileLoc>(root);
  roundTrip<VEL::VELFileInfo>(root);
  roundTrip<VEL::VELAction>(root);
  roundTrip<VEL::TarnMetaData>(root);
  return 0;
}
