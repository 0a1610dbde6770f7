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
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "bench_support.h"
#include "support/webdav_server.h"

namespace {

using velbench::Agent;
using velbench::fail;
using velbench::median;

double secondsOf(const std::function<void()>& run) {
  auto start = std::chrono::steady_clock::now();
  run();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// `vel update top` into an emptied mirror below `dir`.
void update(const std::string& dir, const std::string& top) {
  velbench::removeTree(dir + "/mirror");
  velbench::makeDir(dir + "/mirror");
  if (!velbench::run({VEL_TOOL_BIN, "update", top},
                     {{"UDS_ROOT_OSSUSER", dir + "/uds"},
                      {"TARN_ROOT_DIR", dir + "/mirror"},
                      {"_APP_LOG_DIR", dir + "/log"}},
                     true)) {
    fail("vel update failed");
  }
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
      velbench::makeFile(docroot + "/" + files.back(), fileSize, files.size() * 7919ULL);
    }
  }
  curl_global_init(CURL_GLOBAL_DEFAULT);
  {
    veltest::WebDavServer server(docroot, root + "/httpd");
    if (!server.ready()) {
      fail("the WebDAV server did not start: " + server.error());
    }
    for (const char* side : {"/dav", "/folder"}) {
      velbench::makeDir(root + side);
      velbench::makeDir(root + side + "/log");
    }
    Agent dav(VEL_AGENT_BIN, root + "/dav/mirror", root + "/dav/uds", {"--webdav", server.url()});
    Agent folder(VEL_AGENT_BIN, root + "/folder/mirror", root + "/folder/uds",
                 {"--store", docroot});
    CURL* curl = curl_easy_init();
    std::vector<double> davTimes;
    std::vector<double> rawTimes;
    std::vector<double> folderTimes;
    for (int round = 0; round < rounds; ++round) {
      davTimes.push_back(secondsOf([&] { update(root + "/dav", "tree"); }));
      rawTimes.push_back(
          secondsOf([&] { velbench::davFloor(curl, server.url(), files, fileSize); }));
      folderTimes.push_back(secondsOf([&] { update(root + "/folder", "tree"); }));
      if (velbench::filesBelow(root + "/dav/mirror") != files.size() ||
          velbench::filesBelow(root + "/folder/mirror") != files.size()) {
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
  velbench::removeTree(root);
  return 0;
}
