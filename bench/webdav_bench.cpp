// `vel update` and `vel commit` of a tree through the agent's WebDAV store,
// against baselines measured in the same run, round by round (the machines
// are shared and noisy):
//  - for the update, a raw loop over one kept-alive connection to the same
//    server that sends a PROPFIND (Depth 1) of each folder and a GET of
//    each file of the same tree: the floor of the protocol; and `vel
//    update` of the same tree through the agent's folder store (the
//    server's document root served directly);
//  - for the commit, the same loop sending a MKCOL of each folder and a PUT
//    of each file into a collection that is not there yet; and, on a
//    server that keeps modes, a PROPPATCH of each file's mode after it.
// Every update round pulls into an empty mirror, every commit round pushes
// where the tree is not. The server is one of the tests' servers
// (tests/support/webdav_server.h), Apache unless --server names another.
// Usage: webdav_bench [--server apache|lighttpd|nginx|rclone] [folders, default 100]
//                     [files per folder, default 20] [file size in bytes, default 4096]
//                     [rounds, default 3]
#include <curl/curl.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// `vel <command> top` with the mirror and the agent below `dir`.
void vel(const std::string& dir, const char* command, const std::string& top) {
  if (!velbench::run({VEL_TOOL_BIN, command, top},
                     {{"UDS_ROOT_OSSUSER", dir + "/uds"},
                      {"TARN_ROOT_DIR", dir + "/mirror"},
                      {"_APP_LOG_DIR", dir + "/log"}},
                     std::getenv("VEL_BENCH_VERBOSE") == nullptr)) {
    fail(std::string("vel ") + command + " failed");
  }
}

