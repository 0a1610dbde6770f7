// velfileagent: a file agent that serves a store (a folder, a WebDAV
// server or an S3 bucket) as the remote file service over the agent
// protocol on a Unix-domain socket.
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>

#include "commands.h"
#include "fs/beneath.h"
#include "server/agent_log.h"
#include "server/agent_server.h"
#include "server/control.h"
#include "server/request.h"
#include "stores/faulty_store.h"
#include "stores/folder_store.h"
#include "stores/s3_store.h"
#include "stores/webdav_store.h"
#include "sync/record.h"

namespace {

const char kUsage[] =
    "Usage: velfileagent (--store DIR | --webdav URL [--webdav-user NAME]\n"
    "                    [--webdav-password-file FILE] [--ca-file FILE]\n"
    "                    [--webdav-cache-ms N]\n"
    "                    | --s3 URL [--s3-credentials FILE] [--s3-part-size N]\n"
    "                    [--s3-retry-wait MS] [--ca-file FILE])\n"
    "                    [--mirror DIR] [--socket PATH] [--journal FILE]\n"
    "                    [--rules FILE] [--threads N] [--max-clients N]\n"
    "                    [--request-timeout-ms N] [--max-request-args N]\n"
    "                    [--max-request-bytes N] [--max-reply-bytes N] [--no-openat2]\n"
    "                    [--state DIR] [--last-writer-wins]\n"
    "\n"
    "Serves the folder given by --store, the WebDAV collection given by\n"
    "--webdav, or the S3 bucket given by --s3, as the remote file service on\n"
    "a Unix-domain socket, for the\n"
    "service name \"TestService\". Prints \"ready\" once it listens;\n"
    "SIGTERM or SIGINT stops it and removes the socket. Start, stop and every\n"
    "refused request are logged on standard error, one line each.\n"
    "\n"
    "No command reaches outside the store and the mirror: paths are resolved\n"
    "beneath them, a symbolic link is followed only while it stays inside (an\n"
    "absolute link is refused), and listings and metadata show a link as a file.\n"
    "Downloads and uploads write a temporary \".<name>.velpart.<random>\" file next\n"
    "to the target and rename it into place, so a copy is whole or absent.\n"
    "\n"
    "Options:\n"
    "  --store DIR     folder that holds the service's files\n"
    "  --webdav URL    http:// or https:// URL of a WebDAV collection that holds\n"
    "                  them instead (one of --store and --webdav is required);\n"
    "                  a file's mode is kept in the property <mode> of the\n"
    "                  namespace \"urn:x-vel:props\" (decimal; 0640 for a file\n"
    "                  and 0750 for a folder without it); tarn.create and the\n"
    "                  other handle commands are not supported there\n"
    "  --webdav-user NAME\n"
    "                  log in with basic authentication as NAME\n"
    "  --webdav-password-file FILE\n"
    "                  the password: the first line of FILE (never logged)\n"
    "  --s3 URL        http(s)://HOST[:PORT]/BUCKET[/PREFIX]: the objects of an S3\n"
    "                  service (Ceph's gateway, a cloud) whose keys begin with\n"
    "                  PREFIX/ hold them instead; the bucket is addressed in the\n"
    "                  path (in the host name on Amazon's s3.*.amazonaws.com);\n"
    "                  a folder is every key below \"name/\", an empty one the\n"
    "                  zero-byte key \"name/\"; mode and modification time are\n"
    "                  the metadata x-amz-meta-mode (octal) and x-amz-meta-mtime\n"
    "                  (0640 for a file and 0750 for a folder without it);\n"
    "                  renames are copies on the service; the handle commands\n"
    "                  are not supported there. The keys come from\n"
    "                  AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY (and\n"
    "                  AWS_SESSION_TOKEN, AWS_REGION, default us-east-1), or from\n"
    "                  --s3-credentials; never from the command line\n"
    "  --s3-credentials FILE\n"
    "                  the [default] section of FILE, in the shared format of S3\n"
    "                  tools (aws_access_key_id = ..., aws_secret_access_key = ...,\n"
    "                  optional aws_session_token and region); FILE must not be\n"
    "                  readable by group or others (chmod 600)\n"
    "  --s3-part-size N\n"
    "                  files above N bytes go up in parts of N bytes (default\n"
    "                  67108864, 64 MiB; at least 5242880; larger for a file of\n"
    "                  more than 10000 parts); a failed upload\n"
    "                  leaves no parts behind\n"
    "  --s3-retry-wait MS\n"
    "                  a request the service answers with 500, 502, 503 (SlowDown),\n"
    "                  504 or RequestTimeout, or whose connection is lost, is sent\n"
    "                  again up to three times, after MS, 2*MS and 4*MS\n"
    "                  milliseconds (default 100; each resend is logged)\n"
    "  --ca-file FILE  certificates (PEM) to trust for an https:// server, for a\n"
    "                  server whose certificate the system does not know\n"
    "  --webdav-cache-ms N\n"
    "                  how long what the server said of a path (a listing, a\n"
    "                  lookup) answers the next questions about it (default\n"
    "                  2000; 0: every question goes to the server); changes\n"
    "                  through this agent are never hidden, those of other\n"
    "                  clients of the server show at most this late\n"
    "  --mirror DIR    mirror root that downloads write to and uploads read from\n"
    "                  (default: $TARN_ROOT_DIR, else /opt/backup/vel); it must be\n"
    "                  neither the store nor inside it, nor hold it (exit status 2)\n"
    "  --socket PATH   socket to listen on (default:\n"
    "                  $UDS_ROOT_OSSUSER/velfileagent/velfileagent.sock; the folder is\n"
    "                  created)\n"
    "  --state DIR     folder of the sync record: what was last synced of each path\n"
    "                  (default: $STATE_DIRECTORY, else $XDG_STATE_HOME/velfileagent,\n"
    "                  else ~/.local/state/velfileagent; made if missing; never\n"
    "                  inside the mirror or the store). With it nothing unchanged is\n"
    "                  copied, an upload that would overwrite a change made on the\n"
    "                  service since is refused (\"ERR conflict: ...\"), a mirror copy\n"
    "                  changed here is kept aside as <name>.vel.keep.NNNNNNNN before\n"
    "                  the service's version replaces it, and removals and renames\n"
    "                  seen in a listing reach the mirror copies nobody changed\n"
    "  --last-writer-wins\n"
    "                  no conflicts: an update takes the service's version over a\n"
    "                  changed mirror copy, a commit the mirror's over a changed\n"
    "                  service file, a removal removes whatever is there\n"
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
    "                  \"crash\": \"after-rename\" or \"after-record\" kills the agent\n"
    "                  (SIGKILL) at that point of a download or an upload;\n"
    "                  \"record\": \"fail\" makes the sync record refuse every write;\n"
    "                  \"store\": \"conflict\" makes every conditional upload or removal\n"
    "                  refused as changed, \"not-modified\" every download answered\n"
    "                  as unchanged.\n"
    "                  The file is re-read when it changes (counts start again);\n"
    "                  a missing or empty file means no rules.\n"
    "  --threads N     threads that serve every connection from one event loop,\n"
    "                  each doing the store work of the request it answers\n"
    "                  (default 4, at most 256); the agent runs no other thread\n"
    "  --max-clients N most connections open at once (default 10000); past it a\n"
    "                  new connection gets \"-ERR max number of clients reached\n"
    "                  (--max-clients N)\" and is closed. It is lowered, with a log\n"
    "                  line, to what the limit on open files leaves (the agent\n"
    "                  raises its soft limit to the hard one)\n"
    "  --request-timeout-ms N\n"
    "                  most milliseconds from the first bytes of a request to its\n"
    "                  last (default 30000); a request still incomplete then gets\n"
    "                  \"-ERR request not complete within N ms\" and its connection\n"
    "                  is closed. A connection that sends nothing is kept.\n"
    "  --max-request-args N\n"
    "                  most arguments one request may have (default 1024)\n"
    "  --max-request-bytes N\n"
    "                  most bytes all arguments of one request may have together\n"
    "                  (default 67108864, 64 MiB)\n"
    "  --max-reply-bytes N\n"
    "                  most bytes of one reply held for a client that has not read\n"
    "                  it (default 67108864, 64 MiB); tarn.read replies above 1 MiB\n"
    "                  or half this cap are sent from the file 256 KiB at a time\n"
    "                  A request or reply above a cap gets an error reply and its\n"
    "                  connection is closed. Each connection may hold 256 handles\n"
    "                  from tarn.create; they are closed when it ends. After an\n"
    "                  error that ends a connection the agent waits up to 1 s for\n"
    "                  the client to close, so that the client reads the error.\n"
    "  --no-openat2    resolve paths with a walk that opens one name at a time,\n"
    "                  even where the kernel has openat2 (which is used otherwise,\n"
    "                  and the walk only where the kernel or a sandbox refuses it)\n"
    "  --help          show this text and exit\n"
    "\n"
    "Exit status: 0 after a stop signal, 1 when it cannot listen or open the\n"
    "journal, 2 for a wrong command line or folders it cannot serve.\n";

int gStopPipe[2] = {-1, -1};

void onStopSignal(int signal) {
  int saved = errno;
  char byte = static_cast<char>(signal);
  ssize_t ignored = ::write(gStopPipe[1], &byte, 1);
  (void)ignored;
  errno = saved;
}

bool isDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The real path of `path`; for a folder that does not exist yet, the real
// path of its deepest existing ancestor followed by the missing names.
std::string realPathOf(const std::string& path) {
  char buffer[PATH_MAX];
  if (::realpath(path.c_str(), buffer) != nullptr) {
    return buffer;
  }
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) {
    return path == "." ? path : realPathOf(".") + "/" + path;
  }
  std::string parent = slash == 0 ? "/" : path.substr(0, slash);
  std::string real = parent == path ? parent : realPathOf(parent);
  return (real == "/" ? "" : real) + "/" + path.substr(slash + 1);
}

