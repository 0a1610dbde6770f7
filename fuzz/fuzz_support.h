// Set-up shared by the fuzz targets: the library's progress lines on
// standard output and its log lines would cost more than the code under
// test and flood the terminal, so standard output goes to /dev/null, and
// the log folder and the mirror root lie below /dev/null, where nothing can
// ever be created: log lines are dropped, and nothing a target does lands in
// the default mirror or stays behind. libFuzzer itself reports on standard
// error.
//
// fail() reports a broken property, with the input and what came out of
// it, and aborts, so that libFuzzer keeps the input.
#ifndef VEL_FUZZ_FUZZ_SUPPORT_H_
#define VEL_FUZZ_FUZZ_SUPPORT_H_

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace velfuzz {

// Silences the library; call once from LLVMFuzzerInitialize (returns its 0).
inline int quietLibrary() {
  ::setenv("_APP_LOG_DIR", "/dev/null/velfuzz-log", 1);
  ::setenv("TARN_ROOT_DIR", "/dev/null/velfuzz-mirror", 1);
  std::fflush(stdout);
  int null = ::open("/dev/null", O_WRONLY);
  if (null >= 0) {
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
  return 0;
}

// `text` with every byte outside printable ASCII as \xNN.
inline std::string shown(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    char escaped[8] = {static_cast<char>(c), '\0'};
    if (c < 0x20 || c >= 0x7f) {
      std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
    }
    out += escaped;
  }
  return out;
}

[[noreturn]] inline void fail(const std::string& what, const std::string& input = "",
                              const std::string& got = "") {
  std::fprintf(stderr, "%s\n  input (%zu bytes): \"%s\"\n  got (%zu bytes): \"%s\"\n", what.c_str(),
               input.size(), shown(input).c_str(), got.size(), shown(got).c_str());
  std::abort();
}

}  // namespace velfuzz

#endif  // VEL_FUZZ_FUZZ_SUPPORT_H_
