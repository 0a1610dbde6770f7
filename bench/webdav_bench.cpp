// `vel update` of a tree through the agent's WebDAV store, against two
// baselines measured in the same run, round by round (the machines are
// shared and noisy):
//  - a raw loop over one kept-alive connection that sends, for each file of
//    the same tree, the PROPFIND (Depth 0) and the GET the agent needs at
//    least, to the same server: the floor of the protocol;
//  - `vel update` of the same tree through the agent's folder store (the
//    server's document root served directly).
// The server is Apache with mod_dav (tests/support/webdav_server.h); every
// round pulls into an empty mirror.
// Usage: webdav_bench [folders, default 100] [files per folder, default 20]
//                     [file size in bytes, default 4096] [rounds, default 3]
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
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

#include "support/webdav_server.h"
#include "webdav_protocol.h"

namespace {

using Clock = std::chrono::steady_clock;

void fail(const std::string& what) {
  std::fprintf(stderr, "webdav_bench: %s\n", what.c_str());
  std::exit(1);
}

double secondsOf(const std::function<void()>& run) {
  auto start = Clock::now();
  run();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

void writeBytes(const std::string& path, size_t size, unsigned long long seed) {
  std::string bytes(size, '\0');
  for (char& c : bytes) {
    seed ^= seed << 13;
    seed ^= seed >> 7;
    seed ^= seed << 17;
    c = static_cast<char>(seed);
  }
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0 || ::write(fd, bytes.data(), size) != static_cast<ssize_t>(size) || ::close(fd) != 0) {
    fail("cannot write " + path);
  }
}

bool run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
  pid_t pid = ::fork();
  if (pid == 0) {
    for (const std::string& setting : env) {
      ::putenv(const_cast<char*>(setting.c_str()));
    }
    int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDOUT_FILENO);
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

// An agent on its own socket and mirror; stopped by the destructor.
class Agent {
 public:
  Agent(const std::string& dir, const std::vector<std::string>& storeArgs) : dir_(dir) {
    ::mkdir(dir.c_str(), 0755);
    ::mkdir((dir + "/mirror").c_str(), 0755);
    ::mkdir((dir + "/uds").c_str(), 0755);
    ::mkdir((dir + "/log").c_str(), 0755);
    int ready[2];
    if (::pipe(ready) != 0) {
      fail("pipe");
    }
    std::vector<std::string> argv = {VEL_AGENT_BIN, "--mirror", dir + "/mirror", "--socket",
                                     dir + "/uds/velfileagent/velfileagent.sock"};
    argv.insert(argv.end(), storeArgs.begin(), storeArgs.end());
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ready[1], STDOUT_FILENO);
      int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, STDERR_FILENO);
      std::vector<char*> args;
      for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
      }
      args.push_back(nullptr);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    ::close(ready[1]);
    char word[6] = {0};
    if (::read(ready[0], word, 5) != 5 || std::strcmp(word, "ready") != 0) {
      fail("the agent did not start");
    }
    ::close(ready[0]);
  }
  ~Agent() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }

  // `vel update top` into an emptied mirror.
  void update(const std::string& top) const {
    run({"rm", "-rf", dir_ + "/mirror"}, {});
    ::mkdir((dir_ + "/mirror").c_str(), 0755);
    if (!run({VEL_TOOL_BIN, "update", top},
             {"UDS_ROOT_OSSUSER=" + dir_ + "/uds", "TARN_ROOT_DIR=" + dir_ + "/mirror",
              "_APP_LOG_DIR=" + dir_ + "/log"})) {
      fail("vel update failed");
    }
  }
  std::string mirror() const { return dir_ + "/mirror"; }

 private:
  std::string dir_;
  pid_t pid_ = -1;
};

size_t count(char*, size_t size, size_t n, void* user) {
  *static_cast<size_t*>(user) += size * n;
  return size * n;
}

// PROPFIND (Depth 0) and GET of every file over one kept connection.
void rawLoop(CURL* curl, const std::string& base, const std::vector<std::string>& files,
             size_t fileSize) {
  const std::string body = velagent::propfindBody();
  struct curl_slist* depth = curl_slist_append(nullptr, "Depth: 0");
  depth = curl_slist_append(depth, "Content-Type: application/xml; charset=utf-8");
  for (const std::string& rel : files) {
    const std::string url = base + velagent::encodePath(rel);
    size_t got = 0;
    long code = 0;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, count);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &got);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PROPFIND");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, depth);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    if (curl_easy_perform(curl) != CURLE_OK ||
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK || code != 207) {
      fail("PROPFIND of " + rel + " failed");
    }
    got = 0;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, count);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &got);
    if (curl_easy_perform(curl) != CURLE_OK || got != fileSize) {
      fail("GET of " + rel + " failed");
    }
  }
  curl_slist_free_all(depth);
}

