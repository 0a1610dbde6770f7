// Runs a program as a child process and collects its standard output and
// exit status, for tests that drive the built tool as a user does.
#ifndef VEL_TESTS_SUPPORT_RUN_PROCESS_H_
#define VEL_TESTS_SUPPORT_RUN_PROCESS_H_

#include <map>
#include <string>
#include <vector>

namespace veltest {

struct ProcessResult {
  int status = -1;  // exit status (0..255), or -1 when the child did not exit
  std::string out;  // everything written to standard output
};

// Runs argv[0] with the arguments argv[1..], in `cwd` (unless empty), with
// the environment of this process changed by `env` (a value of "\x01unset"
// removes the variable). Standard error is passed through.
ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env = {},
                         const std::string& cwd = "");

constexpr const char* kUnset = "\x01unset";

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_RUN_PROCESS_H_
