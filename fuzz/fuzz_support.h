// Set-up shared by the fuzz targets: the library's progress lines on
// standard output and its log lines would cost more than the code under
// test and flood the terminal, so standard output goes to /dev/null and the
// log to a folder that does not exist (lines are then dropped). The mirror
// root is a path in a fresh temporary folder, so that nothing a target does
// lands in the default mirror. libFuzzer itself reports on standard error.
#ifndef VEL_FUZZ_FUZZ_SUPPORT_H_
#define VEL_FUZZ_FUZZ_SUPPORT_H_

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace velfuzz {

// The temporary folder of this process, removed at exit (it stays empty:
// neither the log folder nor the mirror root below it is ever created).
inline const std::string& scratch() {
  static const std::string path = [] {
    char pattern[] = "/tmp/velfuzz.XXXXXX";
    const char* made = ::mkdtemp(pattern);
    if (made == nullptr) {
      std::perror("velfuzz: mkdtemp");
      std::abort();
    }
    std::string dir = made;
    static std::string removeAtExit = dir;
    std::atexit([] { ::rmdir(removeAtExit.c_str()); });
    return dir;
  }();
  return path;
}

// Silences the library; call once from LLVMFuzzerInitialize.
inline void quietLibrary() {
  ::setenv("_APP_LOG_DIR", (scratch() + "/no-log").c_str(), 1);
  ::setenv("TARN_ROOT_DIR", (scratch() + "/mirror").c_str(), 1);
  std::fflush(stdout);
  int null = ::open("/dev/null", O_WRONLY);
  if (null >= 0) {
    ::dup2(null, STDOUT_FILENO);
    ::close(null);
  }
}

}  // namespace velfuzz

#endif  // VEL_FUZZ_FUZZ_SUPPORT_H_