size_t filesIn(const std::string& dir) {
  std::string command = "find '" + dir + "' -type f | wc -l";
  FILE* pipe = ::popen(command.c_str(), "r");
  size_t n = 0;
  if (pipe == nullptr || std::fscanf(pipe, "%zu", &n) != 1) {
    n = 0;
  }
  if (pipe != nullptr) {
    ::pclose(pipe);
  }
  return n;
}

}  // namespace

int main(int argc, char** argv) {
  const int folders = argc > 1 ? std::atoi(argv[1]) : 100;
  const int perFolder = argc > 2 ? std::atoi(argv[2]) : 20;
  const size_t fileSize = argc > 3 ? static_cast<size_t>(std::atol(argv[3])) : 4096;
  const int rounds = argc > 4 ? std::atoi(argv[4]) : 3;
  if (folders < 1 || perFolder < 1 || rounds < 1) {
    fail("usage: webdav_bench [folders] [files per folder] [file size] [rounds]");
  }
  char pattern[] = "/tmp/webdav_bench.XXXXXX";
  if (::mkdtemp(pattern) == nullptr) {
    fail("mkdtemp");
  }
  const std::string root = pattern;
  const std::string docroot = root + "/store";
  ::mkdir(docroot.c_str(), 0755);
  ::mkdir((docroot + "/tree").c_str(), 0755);
  std::vector<std::string> files;
  for (int d = 0; d < folders; ++d) {
    std::string folder = "tree/d" + std::to_string(d);
    ::mkdir((docroot + "/" + folder).c_str(), 0755);
    for (int f = 0; f < perFolder; ++f) {
      files.push_back(folder + "/f" + std::to_string(f));
      writeBytes(docroot + "/" + files.back(), fileSize, files.size() * 7919ULL);
    }
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  {
    veltest::WebDavServer server(docroot, root + "/httpd");
    if (!server.ready()) {
      fail("the WebDAV server did not start: " + server.error());
    }
    Agent dav(root + "/dav", {"--webdav", server.url()});
    Agent folder(root + "/folder", {"--store", docroot});
    CURL* curl = curl_easy_init();
    std::vector<double> davTimes;
    std::vector<double> rawTimes;
    std::vector<double> folderTimes;
    for (int round = 0; round < rounds; ++round) {
      davTimes.push_back(secondsOf([&] { dav.update("tree"); }));
      rawTimes.push_back(secondsOf([&] { rawLoop(curl, server.url(), files, fileSize); }));
      folderTimes.push_back(secondsOf([&] { folder.update("tree"); }));
      if (filesIn(dav.mirror()) != files.size() || filesIn(folder.mirror()) != files.size()) {
        fail("a mirror lacks files after vel update");
      }
      std::printf("round %d: WebDAV store %.3f s, raw PROPFIND+GET %.3f s, folder store %.3f s\n",
                  round + 1, davTimes.back(), rawTimes.back(), folderTimes.back());
    }
    curl_easy_cleanup(curl);
    // The ratios are taken within each round (the three runs back to
    // back), so that a round slowed by the machine's other work counts once.
    std::vector<double> toRaw;
    std::vector<double> toFolder;
    for (int round = 0; round < rounds; ++round) {
      toRaw.push_back(davTimes[round] / rawTimes[round]);
      toFolder.push_back(davTimes[round] / folderTimes[round]);
    }
    std::printf(
        "vel update of %zu files of %zu bytes in %d folders (medians of %d rounds):\n"
        "  WebDAV store          %.3f s\n"
        "  raw PROPFIND+GET loop %.3f s   WebDAV store / raw loop     = %.2f\n"
        "  folder store          %.3f s   WebDAV store / folder store = %.2f\n",
        files.size(), fileSize, folders, rounds, median(davTimes), median(rawTimes), median(toRaw),
        median(folderTimes), median(toFolder));
  }
  curl_global_cleanup();
  run({"rm", "-rf", root}, {});
  return 0;
}
