#include <cctype>
#include <cstring>
#include <string>
#include <vector>

#include "api/clean_path.h"
#include "vel/paths.h"

namespace VEL {

namespace {

bool isSeparator(char c) { return c == '/' || c == '\\'; }

bool isBlank(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string trim(const std::string& text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && isBlank(text[begin])) {
    ++begin;
  }
  while (end > begin && isBlank(text[end - 1])) {
    --end;
  }
  return text.substr(begin, end - begin);
}

// The characters that end a component: "/", "\\" and the terminator.
constexpr struct ComponentEnds {
  bool table[256] = {};
  constexpr ComponentEnds() : table() {
    table[0] = true;
    table[static_cast<unsigned char>('/')] = true;
    table[static_cast<unsigned char>('\\')] = true;
  }
  constexpr bool operator[](unsigned char c) const { return table[c]; }
} kEndsComponent;

// isBlank() for the characters of clean paths without the call: no locale
// counts a printable ASCII character as space.
bool mayBeBlank(char c) { return static_cast<unsigned char>(c) - 0x21u >= 0x5eu && isBlank(c); }

// Length of `path` when cleaning with "/" as separator would give it back
// unchanged: "/" separators only, no empty, "." or ".." component, no blank
// at either end of a component, a leading "/" only where it is kept.
// 0 when it would change.
size_t cleanLength(const char* path, bool keepRelative) {
  const char* component = path;
  if (*component == '/' && !keepRelative) {
    ++component;
  }
  for (;;) {
    const char* end = component;
    while (!kEndsComponent[static_cast<unsigned char>(*end)]) {
      ++end;
    }
    const size_t length = static_cast<size_t>(end - component);
    if (*end == '\\' || length == 0 || mayBeBlank(component[0]) || mayBeBlank(end[-1]) ||
        (component[0] == '.' && (length == 1 || (length == 2 && component[1] == '.')))) {
      return 0;
    }
    if (*end == '\0') {
      return static_cast<size_t>(end - path);
    }
    component = end + 1;
  }
}

const char* skipBlanks(const char* path) {
  while (*path != '\0' && mayBeBlank(*path)) {
    ++path;
  }
  return path;
}

}  // namespace

const char* cleanPathAsIs(const char* path, bool keepRelative, size_t& length) {
  if (path == nullptr) {
    return nullptr;
  }
  path = skipBlanks(path);
  length = cleanLength(path, keepRelative);
  return length != 0 ? path : nullptr;
}

std::string normalizePath(const char* path, bool keepRelative, char sep) {
  if (path == nullptr) {
    return std::string();
  }
  path = skipBlanks(path);
  if (*path == '\0') {
    return std::string();
  }
  if (sep == '/') {
    // Most paths are clean already: one scan, one copy.
    const size_t length = cleanLength(path, keepRelative);
    if (length != 0) {
      return std::string(path, length);
    }
  }
  std::string result;
  if (!keepRelative && isSeparator(*path)) {
    result.push_back(sep);
  }

  std::vector<std::string> parts;
  std::string current;
  std::string work(path);
  work.push_back('/');
  for (char c : work) {
    if (!isSeparator(c)) {
      current.push_back(c);
      continue;
    }
    std::string part = trim(current);
    current.clear();
    if (part.empty() || part == ".") {
      continue;
    }
    if (part == "..") {
      // ".." removes the component before it; at the front it is dropped,
      // so the result never climbs above its start.
      if (!parts.empty()) {
        parts.pop_back();
      }
      continue;
    }
    parts.push_back(part);
  }

  for (size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) {
      result.push_back(sep);
    }
    result += parts[i];
  }
  return result;
}

}  // namespace VEL
