// Micro-benchmarks, reported as ratios against a baseline measured in the
// same run (the machines are shared and noisy):
//  - path cleaning against a plain copy of the same string;
//  - one log line (stat + lock + write + flush) against fprintf + fflush;
//  - a metadata lookup through the agent against a bare hiredis round trip.
// Usage: vel_bench [iterations]   (needs build/bin/velfileagent for the last)
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vel/log.h"
#include "vel/paths.h"
#include "vel/records.h"
#include "vel/tarn_client.h"

namespace {

template <typename F>
double nsPerOp(int n, F&& f) {
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < n; ++i) {
    f(i);
  }
  std::chrono::duration<double, std::nano> d = std::chrono::steady_clock::now() - start;
  return d.count() / n;
}

void report(const char* name, double base, double measured) {
  std::printf("%-28s baseline %9.1f ns  vel %9.1f ns  ratio %6.2f\n", name, base, measured,
              measured / base);
}

volatile size_t g_sink;

}  // namespace

int main(int argc, char** argv) {
  int n = argc > 1 ? std::atoi(argv[1]) : 200000;
  char dir[] = "/tmp/velbench.XXXXXX";
  if (::mkdtemp(dir) == nullptr) {
    return 1;
  }
  setenv("_APP_LOG_DIR", dir, 1);

  const std::string path = "  /a//b/./c\\d/../e/file name.txt ";
  double copy = nsPerOp(n, [&](int) { g_sink = std::string(path).size(); });
  double clean = nsPerOp(n, [&](int) { g_sink = VEL::normalizePath(path).size(); });
  report("normalizePath", copy, clean);

  std::string rawPath = std::string(dir) + "/raw.log";
  FILE* raw = std::fopen(rawPath.c_str(), "a");
  int lines = n / 10;
  double plain = nsPerOp(lines, [&](int i) {
    std::fprintf(raw, "2026-01-01 00:00:00 ERROR [VEL] line %d\n", i);
    std::fflush(raw);
  });
  std::fclose(raw);
  VEL::LogInterface* logger = VEL::getLogger();
  double logged = nsPerOp(lines, [&](int i) { logger->log(1, "[VEL] line %d", i); });
  report("log line", plain, logged);

  const char* agent = argc > 2 ? argv[2] : "build/bin/velfileagent";
  std::string store = std::string(dir) + "/store";
  std::string mirror = std::string(dir) + "/mirror";
  std::string sock = std::string(dir) + "/agent.sock";
  std::system(("mkdir -p " + store + " " + mirror + " && echo x > " + store + "/f").c_str());
  std::fflush(stdout);
  pid_t pid = ::fork();
  if (pid == 0) {
    ::freopen("/dev/null", "w", stdout);
    ::execl(agent, agent, "--store", store.c_str(), "--mirror", mirror.c_str(), "--socket",
            sock.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  for (int i = 0; i < 100 && ::access(sock.c_str(), F_OK) != 0; ++i) {
    ::usleep(50000);
  }
  int rounds = n / 100;
  redisContext* c = redisConnectUnix(sock.c_str());
  double bare = nsPerOp(rounds, [&](int) {
    freeReplyObject(redisCommand(c, "tarn.metadata %s %s", "TestService", "f"));
  });
  redisFree(c);
  // The client prints progress lines: silence them while measuring.
  std::fflush(stdout);
  int saved = ::dup(STDOUT_FILENO);
  int null = ::open("/dev/null", O_WRONLY);
  ::dup2(null, STDOUT_FILENO);
  VEL::TarnConnOptions options;
  double lookup = nsPerOp(rounds, [&](int) {
    VEL::TarnClient client(options, sock);
    VEL::TarnMetaData meta;
    if (client.connect(1) == 0) {
      client.TarnGetMetaData("f", meta);
    }
  });
  std::fflush(stdout);
  ::dup2(saved, STDOUT_FILENO);
  ::close(saved);
  ::close(null);
  report("metadata lookup (connect+1)", bare, lookup);
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  std::system((std::string("rm -rf ") + dir).c_str());
  return 0;
}
