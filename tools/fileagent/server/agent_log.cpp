#include "server/agent_log.h"

#include <strings.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace velagent {

namespace {

constexpr size_t kMaxArgument = 120;
constexpr size_t kMaxArguments = 6;

std::string escaped(const std::string& text, size_t limit) {
  std::string out;
  for (size_t i = 0; i < text.size() && i < limit; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x20 || c == 0x7f) {
      char code[8];
      std::snprintf(code, sizeof code, "\\x%02x", c);
      out += code;
    } else {
      out += static_cast<char>(c);
    }
  }
  if (text.size() > limit) {
    out += "...";
  }
  return out;
}

}  // namespace

void logLine(const std::string& text) {
  std::string line = "velfileagent: " + escaped(text, text.size()) + "\n";
  const char* data = line.data();
  size_t left = line.size();
  while (left > 0) {
    ssize_t n = ::write(STDERR_FILENO, data, left);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return;
    }
    data += n;
    left -= static_cast<size_t>(n);
  }
}

std::string describeRequest(const std::vector<std::string>& args) {
  std::string out;
  bool isWrite = !args.empty() && ::strcasecmp(args[0].c_str(), "tarn.write") == 0;
  for (size_t i = 0; i < args.size() && i < kMaxArguments; ++i) {
    out += i == 0 ? "" : " ";
    if (isWrite && i == 2) {
      out += "<" + std::to_string(args[i].size()) + " bytes>";
    } else {
      out += "'" + escaped(args[i], kMaxArgument) + "'";
    }
  }
  if (args.size() > kMaxArguments) {
    out += " (" + std::to_string(args.size()) + " arguments)";
  }
  return out;
}

}  // namespace velagent
