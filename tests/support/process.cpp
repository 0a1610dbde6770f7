#include "support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace veltest {

namespace {

using Clock = std::chrono::steady_clock;

// Puts `fd` (or /dev/null for kToNull) in place of `target`.
void redirect(int fd, int target) {
  if (fd == kToNull) {
    fd = ::open("/dev/null", O_RDWR);
  }
  if (fd >= 0) {
    ::dup2(fd, target);
  }
}

}  // namespace

long long millisLeft(Clock::time_point deadline) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
}

pid_t spawn(const std::vector<std::string>& argv, const SpawnOptions& options) {
  std::vector<char*> args;
  for (const std::string& arg : argv) {
    args.push_back(const_cast<char*>(arg.c_str()));
  }
  args.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid != 0) {
    return pid;
  }
  if (options.endWithParent) {
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  }
  redirect(options.nullInput ? kToNull : -1, STDIN_FILENO);
  redirect(options.out, STDOUT_FILENO);
  redirect(options.err, STDERR_FILENO);
  for (const auto& [name, value] : options.env) {
    if (value == kUnset) {
      ::unsetenv(name.c_str());
    } else {
      ::setenv(name.c_str(), value.c_str(), 1);
    }
  }
  if (!options.cwd.empty() && ::chdir(options.cwd.c_str()) != 0) {
    ::_exit(127);
  }
  if (options.setUp) {
    options.setUp();
  }
  if (options.searchPath) {
    ::execvp(args[0], args.data());
  } else {
    ::execv(args[0], args.data());
  }
  ::_exit(127);
}

int waitExit(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) {
      return -1;
    }
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool stopProcess(pid_t pid, int seconds, int* status) {
  ::kill(pid, SIGTERM);
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  int raw = 0;
  pid_t done = 0;
  while ((done = ::waitpid(pid, &raw, WNOHANG)) == 0 && millisLeft(deadline) > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (done != pid) {
    ::kill(pid, SIGKILL);
    waitExit(pid);
  }
  if (status != nullptr) {
    *status = done == pid && WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }
  return done == pid;
}

bool waitForText(int fd, const std::string& text, int seconds) {
  const auto deadline = Clock::now() + std::chrono::seconds(seconds);
  std::string seen;
  while (seen.find(text) == std::string::npos) {
    const long long left = millisLeft(deadline);
    struct pollfd pfd = {fd, POLLIN, 0};
    const int n = left > 0 ? ::poll(&pfd, 1, static_cast<int>(left)) : 0;
    if (n < 0 && errno == EINTR) {
      continue;
    }
    char buffer[256];
    const ssize_t got = n > 0 ? ::read(fd, buffer, sizeof buffer) : 0;
    if (got <= 0) {
      return false;
    }
    seen.append(buffer, static_cast<size_t>(got));
  }
  return true;
}

ProcessResult runProcess(const std::vector<std::string>& argv,
                         const std::map<std::string, std::string>& env, const std::string& cwd) {
  ProcessResult result;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return result;
  }
  SpawnOptions options;
  options.out = fds[1];
  options.env = env;
  options.cwd = cwd;
  const pid_t pid = spawn(argv, options);
  ::close(fds[1]);
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fds[0], buffer, sizeof(buffer))) > 0) {
    result.out.append(buffer, static_cast<size_t>(n));
  }
  ::close(fds[0]);
  if (pid > 0) {
    result.status = waitExit(pid);
  }
  return result;
}

}  // namespace veltest
