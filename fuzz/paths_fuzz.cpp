// libFuzzer target: path cleaning and the mirror-path functions.
//
// Cleaning is idempotent, never yields "." or ".." components, empty
// components or a trailing separator, and with keep-relative never a
// leading separator. A mirror path always starts with the root and maps
// back to the cleaned path; a path inside the root (given as the root
// followed by the input) maps to a relative path whose mirror path is that
// path again. Parent and base name put together give the cleaned path.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "vel/instance.h"
#include "vel/paths.h"

namespace {

using velfuzz::fail;

bool isSeparator(char c) { return c == '/' || c == '\\'; }

void checkComponents(const std::string& input, const std::string& cleaned) {
  if (!cleaned.empty() && cleaned.back() == '/' && cleaned != "/") {
    fail("cleaning left a trailing separator", input, cleaned);
  }
  const size_t from = (!cleaned.empty() && cleaned[0] == '/') ? 1 : 0;
  if (cleaned.size() <= from) {
    return;
  }
  const std::string body = cleaned.substr(from) + "/";
  size_t start = 0;
  for (size_t pos = body.find('/'); pos != std::string::npos; pos = body.find('/', start)) {
    const std::string part = body.substr(start, pos - start);
    if (part.empty() || part == "." || part == ".." || part.find('\\') != std::string::npos) {
      fail("cleaning left an empty, \".\", \"..\" or \"\\\" component", input, cleaned);
    }
    start = pos + 1;
  }
}

void checkCleaning(const std::string& input) {
  for (bool keepRelative : {true, false}) {
    const std::string once = VEL::normalizePath(input.c_str(), keepRelative, '/');
    // With "/" a clean path is returned as it is; with "\\" it is always
    // rebuilt: both must agree but for the separator.
    std::string rebuilt = VEL::normalizePath(input.c_str(), keepRelative, '\\');
    for (char& c : rebuilt) {
      c = c == '\\' ? '/' : c;
    }
    if (rebuilt != once) {
      fail("the shortcut for clean paths and the rebuilding disagree", input, once);
    }
    if (VEL::normalizePath(once.c_str(), keepRelative, '/') != once) {
      fail("cleaning is not idempotent", input, once);
    }
    if (keepRelative && !once.empty() && once[0] == '/') {
      fail("keep-relative cleaning left a leading separator", input, once);
    }
    checkComponents(input, once);
  }
}

void checkMirror(const std::string& input, const std::string& root) {
  const std::string cleaned = VEL::normalizePath(input);
  const std::string mirror = VEL::getMirrorPath(input);
  if (mirror != (cleaned.empty() ? root : root + "/" + cleaned)) {
    fail("mirror path is not the root and the cleaned path", input, mirror);
  }
  std::string relative;
  if (VEL::toRelativePath(mirror, relative) == nullptr || relative != cleaned) {
    fail("mirror path does not map back to the cleaned path", input, relative);
  }
  if (!VEL::isInRoot(mirror)) {
    fail("mirror path is not inside the root", input, mirror);
  }
  const std::string parent = VEL::getMirrorParentPath(input);
  if (mirror.compare(0, parent.size(), parent) != 0) {
    fail("mirror parent is no prefix of the mirror path", input, parent);
  }
  const std::string rejoined =
      VEL::joinPath(VEL::getParentPath(input).c_str(), VEL::getBaseName(input).c_str());
  if (rejoined != cleaned) {
    fail("parent and base name do not give the cleaned path", input, rejoined);
  }
  size_t first = 0;
  while (first < input.size() && std::isspace(static_cast<unsigned char>(input[first]))) {
    ++first;
  }
  const bool leadingSeparator = first < input.size() && isSeparator(input[first]);
  if (VEL::isAbsolutePath(input) != leadingSeparator) {
    fail("isAbsolutePath disagrees with the leading separator", input, cleaned);
  }
}

// The input taken as a path below the root: it maps to a relative path
// whose mirror path is the cleaned absolute path.
void checkInsideRoot(const std::string& input, const std::string& root) {
  const std::string absolute = root + "/" + input;
  std::string relative;
  if (VEL::toRelativePath(absolute, relative) == nullptr) {
    return;  // ".." may climb above the root
  }
  const std::string cleanedAbsolute = VEL::normalizePath(absolute.c_str(), false, '/');
  if (VEL::getMirrorPath(relative) != cleanedAbsolute) {
    fail("relative form does not map back to the absolute path", absolute, relative);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  velfuzz::quietLibrary();
  VEL::init({{"clientType", "Local"}});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The functions take NUL-terminated text.
  const std::string input = std::string(reinterpret_cast<const char*>(data), size).c_str();
  const std::string root = VEL::getRootPath();
  checkCleaning(input);
  checkMirror(input, root);
  checkInsideRoot(input, root);
  return 0;
}
