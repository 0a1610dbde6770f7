// What the benchmarks share: failing loudly, medians and quartiles, files
// of bytes that neither compress nor repeat, running a program, an agent on
// a socket of its own, and the WebDAV floor (a PROPFIND of Depth 0 and a
// GET of each file over one kept-alive connection: the least a client asks
// a server for to bring a tree).
#ifndef VEL_BENCH_BENCH_SUPPORT_H_
#define VEL_BENCH_BENCH_SUPPORT_H_

#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <glob.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "stores/webdav_protocol.h"
#include "support/process.h"

namespace velbench {

[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
  std::exit(1);
}

// The value below which `share` of the values lie (linear between ranks).
inline double quantile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  const double rank = share * static_cast<double>(values.size() - 1);
  const size_t below = static_cast<size_t>(rank);
  const size_t above = std::min(below + 1, values.size() - 1);
  return values[below] + (values[above] - values[below]) * (rank - static_cast<double>(below));
}

inline double median(const std::vector<double>& values) { return quantile(values, 0.5); }

// Runs a program found in PATH with `env` added; true when it exits with 0.
// Its standard output goes to /dev/null with `quiet`.
inline bool run(const std::vector<std::string>& argv,
                const std::map<std::string, std::string>& env = {}, bool quiet = false) {
  veltest::SpawnOptions options;
  options.env = env;
  options.searchPath = true;
  options.out = quiet ? veltest::kToNull : -1;
  return veltest::waitExit(veltest::spawn(argv, options)) == 0;
}

inline void removeTree(const std::string& path) {
  if (!run({"rm", "-rf", path})) {
    fail("cannot remove " + path);
  }
}

inline void makeDir(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) {
    fail("cannot create " + path);
  }
}

// `bytes` bytes that neither compress nor repeat, flushed to the disk.
inline void makeFile(const std::string& path, size_t bytes, unsigned long long seed) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    fail("cannot create " + path);
  }
  std::vector<unsigned long long> block(std::max<size_t>(std::min<size_t>(bytes, 1u << 20), 8) /
                                        sizeof(seed));
  for (size_t done = 0; done < bytes;) {
    for (unsigned long long& word : block) {
      seed ^= seed << 13;
      seed ^= seed >> 7;
      seed ^= seed << 17;
      word = seed;
    }
    const size_t n = std::min(bytes - done, block.size() * sizeof(seed));
    if (::write(fd, block.data(), n) != static_cast<ssize_t>(n)) {
      fail("cannot write " + path);
    }
    done += n;
  }
  ::fsync(fd);
  ::close(fd);
}

// The regular files below `root`.
inline size_t filesBelow(const std::string& root) {
  std::error_code error;
  size_t files = 0;
  for (std::filesystem::recursive_directory_iterator it(root, error), end; !error && it != end;
       it.increment(error)) {
    files += it->is_regular_file() ? 1 : 0;
  }
  return files;
}

// An agent serving what `storeArgs` name into `mirror`, on the socket
// `uds`/velfileagent/velfileagent.sock, with its sync record in `uds`/state
// and a journal of its requests at `journal` unless that is empty; stopped
// by the destructor.
class Agent {
 public:
  Agent(const std::string& binary, const std::string& mirror, const std::string& uds,
        const std::vector<std::string>& storeArgs, const std::string& journal = "")
      : socket_(uds + "/velfileagent/velfileagent.sock"),
        state_(uds + "/state"),
        journal_(journal) {
    makeDir(mirror);
    makeDir(uds);
    makeDir(uds + "/velfileagent");
    std::vector<std::string> argv = {binary,  "--mirror", mirror, "--socket",
                                     socket_, "--state",  state_};
    if (!journal.empty()) {
      argv.insert(argv.end(), {"--journal", journal});
    }
    argv.insert(argv.end(), storeArgs.begin(), storeArgs.end());
    int ready[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) {
      fail("pipe");
    }
    veltest::SpawnOptions options;
    options.out = ready[1];
    options.err = veltest::kToNull;
    pid_ = veltest::spawn(argv, options);
    ::close(ready[1]);
    if (pid_ < 0 || !veltest::waitForText(ready[0], "ready", 60)) {
      fail("the agent " + binary + " did not start");
    }
    ::close(ready[0]);
  }
  ~Agent() { veltest::stopProcess(pid_, 60); }
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  const std::string& socket() const { return socket_; }
  const std::string& journal() const { return journal_; }
  pid_t pid() const { return pid_; }

  // Empties the sync record (as a second process would), so that the
  // next round is a first sync again: a cold copy, not a skipped one.
  void forget() const {
    glob_t found;
    if (::glob((state_ + "/sync-*.db").c_str(), 0, nullptr, &found) == 0) {
      for (size_t i = 0; i < found.gl_pathc; ++i) {
        sqlite3* db = nullptr;
        if (sqlite3_open_v2(found.gl_pathv[i], &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
            sqlite3_busy_timeout(db, 5000) != SQLITE_OK ||
            sqlite3_exec(db, "DELETE FROM files; DELETE FROM pending", nullptr, nullptr, nullptr) !=
                SQLITE_OK) {
          fail("cannot empty the sync record " + std::string(found.gl_pathv[i]));
        }
        sqlite3_close_v2(db);
      }
    }
    ::globfree(&found);
  }

 private:
  std::string socket_;
  std::string state_;
  std::string journal_;
  pid_t pid_ = -1;
};

inline size_t countBytes(char*, size_t size, size_t n, void* user) {
  *static_cast<size_t*>(user) += size * n;
  return size * n;
}

// A PROPFIND (Depth 0) and a GET of each of `files` below `base` over the
// one connection `curl` keeps; every file must hold `fileSize` bytes.
inline void davFloor(CURL* curl, const std::string& base, const std::vector<std::string>& files,
                     size_t fileSize) {
  const std::string body = velagent::propfindBody();
  struct curl_slist* headers = curl_slist_append(nullptr, "Depth: 0");
  headers = curl_slist_append(headers, "Content-Type: application/xml; charset=utf-8");
  for (const std::string& file : files) {
    const std::string url = base + velagent::encodePath(file);
    size_t got = 0;
    long code = 0;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, countBytes);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &got);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "PROPFIND");
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    if (curl_easy_perform(curl) != CURLE_OK ||
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK || code != 207) {
      fail("PROPFIND of " + file + " failed");
    }
    got = 0;
    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, countBytes);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &got);
    if (curl_easy_perform(curl) != CURLE_OK || got != fileSize) {
      fail("GET of " + file + " failed");
    }
  }
  curl_slist_free_all(headers);
}

}  // namespace velbench

#endif  // VEL_BENCH_BENCH_SUPPORT_H_