bool kindOf(const std::string& name, veltest::WebDavServerKind& kind) {
  for (veltest::WebDavServerKind k :
       {veltest::WebDavServerKind::kApache, veltest::WebDavServerKind::kLighttpd,
        veltest::WebDavServerKind::kNginx, veltest::WebDavServerKind::kRclone}) {
    std::string known = veltest::kindName(k);
    known[0] = static_cast<char>(known[0] - 'A' + 'a');
    if (name == known) {
      kind = k;
      return true;
    }
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  veltest::WebDavServerOptions serverOptions;
  int first = 1;
  if (argc > 2 && std::strcmp(argv[1], "--server") == 0) {
    if (!kindOf(argv[2], serverOptions.kind)) {
      fail(std::string("no server kind ") + argv[2]);
    }
    first = 3;
  }
  auto number = [&](int at, long fallback) {
    return argc > first + at ? std::atol(argv[first + at]) : fallback;
  };
  const int folders = static_cast<int>(number(0, 100));
  const int perFolder = static_cast<int>(number(1, 20));
  const size_t fileSize = static_cast<size_t>(number(2, 4096));
  const int rounds = static_cast<int>(number(3, 3));
  if (folders < 1 || perFolder < 1 || rounds < 1) {
    fail("usage: webdav_bench [--server KIND] [folders] [files per folder] [file size] [rounds]");
  }
  const char* tmp = std::getenv("TMPDIR");
  std::string root = std::string(tmp != nullptr ? tmp : "/tmp") + "/webdav_bench.XXXXXX";
  if (::mkdtemp(&root[0]) == nullptr) {
    fail("mkdtemp");
  }
  const std::string docroot = root + "/store";
  velbench::makeDir(docroot);
  velbench::makeDir(docroot + "/tree");
  for (const char* side : {"/dav", "/folder"}) {
    velbench::makeDir(root + side);
    velbench::makeDir(root + side + "/log");
  }
  velbench::makeDir(root + "/dav/mirror");
  velbench::makeDir(root + "/dav/mirror/up");
  std::vector<std::string> files;
  std::vector<std::string> sent;
  for (int d = 0; d < folders; ++d) {
    std::string folder = "/d" + std::to_string(d);
    velbench::makeDir(docroot + "/tree" + folder);
    velbench::makeDir(root + "/dav/mirror/up" + folder);
    for (int f = 0; f < perFolder; ++f) {
      files.push_back("tree" + folder + "/f" + std::to_string(f));
      sent.push_back("up" + folder + "/f" + std::to_string(f));
      velbench::makeFile(docroot + "/" + files.back(), fileSize, files.size() * 7919ULL);
      velbench::makeFile(root + "/dav/mirror/" + sent.back(), fileSize, files.size() * 104729ULL);
    }
  }
  const std::string content(fileSize, 'c');
  curl_global_init(CURL_GLOBAL_DEFAULT);
  {
    veltest::WebDavServer server(docroot, root + "/httpd", serverOptions);
    if (!server.ready()) {
      fail("the WebDAV server did not start: " + server.error());
    }
    Agent dav(VEL_AGENT_BIN, root + "/dav/mirror", root + "/dav/uds", {"--webdav", server.url()});
    Agent folder(VEL_AGENT_BIN, root + "/folder/mirror", root + "/folder/uds",
                 {"--store", docroot});
    // Every round is a first sync: cold copies, none skipped.
    auto update = [&](const std::string& dir, const Agent& agent) {
      velbench::removeTree(dir + "/mirror/tree");
      agent.forget();
      return secondsOf([&] { vel(dir, "update", "tree"); });
    };
    auto commit = [&] {
      velbench::removeTree(docroot + "/up");
      velbench::makeDir(docroot + "/up");  // `vel commit` checks that the path is there
      server.adopt();
      dav.forget();
      return secondsOf([&] { vel(root + "/dav", "commit", "up"); });
    };
    CURL* curl = curl_easy_init();
    std::vector<double> davTimes, rawTimes, folderTimes, commitTimes, pushTimes, modeTimes;
    const bool modes = veltest::keepsProperties(serverOptions.kind);
    for (int round = 0; round < rounds; ++round) {
      davTimes.push_back(update(root + "/dav", dav));
      rawTimes.push_back(
          secondsOf([&] { velbench::davFloor(curl, server.url(), "tree", files, fileSize); }));
      folderTimes.push_back(update(root + "/folder", folder));
      if (velbench::filesBelow(root + "/dav/mirror/tree") != files.size() ||
          velbench::filesBelow(root + "/folder/mirror/tree") != files.size()) {
        fail("a mirror lacks files after vel update");
      }
      commitTimes.push_back(commit());
      if (velbench::filesBelow(docroot + "/up") != sent.size()) {
        fail("the server lacks files after vel commit");
      }
      velbench::removeTree(docroot + "/up");
      pushTimes.push_back(
          secondsOf([&] { velbench::davPushFloor(curl, server.url(), "up", sent, content); }));
      velbench::removeTree(docroot + "/up");
      modeTimes.push_back(modes ? secondsOf([&] {
        velbench::davPushFloor(curl, server.url(), "up", sent, content, true);
      })
                                : pushTimes.back());
      std::printf(
          "round %d: update %.3f s, PROPFIND+GET %.3f s, folder store %.3f s; commit %.3f s, "
          "MKCOL+PUT %.3f s\n",
          round + 1, davTimes.back(), rawTimes.back(), folderTimes.back(), commitTimes.back(),
          pushTimes.back());
    }
    curl_easy_cleanup(curl);
    // The ratios are taken within each round (the runs back to back), so
    // that a round slowed by the machine's other work counts once.
    std::vector<double> toRaw, toFolder, toPush, toModes;
    for (int round = 0; round < rounds; ++round) {
      toRaw.push_back(davTimes[round] / rawTimes[round]);
      toFolder.push_back(davTimes[round] / folderTimes[round]);
      toPush.push_back(commitTimes[round] / pushTimes[round]);
      toModes.push_back(commitTimes[round] / modeTimes[round]);
    }
    std::printf(
        "%s: %zu files of %zu bytes in %d folders (medians of %d rounds):\n"
        "  vel update           %.3f s\n"
        "  PROPFIND+GET loop    %.3f s   update / loop          = %.2f\n"
        "  folder store update  %.3f s   update / folder store  = %.2f\n"
        "  vel commit           %.3f s\n"
        "  MKCOL+PUT loop       %.3f s   commit / loop          = %.2f\n"
        "  ... + PROPPATCH/file %.3f s   commit / loop          = %.2f (the mode of each file)\n",
        veltest::kindName(serverOptions.kind), files.size(), fileSize, folders, rounds,
        median(davTimes), median(rawTimes), median(toRaw), median(folderTimes), median(toFolder),
        median(commitTimes), median(pushTimes), median(toPush), median(modeTimes), median(toModes));
  }
  curl_global_cleanup();
  velbench::removeTree(root);
  return 0;
}