bool within(const std::string& inner, const std::string& outer) {
  return outer == "/" || inner.compare(0, outer.size() + 1, outer + "/") == 0;
}

// True when the folder `top` is `path` or one of its ancestors, compared by
// device and inode, which also sees a folder mounted twice.
bool sameOrAncestor(const std::string& top, const std::string& path) {
  struct stat topStat;
  if (::stat(top.c_str(), &topStat) != 0) {
    return false;
  }
  std::string current = path;
  for (;;) {
    struct stat st;
    if (::stat(current.c_str(), &st) == 0 && st.st_dev == topStat.st_dev &&
        st.st_ino == topStat.st_ino) {
      return true;
    }
    size_t slash = current.find_last_of('/');
    if (current == "/" || slash == std::string::npos) {
      return false;
    }
    current = slash == 0 ? "/" : current.substr(0, slash);
  }
}

// Every copy would empty its own source when the store and the mirror
// overlap; says how they do, or "" when they are apart.
std::string overlapOf(const std::string& store, const std::string& mirror) {
  std::string realStore = realPathOf(store);
  std::string realMirror = realPathOf(mirror);
  bool mirrorInStore = within(realMirror, realStore) || sameOrAncestor(realStore, realMirror);
  bool storeInMirror = within(realStore, realMirror) || sameOrAncestor(realMirror, realStore);
  if (realStore == realMirror || (mirrorInStore && storeInMirror)) {
    return "are the same folder";
  }
  if (mirrorInStore) {
    return "overlap: the mirror is inside the store";
  }
  if (storeInMirror) {
    return "overlap: the store is inside the mirror";
  }
  return "";
}

