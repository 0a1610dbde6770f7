// Set-up shared by the fuzz targets: the library's progress lines on
// standard output and its log lines would cost more than the code under
// test and flood the terminal, so standard output goes to /dev/null, and
// the log folder and the mirror root lie below /dev/null, where nothing can
// ever be created: log lines are dropped, and nothing a target does lands in
// the default mirror or stays behind. libFuzzer itself reports on standard
// error.
#ifndef VEL_FUZZ_FUZZ_SUPPORT_H_
#define VEL_FUZZ_FUZZ_SUPPORT_H_

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace velfuzz {

// Silences the library; call once from LLVMFuzzerInitialize.
inline void quietLibrary() {
  ::setenv("_APP_LOG_DIR", "/dev/null/velfuzz-log", 1);
  ::setenv("TARN_ROOT_DIR", "/dev/null/velfuzz-mirror", 1);
  std::fflush(stdout);
  int null = ::open("/dev/null", O_WRONLY);
  if (null >= 0) {
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
}

}  // namespace velfuzz

#endif  // VEL_FUZZ_FUZZ_SUPPORT_H_
