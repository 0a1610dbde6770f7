// The reference file agent against baselines measured in the same run, back
// to back (the machines are shared and noisy):
//  - download and upload of one large file against cp(1) of the same file,
//    and against cp followed by sync(1) of the copy, since the agent flushes
//    every copy to disk before it renames it into place;
//  - the cost of one request (connect, tarn.metadata of a file, close)
//    against a bare connect + command + close on the same socket, the
//    command being one the agent answers without touching the store
//    (tarn.close of an unknown handle); and that bare round trip against a
//    minimal RESP server in this process, the floor of the socket itself.
// Usage: agent_bench [size in MiB, default 256] [rounds, default 3]
//                    [requests, default 2000] [agent binary]
#include <errno.h>
#include <fcntl.h>
#include <hiredis/hiredis.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double secondsOf(const std::function<bool()>& run) {
  auto start = Clock::now();
  if (!run()) {
    std::fprintf(stderr, "agent_bench: a measured step failed\n");
    std::exit(1);
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

bool run(const std::vector<std::string>& argv) {
  pid_t pid = ::fork();
  if (pid == 0) {
    std::vector<char*> args;
    for (const std::string& arg : argv) {
      args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// `mib` MiB of bytes that do not compress or repeat, flushed to disk.
void makeFile(const std::string& path, size_t mib, unsigned long long seed) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<unsigned long long> block((1u << 20) / sizeof(unsigned long long));
  for (size_t i = 0; i < mib; ++i) {
    for (unsigned long long& word : block) {
      seed ^= seed << 13;
      seed ^= seed >> 7;
      seed ^= seed << 17;
      word = seed;
    }
    if (::write(fd, block.data(), 1u << 20) != (1 << 20)) {
      std::perror("agent_bench: write");
      std::exit(1);
    }
  }
  ::fsync(fd);
  ::close(fd);
}

bool ok(redisContext* c, const char* format, const char* arg) {
  auto* reply = static_cast<redisReply*>(redisCommand(c, format, arg));
  bool good =
      reply != nullptr && reply->type == REDIS_REPLY_STATUS && std::strcmp(reply->str, "OK") == 0;
  if (!good) {
    std::fprintf(stderr, "agent_bench: %s %s: %s\n", format, arg,
                 reply != nullptr && reply->str != nullptr ? reply->str : c->errstr);
  }
  freeReplyObject(reply);
  return good;
}

// connect + one command + close, `n` times; seconds per round.
double roundTrips(const std::string& socket, int n, const char* format, const char* arg) {
  return secondsOf([&] {
           for (int i = 0; i < n; ++i) {
             redisContext* c = redisConnectUnix(socket.c_str());
             if (c == nullptr || c->err != 0) {
               return false;
             }
             freeReplyObject(redisCommand(c, format, arg));
             redisFree(c);
           }
           return true;
         }) /
         n;
}

// The least a server can do, in a process of its own like the agent: accept,
// read one request, answer "+OK", close. Returns its process id.
pid_t startEchoServer(const std::string& path) {
  struct sockaddr_un addr = {};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(fd, 128) != 0) {
    std::perror("agent_bench: echo server");
    std::exit(1);
  }
  pid_t pid = ::fork();
  if (pid != 0) {
    ::close(fd);
    return pid;
  }
  for (;;) {
    int client = ::accept(fd, nullptr, nullptr);
    if (client < 0) {
      continue;
    }
    std::string in;
    char buffer[4096];
    ssize_t n;
    // A request of N arguments ends after 1 + 2N lines.
    while ((n = ::recv(client, buffer, sizeof buffer, 0)) > 0) {
      in.append(buffer, static_cast<size_t>(n));
      long lines = std::count(in.begin(), in.end(), '\n');
      if (lines > 0 && lines >= 1 + 2 * std::atol(in.c_str() + 1)) {
        break;
      }
    }
    ssize_t sent = ::send(client, "+OK\r\n", 5, MSG_NOSIGNAL);
    (void)sent;
    ::close(client);
  }
}

void reportCopy(const char* what, size_t mib, double cp, double cpSync, double agent) {
  std::printf(
      "%-9s cp %7.1f MiB/s   cp+sync %7.1f MiB/s   agent %7.1f MiB/s   "
      "ratio to cp %5.2f   to cp+sync %5.2f\n",
      what, mib / cp, mib / cpSync, mib / agent, cp / agent, cpSync / agent);
}

}  // namespace

int main(int argc, char** argv) {
  size_t mib = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 256;
  int rounds = argc > 2 ? std::atoi(argv[2]) : 3;
  int requests = argc > 3 ? std::atoi(argv[3]) : 2000;
  std::string agent = argc > 4 ? argv[4] : VEL_AGENT_BIN;
  const char* tmp = std::getenv("TMPDIR");
  std::string dir = std::string(tmp != nullptr ? tmp : "/tmp") + "/velagentbench.XXXXXX";
  if (::mkdtemp(&dir[0]) == nullptr) {
    std::perror("agent_bench: mkdtemp");
    return 1;
  }
  const std::string store = dir + "/store";
  const std::string mirror = dir + "/mirror";
  const std::string sock = dir + "/agent.sock";
  ::mkdir(store.c_str(), 0755);
  ::mkdir(mirror.c_str(), 0755);
  makeFile(store + "/big", mib, 0x9e3779b97f4a7c15ULL);
  makeFile(mirror + "/up", mib, 0xd1b54a32d192ed03ULL);

  int ready[2];
  if (::pipe(ready) != 0) {
    return 1;
  }
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(ready[1], STDOUT_FILENO);
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDERR_FILENO);
    ::execl(agent.c_str(), agent.c_str(), "--store", store.c_str(), "--mirror", mirror.c_str(),
            "--socket", sock.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(ready[1]);
  char word[6] = {};
  if (::read(ready[0], word, 5) != 5 || std::strcmp(word, "ready") != 0) {
    std::fprintf(stderr, "agent_bench: the agent %s did not start\n", agent.c_str());
    return 1;
  }
  redisContext* c = redisConnectUnix(sock.c_str());

  std::vector<double> cpDown, cpSyncDown, agentDown, cpUp, cpSyncUp, agentUp;
  const std::string copy = dir + "/cp-copy";
  for (int round = 0; round < rounds; ++round) {
    for (const std::string& from : {store + "/big", mirror + "/up"}) {
      bool down = from == store + "/big";
      ::unlink(copy.c_str());
      (down ? cpDown : cpUp).push_back(secondsOf([&] { return run({"cp", from, copy}); }));
      ::unlink(copy.c_str());
      (down ? cpSyncDown : cpSyncUp).push_back(secondsOf([&] {
        return run({"cp", from, copy}) && run({"sync", copy});
      }));
      ::unlink(copy.c_str());
      ::unlink((down ? mirror + "/big" : store + "/up").c_str());
      (down ? agentDown : agentUp).push_back(secondsOf([&] {
        return down ? ok(c, "tarn.downloadlocal TestService %s", "big")
                    : ok(c, "tarn.uploadlocal TestService %s", "up");
      }));
    }
  }
  redisFree(c);
  std::printf("one file of %zu MiB, median of %d rounds\n", mib, rounds);
  reportCopy("download", mib, median(cpDown), median(cpSyncDown), median(agentDown));
  reportCopy("upload", mib, median(cpUp), median(cpSyncUp), median(agentUp));

  pid_t echo = startEchoServer(dir + "/echo.sock");
  std::vector<double> bare, metadata, floor;
  const int block = std::max(1, requests / 10);
  for (int i = 0; i < 10; ++i) {
    bare.push_back(roundTrips(sock, block, "tarn.close TestService %s", "nohandle"));
    metadata.push_back(roundTrips(sock, block, "tarn.metadata TestService %s", "big"));
    floor.push_back(roundTrips(dir + "/echo.sock", block, "tarn.close TestService %s", "x"));
  }
  std::printf("per request (connect + command + close), median of 10 blocks of %d:\n", block);
  std::printf("  tarn.metadata %8.1f us   bare command %8.1f us   ratio %5.2f\n",
              median(metadata) * 1e6, median(bare) * 1e6, median(metadata) / median(bare));
  std::printf("  bare command  %8.1f us   minimal server %6.1f us   ratio %5.2f\n",
              median(bare) * 1e6, median(floor) * 1e6, median(bare) / median(floor));

  ::kill(echo, SIGKILL);
  ::waitpid(echo, nullptr, 0);
  ::kill(pid, SIGTERM);
  ::waitpid(pid, nullptr, 0);
  run({"rm", "-rf", dir});
  return 0;
}
