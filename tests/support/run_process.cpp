#include "support/run_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace veltest {

ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, const std::string& cwd) {
  int pipefd[2];
  if (::pipe(pipefd) != 0) {
    throw std::runtime_error("pipe failed");
  }
  pid_t pid = ::fork();
  if (pid < 0) {
    throw std::runtime_error("fork failed");
  }
  if (pid == 0) {
    ::dup2(pipefd[1], STDOUT_FILENO);
    ::close(pipefd[0]);
    ::close(pipefd[1]);
    for (const auto& [name, value] : env) {
      if (value == kUnset) {
        ::unsetenv(name.c_str());
      } else {
        ::setenv(name.c_str(), value.c_str(), 1);
      }
    }
    if (!cwd.empty() && ::chdir(cwd.c_str()) != 0) {
      ::_exit(127);
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) {
      args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  ::close(pipefd[1]);
  ProcessResult result;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(pipefd[0], buffer, sizeof(buffer))) > 0) {
    result.out.append(buffer, static_cast<size_t>(n));
  }
  ::close(pipefd[0]);
  int wstatus = 0;
  ::waitpid(pid, &wstatus, 0);
  if (WIFEXITED(wstatus)) {
    result.status = WEXITSTATUS(wstatus);
  }
  return result;
}

}  // namespace veltest
