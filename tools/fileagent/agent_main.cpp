// velfileagent: a file agent that serves a store directory as the remote
// file service over the agent protocol on a Unix-domain socket.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "agent_server.h"
#include "control.h"
#include "service.h"

namespace {

const char kUsage[] =
    "Usage: velfileagent --store DIR [--mirror DIR] [--socket PATH] [--journal FILE]\n"
    "                    [--rules FILE]\n"
    "\n"
    "Serves the folder given by --store as the remote file service on a Unix-domain\n"
    "socket, for the service name \"TestService\". Prints \"ready\" once it listens;\n"
    "SIGTERM or SIGINT stops it and removes the socket.\n"
    "\n"
    "Options:\n"
    "  --store DIR     folder that holds the service's files (required)\n"
    "  --mirror DIR    mirror root that downloads write to and uploads read from\n"
    "                  (default: $TARN_ROOT_DIR, else /opt/backup/vel)\n"
    "  --socket PATH   socket to listen on (default:\n"
    "                  $UDS_ROOT_OSSUSER/velfileagent/velfileagent.sock; the folder is\n"
    "                  created)\n"
    "  --journal FILE  append every request to FILE, one JSON array of its\n"
    "                  arguments per line, before it is answered\n"
    "  --rules FILE    JSON list of {\"match\": [leading arguments...],\n"
    "                  \"reply\": [kind, value], \"delay_ms\": N, \"trickle_ms\": N,\n"
    "                  \"skip\": N, \"times\": N}; kinds: \"status\", \"bulk\",\n"
    "                  \"error\", \"int\", \"array\" (value: list of texts), \"nil\",\n"
    "                  \"close\" (close the connection without a reply), \"raw\"\n"
    "                  (value: bytes sent as they are). The first matching rule\n"
    "                  answers; without \"reply\" the request is served normally\n"
    "                  after the delay. trickle_ms sends the reply one byte at a\n"
    "                  time with that pause before each; skip lets the first N\n"
    "                  matching requests through; times spends the rule after N.\n"
    "                  The file is re-read when it changes (counts start again);\n"
    "                  a missing or empty file means no rules.\n"
    "  --help          show this text and exit\n";

int gStopPipe[2] = {-1, -1};

void onStopSignal(int) {
  int saved = errno;
  char byte = 1;
  ssize_t ignored = ::write(gStopPipe[1], &byte, 1);
  (void)ignored;
  errno = saved;
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

int main(int argc, char** argv) {
  std::string store;
  std::string mirror;
  std::string socketPath;
  std::string journalPath;
  std::string rulesPath;
  bool mirrorSet = false;
  bool socketSet = false;
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    std::string* target = nullptr;
    if (option == "--store") {
      target = &store;
    } else if (option == "--mirror") {
      target = &mirror;
      mirrorSet = true;
    } else if (option == "--socket") {
      target = &socketPath;
      socketSet = true;
    } else if (option == "--journal") {
      target = &journalPath;
    } else if (option == "--rules") {
      target = &rulesPath;
    } else {
      std::fprintf(stderr, "velfileagent: unknown option '%s'\n\n%s", option.c_str(), kUsage);
      return 2;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "velfileagent: option %s needs a value\n", option.c_str());
      return 2;
    }
    *target = argv[++i];
  }
  if (store.empty()) {
    std::fprintf(stderr, "velfileagent: --store is required\n\n%s", kUsage);
    return 2;
  }
  if (!isDirectory(store)) {
    std::fprintf(stderr, "velfileagent: store folder %s does not exist\n", store.c_str());
    return 2;
  }
  if (!mirrorSet) {
    const char* root = std::getenv("TARN_ROOT_DIR");
    mirror = (root != nullptr && *root != '\0') ? root : "/opt/backup/vel";
  }
  if (!socketSet) {
    const char* uds = std::getenv("UDS_ROOT_OSSUSER");
    socketPath = std::string(uds != nullptr ? uds : "") + "/velfileagent/velfileagent.sock";
  }
  while (mirror.size() > 1 && mirror.back() == '/') {
    mirror.pop_back();
  }
  while (store.size() > 1 && store.back() == '/') {
    store.pop_back();
  }

  // Non-blocking, so that a burst of signals can never block the handler.
  if (::pipe2(gStopPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
    std::perror("velfileagent: pipe");
    return 1;
  }
  struct sigaction action;
  std::memset(&action, 0, sizeof action);
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
  // The signal mask survives exec: a launcher that blocked the stop signals
  // would otherwise leave an agent that never stops.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  sigprocmask(SIG_UNBLOCK, &stops, nullptr);

  velagent::Journal journal(journalPath);
  if (!journal.ok()) {
    std::fprintf(stderr, "velfileagent: cannot open journal %s: %s\n", journalPath.c_str(),
                 std::strerror(errno));
    return 1;
  }
  velagent::Rules rules(rulesPath);
  velagent::FileService service(store, mirror);
  velagent::Server server(service, journal, rules);
  if (!server.listenOn(socketPath)) {
    return 1;
  }
  std::fputs("ready\n", stdout);
  std::fflush(stdout);
  server.run(gStopPipe[0]);
  return 0;
}