// The default folder of the sync record: what the service manager gives
// (StateDirectory=), else the user's state folder.
std::string defaultStateDir() {
  const char* given = std::getenv("STATE_DIRECTORY");
  if (given != nullptr && *given != '\0') {
    std::string first = given;
    return first.substr(0, first.find(':'));  // the first of several
  }
  const char* xdg = std::getenv("XDG_STATE_HOME");
  if (xdg != nullptr && xdg[0] == '/') {
    return std::string(xdg) + "/velfileagent";
  }
  const char* home = std::getenv("HOME");
  std::string homeDir = home != nullptr ? home : "";
  if (homeDir.empty()) {
    if (struct passwd* user = ::getpwuid(::getuid())) {
      homeDir = user->pw_dir;
    }
  }
  return homeDir + "/.local/state/velfileagent";
}

// Makes `path` and its missing parents (mode 0700); false with errno.
bool makeStateDir(const std::string& path) {
  for (size_t pos = path.find('/', 1);; pos = path.find('/', pos + 1)) {
    std::string part = pos == std::string::npos ? path : path.substr(0, pos);
    if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
      return false;
    }
    if (pos == std::string::npos) {
      return isDirectory(path) || (errno = ENOTDIR, false);
    }
  }
}

// A cap from the command line: a decimal number from `least` to `most`.
bool parseCap(const std::string& text, unsigned long long least, unsigned long long most,
              size_t& out) {
  if (text.empty() || text.size() > 15 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (value < least || value > most) {
    return false;
  }
  out = static_cast<size_t>(value);
  return true;
}

// The S3 keys: from the credentials file `path` when given (refused when
// group or others may read it), else from the environment. False with
// `error`, which never holds a key.
bool readS3Credentials(const std::string& path, velagent::S3Credentials& out, std::string& error) {
  if (path.empty()) {
    const auto env = [](const char* name) {
      const char* value = std::getenv(name);
      return std::string(value != nullptr ? value : "");
    };
    out.accessKey = env("AWS_ACCESS_KEY_ID");
    out.secretKey = env("AWS_SECRET_ACCESS_KEY");
    out.sessionToken = env("AWS_SESSION_TOKEN");
    out.region = !env("AWS_REGION").empty() ? env("AWS_REGION") : env("AWS_DEFAULT_REGION");
    if (out.accessKey.empty() || out.secretKey.empty()) {
      error =
          "--s3 needs AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY in the environment, or "
          "--s3-credentials FILE";
      return false;
    }
    return true;
  }
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  struct stat st;
  if (fd < 0 || ::fstat(fd, &st) != 0) {
    error = "cannot read the credentials file " + path + ": " + std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return false;
  }
  if ((st.st_mode & 077) != 0) {
    ::close(fd);
    error = "the credentials file " + path +
            " may be read by group or others; chmod 600 it (the keys in it are secrets)";
    return false;
  }
  std::string text;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0 && text.size() < (1u << 20)) {
    text.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  if (!velagent::parseCredentials(text, out, error)) {
    error = "the credentials file " + path + ": " + error;
    return false;
  }
  return true;
}

// Descriptors kept for what is not a connection: the listening socket, the
// event loop, the journal, standard streams, files being copied.
constexpr rlim_t kSpareFiles = 64;

// Raises the soft limit on open files to the hard one and lowers
// `maxClients` to what it leaves; "" or the log line that says so.
std::string fitToOpenFiles(size_t& maxClients) {
  struct rlimit files;
  if (::getrlimit(RLIMIT_NOFILE, &files) != 0) {
    return "";
  }
  if (files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &files);
    ::getrlimit(RLIMIT_NOFILE, &files);
  }
  const rlim_t room =
      files.rlim_cur > 2 * kSpareFiles ? files.rlim_cur - kSpareFiles : files.rlim_cur / 2;
  if (files.rlim_cur == RLIM_INFINITY || maxClients <= room) {
    return "";
  }
  const size_t asked = maxClients;
  maxClients = static_cast<size_t>(room);
  return "max clients lowered from " + std::to_string(asked) + " to " + std::to_string(maxClients) +
         ": the limit on open files is " + std::to_string(files.rlim_cur);
}

