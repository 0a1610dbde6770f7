// libFuzzer target: JSON text, parsed as the client parses agent replies,
// into each of the five records, written back with toJson and decoded into
// a fresh record: the second decode must succeed and write the same JSON
// text as the first, whatever the first decode made of the input (a failed
// decode leaves a partly filled record, which must still round-trip).
#include <json/json.h>

#include <cstddef>
#include <cstdint>
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
  const std::string name = first.getClassName();
  if (first.toJson(written) != 0) {
    velfuzz::fail(name + ": toJson of a decoded record failed");
  }
  const std::string once = textOf(written);
  Json::Value reread;
  Record second;
  if (!Json::Reader().parse(once, reread, false) || second.fromJson(reread) != 0) {
    velfuzz::fail(name + ": its own JSON does not parse or decode", once);
  }
  Json::Value rewritten;
  if (second.toJson(rewritten) != 0 || textOf(rewritten) != once) {
    velfuzz::fail(name + ": the second decode differs", once, textOf(rewritten));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return velfuzz::quietLibrary(); }

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
