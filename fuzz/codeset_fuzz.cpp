// libFuzzer target: code-set conversion through the cached descriptors.
//
// ISO-8859-1 is stateless and maps every byte to one character, so any
// Latin-1 name converts to UTF-8 and back unchanged. The other way, a UTF-8
// name that converts to Latin-1 without failure comes back unchanged, and
// one that does not falls back to the unconverted bytes. Names are C
// strings (the conversion keeps text up to the first NUL), so the input is
// cut there.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "vel/codeset.h"

namespace {

using velfuzz::fail;

const char* const kLatin1 = "ISO-8859-1";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return velfuzz::quietLibrary(); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input = std::string(reinterpret_cast<const char*>(data), size).c_str();

  std::string utf8;
  if (VEL::convertToUtf8(utf8, input, kLatin1) != 0) {
    fail("a Latin-1 name did not convert to UTF-8", input, utf8);
  }
  std::string back;
  if (VEL::convertFromUtf8(back, utf8, kLatin1) != 0 || back != input) {
    fail("Latin-1 to UTF-8 and back changed the name", input, back);
  }

  std::string latin1;
  const int32_t status = VEL::convertFromUtf8(latin1, input, kLatin1);
  if (status != 0) {
    if (latin1 != input) {
      fail("a failed conversion did not fall back to the unconverted name", input, latin1);
    }
  } else {
    std::string again;
    if (VEL::convertToUtf8(again, latin1, kLatin1) != 0 || again != input) {
      fail("UTF-8 to Latin-1 and back changed the name", input, again);
    }
  }

  // Equal code sets copy; "UNKNOWN" on either side converts nothing.
  std::string same;
  std::string unknown;
  if (VEL::codeSetConvert(kLatin1, kLatin1, input, same) != 0 || same != input ||
      VEL::codeSetConvert("UNKNOWN", kLatin1, input, unknown) != 0 || !unknown.empty()) {
    fail("equal or unknown code sets converted something", input, same + unknown);
  }
  return 0;
}
