#include <cctype>
#include <string>
#include <vector>

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

}  // namespace

std::string normalizePath(const char* path, bool keepRelative, char sep) {
  if (path == nullptr) {
    return std::string();
  }
  while (*path != '\0' && isBlank(*path)) {
    ++path;
  }
  if (*path == '\0') {
    return std::string();
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
