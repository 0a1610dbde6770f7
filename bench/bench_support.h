// What the benchmarks share: failing loudly, medians and quartiles, files
// of bytes that neither compress nor repeat, running a program, an agent on
// a socket of its own, and the WebDAV floors (over one kept-alive
// connection, a PROPFIND of Depth 1 per folder and a GET per file: the
// least a client asks a server for to bring a tree; a MKCOL per folder and
// a PUT per file: the least to send one).
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

// The regular files below `root`, but for those of a server's own
// folders (Apache keeps properties in .DAV).
inline size_t filesBelow(const std::string& root) {
  std::error_code error;
  size_t files = 0;
  for (std::filesystem::recursive_directory_iterator it(root, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_directory() && it->path().filename() == ".DAV") {
      it.disable_recursion_pending();
    }
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

// The folders that hold `files` (paths below the collection), each once,
// parents before children, `top` first.
inline std::vector<std::string> foldersOf(const std::string& top,
                                          const std::vector<std::string>& files) {
  std::vector<std::string> folders = {top};
  for (const std::string& file : files) {
    const std::string folder = file.substr(0, file.rfind('/'));
    if (std::find(folders.begin(), folders.end(), folder) == folders.end()) {
      folders.push_back(folder);
    }
  }
  return folders;
}

// The status of one request over the connection `curl` keeps; the answer's
// body is counted into `got`.
inline long davRequest(CURL* curl, const std::string& url, const char* method,
                       struct curl_slist* headers, const std::string* body, size_t& got,
                       const char* upload = nullptr, size_t uploadSize = 0) {
  got = 0;
  curl_easy_reset(curl);
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, countBytes);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &got);
  if (std::string(method) != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method);
  }
  if (headers != nullptr) {
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  }
  if (body != nullptr) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body->c_str());
  } else if (upload != nullptr) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, upload);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(uploadSize));
  }
  long code = 0;
  if (curl_easy_perform(curl) != CURLE_OK ||
      curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK) {
    return 0;
  }
  return code;
}

// The least a client asks a server for to bring the tree `top`: a PROPFIND
// (Depth 1) of each folder and a GET of each of `files` (paths below
// `base`, each of `fileSize` bytes), over the one connection `curl` keeps.
inline void davFloor(CURL* curl, const std::string& base, const std::string& top,
                     const std::vector<std::string>& files, size_t fileSize) {
  const std::string body = velagent::propfindBody();
  struct curl_slist* headers = curl_slist_append(nullptr, "Depth: 1");
  headers = curl_slist_append(headers, "Content-Type: application/xml; charset=utf-8");
  size_t got = 0;
  for (const std::string& folder : foldersOf(top, files)) {
    if (davRequest(curl, base + velagent::encodePath(folder) + "/", "PROPFIND", headers, &body,
                   got) != 207) {
      fail("PROPFIND of " + folder + " failed");
    }
  }
  for (const std::string& file : files) {
    if (davRequest(curl, base + velagent::encodePath(file), "GET", nullptr, nullptr, got) != 200 ||
        got != fileSize) {
      fail("GET of " + file + " failed");
    }
  }
  curl_slist_free_all(headers);
}

// The least a client asks a server for to send the tree `top` where there
// is none: a MKCOL of each folder and a PUT of each of `files` with
// `content`, over the one connection `curl` keeps; with `modes`, a
// PROPPATCH of each file's mode after its PUT as well.
inline void davPushFloor(CURL* curl, const std::string& base, const std::string& top,
                         const std::vector<std::string>& files, const std::string& content,
                         bool modes = false) {
  const std::string modeBody = velagent::modeUpdateBody(0644);
  struct curl_slist* xml =
      curl_slist_append(nullptr, "Content-Type: application/xml; charset=utf-8");
  struct curl_slist* headers = curl_slist_append(nullptr, "Expect:");
  headers = curl_slist_append(headers, "Content-Type: application/octet-stream");
  size_t got = 0;
  for (const std::string& folder : foldersOf(top, files)) {
    if (davRequest(curl, base + velagent::encodePath(folder) + "/", "MKCOL", nullptr, nullptr,
                   got) != 201) {
      fail("MKCOL of " + folder + " failed");
    }
  }
  for (const std::string& file : files) {
    long code = davRequest(curl, base + velagent::encodePath(file), "PUT", headers, nullptr, got,
                           content.data(), content.size());
    if (code != 201 && code != 204) {
      fail("PUT of " + file + " failed");
    }
    const long set = modes ? davRequest(curl, base + velagent::encodePath(file), "PROPPATCH", xml,
                                        &modeBody, got)
                           : 207;
    if (set != 207 && set != 204) {  // lighttpd answers 204
      fail("PROPPATCH of " + file + " failed");
    }
  }
  curl_slist_free_all(headers);
  curl_slist_free_all(xml);
}

}  // namespace velbench

#endif  // VEL_BENCH_BENCH_SUPPORT_H_
