// Child processes for tests and benchmarks: one place that forks, sets up
// the child's standard streams and environment, runs the program, waits for
// it and stops it. Free of GoogleTest, so that the benchmarks use it too.
#ifndef VEL_TESTS_SUPPORT_PROCESS_H_
#define VEL_TESTS_SUPPORT_PROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace veltest {

// SpawnOptions::out and ::err: the stream goes to /dev/null.
constexpr int kToNull = -2;
// A value in SpawnOptions::env that removes the variable.
constexpr const char* kUnset = "\x01unset";

struct SpawnOptions {
  int out = -1;            // descriptor for the child's standard output (-1: this process's)
  int err = -1;            // likewise for its standard error
  bool nullInput = false;  // standard input from /dev/null
  std::map<std::string, std::string> env;  // changes to this process's environment
  std::string cwd;                         // working directory, unless empty
  bool searchPath = false;                 // argv[0] is looked up in PATH
  bool endWithParent = false;              // SIGTERM once the thread that started it ends
  std::function<void()> setUp;             // runs in the child just before the program
};

// Milliseconds until `deadline`, negative once it has passed.
long long millisLeft(std::chrono::steady_clock::time_point deadline);

// Starts argv[0] with the arguments argv[1..]: the child's process id, or
// -1 when fork failed. A program that cannot be run exits with 127.
pid_t spawn(const std::vector<std::string>& argv, const SpawnOptions& options = {});
// Waits for `pid`: its exit status (0..255), or -1 when it did not exit.
int waitExit(pid_t pid);
// SIGTERM, then up to `seconds` for it to end, then SIGKILL. True when it
// ended by itself; `status` gets waitExit()'s value.
bool stopProcess(pid_t pid, int seconds, int* status = nullptr);
// Reads `fd` until `text` has come: false when the stream ends first or
// `seconds` pass.
bool waitForText(int fd, const std::string& text, int seconds);

struct ProcessResult {
  int status = -1;  // exit status (0..255), or -1 when the child did not exit
  std::string out;  // everything written to standard output
};

// Runs a program to its end in `cwd` (unless empty) with `env`, collecting
// its standard output; standard error is passed through.
ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {},
                         const std::string& cwd = "");

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_PROCESS_H_
