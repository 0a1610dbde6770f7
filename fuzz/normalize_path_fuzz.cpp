// libFuzzer target: path cleaning must never produce "." or ".." components,
// empty components or a trailing separator, and must be idempotent.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "vel/paths.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string input(reinterpret_cast<const char*>(data), size);
  input = input.c_str();  // the cleaner takes NUL-terminated text
  for (bool keepRelative : {true, false}) {
    std::string once = VEL::normalizePath(input.c_str(), keepRelative, '/');
    std::string twice = VEL::normalizePath(once.c_str(), keepRelative, '/');
    if (once != twice) {
      std::abort();
    }
    std::string body = (!once.empty() && once[0] == '/') ? once.substr(1) : once;
    if (keepRelative && !once.empty() && once[0] == '/') {
      std::abort();
    }
    if (!body.empty()) {
      body += '/';
      size_t start = 0;
      for (size_t pos = body.find('/'); pos != std::string::npos; pos = body.find('/', start)) {
        std::string part = body.substr(start, pos - start);
        if (part.empty() || part == "." || part == ".." || part.find('\\') != std::string::npos) {
          std::abort();
        }
        start = pos + 1;
      }
    }
  }
  return 0;
}