// The first line of `path`, without its line end. False with errno.
bool readPassword(const std::string& path, std::string& out) {
  std::ifstream in(path);
  if (!in) {
    return false;
  }
  std::getline(in, out);
  if (!out.empty() && out.back() == '\r') {
    out.pop_back();
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string store;
  std::string webdavUrl;
  std::string webdavUser;
  std::string passwordFile;
  std::string caFile;
  std::string s3Url;
  std::string s3CredentialsFile;
  size_t s3PartSize = 64u << 20;
  size_t s3RetryWait = 100;
  std::string mirror;
  std::string socketPath;
  std::string journalPath;
  std::string rulesPath;
  std::string stateDir;
  bool mirrorSet = false;
  bool socketSet = false;
  bool stateSet = false;
  velagent::SyncOptions syncOptions;
  size_t cacheMs = static_cast<size_t>(velagent::kCacheWindow.count());
  bool cacheSet = false;
  velagent::ServerOptions serving;
  velagent::RequestLimits& limits = serving.limits;
  size_t requestTimeoutMs = static_cast<size_t>(serving.requestTimeoutMs);
  for (int i = 1; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--help" || option == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    }
    if (option == "--no-openat2") {
      velagent::Root::forceWalk();
      continue;
    }
    if (option == "--last-writer-wins") {
      syncOptions.lastWriterWins = true;
      continue;
    }
    std::string* target = nullptr;
    size_t* cap = nullptr;
    unsigned long long least = 0;
    unsigned long long most = 1000000000000000ULL;
    if (option == "--store") {
      target = &store;
    } else if (option == "--webdav") {
      target = &webdavUrl;
    } else if (option == "--webdav-user") {
      target = &webdavUser;
    } else if (option == "--webdav-password-file") {
      target = &passwordFile;
    } else if (option == "--ca-file") {
      target = &caFile;
    } else if (option == "--s3") {
      target = &s3Url;
    } else if (option == "--s3-credentials") {
      target = &s3CredentialsFile;
    } else if (option == "--s3-part-size") {
      cap = &s3PartSize;
      least = velagent::S3Store::kMinPartSize;
    } else if (option == "--s3-retry-wait") {
      cap = &s3RetryWait;
      least = 1;
    } else if (option == "--mirror") {
      target = &mirror;
      mirrorSet = true;
    } else if (option == "--socket") {
      target = &socketPath;
      socketSet = true;
    } else if (option == "--state") {
      target = &stateDir;
      stateSet = true;
    } else if (option == "--journal") {
      target = &journalPath;
    } else if (option == "--rules") {
      target = &rulesPath;
    } else if (option == "--threads") {
      cap = &serving.threads;
      least = 1;
      most = 256;
    } else if (option == "--max-clients") {
      cap = &serving.maxClients;
      least = 1;
      most = 1000000;
    } else if (option == "--request-timeout-ms") {
      cap = &requestTimeoutMs;
      least = 10;
      most = 86400000;  // a day
    } else if (option == "--max-request-args") {
      cap = &limits.maxArgs;
      least = 5;  // the longest command
    } else if (option == "--max-request-bytes") {
      cap = &limits.maxBytes;
      least = 1024;
    } else if (option == "--max-reply-bytes") {
      cap = &limits.maxUnsentReply;
      least = 1024;
    } else if (option == "--webdav-cache-ms") {
      cap = &cacheMs;
      cacheSet = true;
    } else {
      std::fprintf(stderr, "velfileagent: unknown option '%s'\n\n%s", option.c_str(), kUsage);
      return 2;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "velfileagent: option %s needs a value\n", option.c_str());
      return 2;
    }
    const char* value = argv[++i];
    if (target != nullptr) {
      *target = value;
    } else if (!parseCap(value, least, most, *cap)) {
      std::fprintf(stderr, "velfileagent: option %s needs a number from %llu to %llu, not '%s'\n",
                   option.c_str(), least, most, value);
      return 2;
    }
  }
  serving.requestTimeoutMs = static_cast<long>(requestTimeoutMs);
  const bool webdav = !webdavUrl.empty();
  const bool s3 = !s3Url.empty();
  if ((store.empty() ? 0 : 1) + (webdav ? 1 : 0) + (s3 ? 1 : 0) != 1) {
    std::fprintf(stderr, "velfileagent: give one of --store, --webdav and --s3\n\n%s", kUsage);
    return 2;
  }
  if (!webdav && (!webdavUser.empty() || !passwordFile.empty() || cacheSet)) {
    std::fprintf(stderr,
                 "velfileagent: --webdav-user, --webdav-password-file and --webdav-cache-ms go "
                 "with --webdav\n");
    return 2;
  }
  if (!s3 && !s3CredentialsFile.empty()) {
    std::fprintf(stderr, "velfileagent: --s3-credentials goes with --s3\n");
    return 2;
  }
  if (!webdav && !s3 && !caFile.empty()) {
    std::fprintf(stderr, "velfileagent: --ca-file goes with --webdav or --s3\n");
    return 2;
  }
  if (!caFile.empty() && ::access(caFile.c_str(), R_OK) != 0) {
    std::fprintf(stderr, "velfileagent: cannot read the certificate file %s: %s\n", caFile.c_str(),
                 std::strerror(errno));
    return 2;
  }
  velagent::S3Options s3Options;
  if (s3) {
    std::string error;
    if (!velagent::S3Store::checkUrl(s3Url, error) ||
        !readS3Credentials(s3CredentialsFile, s3Options.credentials, error)) {
      std::fprintf(stderr, "velfileagent: %s\n", error.c_str());
      return 2;
    }
    s3Options.url = s3Url;
    s3Options.caFile = caFile;
    s3Options.partSize = static_cast<long long>(s3PartSize);
    s3Options.retryWaitMs = static_cast<long>(std::min<size_t>(s3RetryWait, 60000));
  }
  velagent::WebDavOptions davOptions;
  if (webdav) {
    std::string error;
    if (!velagent::WebDavStore::checkUrl(webdavUrl, error)) {
      // The URL itself is not repeated: it may hold what must not be logged.
      std::fprintf(stderr, "velfileagent: %s\n", error.c_str());
      return 2;
    }
    if (!passwordFile.empty() && !readPassword(passwordFile, davOptions.password)) {
      std::fprintf(stderr, "velfileagent: cannot read the password file %s: %s\n",
                   passwordFile.c_str(), std::strerror(errno));
      return 2;
    }
    if (!passwordFile.empty() && webdavUser.empty()) {
      std::fprintf(stderr, "velfileagent: --webdav-password-file needs --webdav-user\n");
      return 2;
    }
    davOptions.url = webdavUrl;
    davOptions.user = webdavUser;
    davOptions.caFile = caFile;
    davOptions.cacheWindow = std::chrono::milliseconds(cacheMs);
  } else if (!s3 && !isDirectory(store)) {
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
  if (!stateSet) {
    stateDir = defaultStateDir();
  }
  while (stateDir.size() > 1 && stateDir.back() == '/') {
    stateDir.pop_back();
  }
  if (stateDir.empty()) {
    std::fprintf(stderr, "velfileagent: --state needs a folder\n");
    return 2;
  }
  // The record never lives where a listing or a commit would carry it to
  // the service.
  for (const std::string& served : {mirror, webdav || s3 ? std::string() : store}) {
    if (served.empty()) {
      continue;
    }
    std::string realState = realPathOf(stateDir);
    std::string realServed = realPathOf(served);
    if (realState == realServed || within(realState, realServed) ||
        sameOrAncestor(realServed, realState)) {
      std::fprintf(stderr,
                   "velfileagent: the state folder %s lies inside %s; give a folder outside "
                   "the mirror and the store\n",
                   stateDir.c_str(), served.c_str());
      return 2;
    }
  }
  std::string overlap = webdav || s3 ? "" : overlapOf(store, mirror);
  if (!overlap.empty()) {
    std::fprintf(stderr,
                 "velfileagent: the store %s and the mirror %s %s; every copy would destroy "
                 "its own source, give two separate folders\n",
                 store.c_str(), mirror.c_str(), overlap.c_str());
    return 2;
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
  bool openat2 = velagent::Root::probeOpenat2(webdav || s3 ? mirror : store);
  velagent::Rules rules(rulesPath);
  // Cleans libcurl up after the store's handles are gone (declared first,
  // destroyed last).
  struct CurlLibrary {
    bool started = false;
    ~CurlLibrary() {
      if (started) curl_global_cleanup();
    }
  } curlLibrary;
  std::unique_ptr<velagent::Store> backing;
  std::string storeText = store;
  if (webdav) {
    curlLibrary.started = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    auto dav = std::make_unique<velagent::WebDavStore>(davOptions);
    // A server that cannot answer yet is no reason not to start: requests
    // get its error until it does. The log says so at once.
    velagent::Status probe = dav->probe();
    storeText = "WebDAV " + webdavUrl + (webdavUser.empty() ? "" : " as " + webdavUser) +
                (probe.isOk() ? "" : " (not answering now: " + probe.message() + ")");
    backing = std::move(dav);
  } else if (s3) {
    curlLibrary.started = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    auto bucket = std::make_unique<velagent::S3Store>(s3Options);
    velagent::Status probe = bucket->probe();
    storeText = "S3 " + bucket->identity().substr(3) +
                (probe.isOk() ? "" : " (not answering now: " + probe.message() + ")");
    backing = std::move(bucket);
  } else {
    backing = std::make_unique<velagent::FolderStore>(store);
  }
  if (!rulesPath.empty()) {
    // Test rules may arm store faults.
    backing = std::make_unique<velagent::FaultyStore>(std::move(backing));
  }
  // A state folder that cannot be made leaves the record in memory (logged
  // by the record): the agent serves anyway.
  int stateError = makeStateDir(stateDir) ? 0 : errno;
  std::string note;
  std::unique_ptr<velagent::SyncRecord> record =
      velagent::SyncRecord::open(stateDir, realPathOf(mirror), backing->identity(), note);
  if (stateError != 0) {
    velagent::logLine("cannot make the state folder " + stateDir + ": " +
                      std::strerror(stateError));
  }
  if (!note.empty()) {
    velagent::logLine(note);
  }
  if (!record) {
    std::fprintf(stderr, "velfileagent: cannot keep a sync record, not even in memory\n");
    return 1;
  }
  // A read answered from memory must fit the reply cap with room to spare.
  velagent::Commands commands(*backing, mirror,
                              std::min<size_t>(1u << 20, limits.maxUnsentReply / 2), *record,
                              syncOptions);
  const std::string lowered = fitToOpenFiles(serving.maxClients);
  velagent::Server server(commands, journal, rules, serving);
  if (!server.listenOn(socketPath) || !server.start(gStopPipe[0])) {
    return 1;
  }
  velagent::logLine(
      "started, pid " + std::to_string(::getpid()) + ", store " + storeText + ", mirror " + mirror +
      ", socket " + socketPath + ", sync record " +
      (record->file().empty() ? std::string("in memory") : record->file()) +
      (syncOptions.lastWriterWins ? " (last writer wins)" : "") + ", paths resolved by " +
      (openat2 ? "openat2" : "a walk of one name at a time") + ", caps " +
      std::to_string(limits.maxArgs) + " arguments and " + std::to_string(limits.maxBytes) +
      " bytes per request, " + std::to_string(limits.maxUnsentReply) + " bytes per reply, " +
      std::to_string(serving.maxClients) + " clients, " + std::to_string(serving.requestTimeoutMs) +
      " ms per request, " + std::to_string(serving.threads) + " threads");
  if (!lowered.empty()) {
    velagent::logLine(lowered);
  }
  std::fputs("ready\n", stdout);
  std::fflush(stdout);
  server.serve();
  char signalNumber = 0;
  ssize_t got = ::read(gStopPipe[0], &signalNumber, 1);
  velagent::logLine(got != 1                 ? "stopped"
                    : signalNumber == SIGINT ? "stopped on SIGINT"
                                             : "stopped on SIGTERM");
  return 0;
}
