#include "support/agent_fixture.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json/json.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <thread>

namespace veltest {

namespace {

constexpr int kStartSeconds = 30;
constexpr int kStopSeconds = 15;

long long millisLeft(std::chrono::steady_clock::time_point deadline) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                               std::chrono::steady_clock::now())
      .count();
}

}  // namespace

AgentFixture::AgentFixture(const std::string& rulesJson) {
  makeDirs(store());
  makeDirs(mirror());
  makeDirs(udsRoot());
  makeDirs(logDir());
  writeFile(rulesPath(), rulesJson);
  ready_ = start();
  if (!ready_) {
    ADD_FAILURE() << "the file agent " << VEL_AGENT_BIN << " did not start";
  }
}

AgentFixture::~AgentFixture() { stop(); }

std::string AgentFixture::root() const { return dir_.path(); }
std::string AgentFixture::store() const { return dir_.sub("store"); }
std::string AgentFixture::mirror() const { return dir_.sub("mirror"); }
std::string AgentFixture::udsRoot() const { return dir_.sub("uds"); }
std::string AgentFixture::socketPath() const {
  return udsRoot() + "/velfileagent/velfileagent.sock";
}
std::string AgentFixture::logDir() const { return dir_.sub("log"); }
std::string AgentFixture::journalPath() const { return dir_.sub("journal.jsonl"); }
std::string AgentFixture::rulesPath() const { return dir_.sub("rules.json"); }

bool AgentFixture::start() {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return false;
  }
  std::vector<std::string> args = {VEL_AGENT_BIN, "--store",  store(),      "--mirror",
                                   mirror(),      "--socket", socketPath(), "--journal",
                                   journalPath(), "--rules",  rulesPath()};
  std::vector<char*> argv;
  for (std::string& arg : args) {
    argv.push_back(&arg[0]);
  }
  argv.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    return false;
  }
  if (pid_ == 0) {
    // An agent must not outlive a test process that aborts.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    ::dup2(fds[1], STDOUT_FILENO);
    ::execv(argv[0], argv.data());
    _exit(127);
  }
  ::close(fds[1]);
  outFd_ = fds[0];
  std::string seen;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kStartSeconds);
  while (seen.find("ready\n") == std::string::npos) {
    long long left = millisLeft(deadline);
    if (left <= 0) {
      return false;
    }
    struct pollfd pfd = {outFd_, POLLIN, 0};
    int n = ::poll(&pfd, 1, static_cast<int>(left));
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    char buffer[256];
    ssize_t got = ::read(outFd_, buffer, sizeof buffer);
    if (got <= 0) {
      return false;  // the agent ended before it was ready
    }
    seen.append(buffer, static_cast<size_t>(got));
  }
  return true;
}

void AgentFixture::stop() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    int status = 0;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kStopSeconds);
    pid_t done = 0;
    while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && millisLeft(deadline) > 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (done == pid_) {
      exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    } else {
      ADD_FAILURE() << "the file agent did not stop on SIGTERM";
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
      exitStatus_ = -1;
    }
    pid_ = -1;
  }
  if (outFd_ >= 0) {
    ::close(outFd_);
    outFd_ = -1;
  }
}

std::vector<std::vector<std::string>> AgentFixture::journal() const {
  std::vector<std::vector<std::string>> requests;
  std::ifstream in(journalPath());
  std::string line;
  Json::CharReaderBuilder builder;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  while (std::getline(in, line)) {
    if (line.empty()) {
      continue;
    }
    Json::Value value;
    std::string error;
    std::vector<std::string> args;
    if (reader->parse(line.data(), line.data() + line.size(), &value, &error) && value.isArray()) {
      for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
        args.push_back(value[i].isString() ? value[i].asString() : value[i].toStyledString());
      }
    } else {
      ADD_FAILURE() << "journal line is not a JSON list: " << line;
    }
    requests.push_back(args);
  }
  return requests;
}

void AgentFixture::clearJournal() {
  // The agent appends, so cutting the file makes its next line the first.
  if (::truncate(journalPath().c_str(), 0) != 0) {
    writeFile(journalPath(), "");
  }
}

void AgentFixture::setRules(const std::string& rulesJson) {
  // A new file renamed into place: the agent sees another inode and reloads
  // even when size and time happen to match the old one.
  std::string fresh = rulesPath() + ".new";
  writeFile(fresh, rulesJson);
  std::rename(fresh.c_str(), rulesPath().c_str());
}

void AgentFixture::exportEnv() const {
  ::setenv("UDS_ROOT_OSSUSER", udsRoot().c_str(), 1);
  ::setenv("TARN_ROOT_DIR", mirror().c_str(), 1);
  ::setenv("_APP_LOG_DIR", logDir().c_str(), 1);
}

}  // namespace veltest
