#include "support/webdav_server.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "stores/webdav_protocol.h"
#include "support/process.h"
#include "support/sockets.h"

namespace veltest {

namespace {

const char kApache[] = "/usr/sbin/apache2";
const char kModules[] = "/usr/lib/apache2/modules";
const char kLighttpd[] = "/usr/sbin/lighttpd";
const char kLighttpdWebdav[] = "/usr/lib/lighttpd/mod_webdav.so";
const char kNginx[] = "/usr/sbin/nginx";
const char kNginxDavExt[] = "/usr/lib/nginx/modules/ngx_http_dav_ext_module.so";
const char kRclone[] = "/usr/bin/rclone";
const char kServerUser[] = "www-data";
constexpr int kStartSeconds = 30;
constexpr int kStopSeconds = 15;

using Clock = std::chrono::steady_clock;

// Runs a program quietly; true when it exits with 0.
bool runQuiet(const std::vector<std::string>& argv) {
  SpawnOptions quiet;
  quiet.nullInput = true;
  quiet.out = quiet.err = kToNull;
  quiet.searchPath = true;
  return waitExit(spawn(argv, quiet)) == 0;
}

int freePort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr = loopback(0);
  socklen_t size = sizeof addr;
  int port = 0;
  if (::bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0 &&
      ::getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &size) == 0) {
    port = ntohs(addr.sin_port);
  }
  ::close(fd);
  return port;
}

bool accepts(int port) {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in addr = loopback(port);
  bool ok = ::connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}

std::string tailOf(const std::string& path) {
  std::ifstream in(path);
  std::stringstream all;
  all << in.rdbuf();
  std::string text = all.str();
  return text.size() > 2000 ? text.substr(text.size() - 2000) : text;
}

bool asRoot() { return ::geteuid() == 0; }

// Gives `path` and everything below it to `uid`, never following a link.
void chownTree(const std::string& path, uid_t uid, gid_t gid) {
  ::lchown(path.c_str(), uid, gid);
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(path, error), end; !error && it != end;
       it.increment(error)) {
    ::lchown(it->path().c_str(), uid, gid);
  }
}

size_t collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

}  // namespace

const char* kindName(WebDavServerKind kind) {
  switch (kind) {
    case WebDavServerKind::kApache:
      return "Apache";
    case WebDavServerKind::kLighttpd:
      return "Lighttpd";
    case WebDavServerKind::kNginx:
      return "Nginx";
    case WebDavServerKind::kRclone:
      return "Rclone";
  }
  return "?";
}

bool keepsProperties(WebDavServerKind kind) {
  return kind == WebDavServerKind::kApache || kind == WebDavServerKind::kLighttpd;
}

bool WebDavServer::available(std::string& why, WebDavServerKind kind) {
  std::vector<const char*> needed;
  switch (kind) {
    case WebDavServerKind::kApache:
      needed = {kApache};
      break;
    case WebDavServerKind::kLighttpd:
      needed = {kLighttpd, kLighttpdWebdav};
      break;
    case WebDavServerKind::kNginx:
      needed = {kNginx, kNginxDavExt};
      break;
    case WebDavServerKind::kRclone:
      needed = {kRclone};
      break;
  }
  for (const char* file : needed) {
    if (::access(file, R_OK) != 0) {
      why = std::string(file) + " is not installed (scripts/deps.sh installs it)";
      return false;
    }
  }
  if (asRoot() && kind != WebDavServerKind::kRclone && ::getpwnam(kServerUser) == nullptr) {
    why = std::string("there is no user ") + kServerUser + " for the server to work as";
    return false;
  }
  return true;
}

WebDavServer::WebDavServer(const std::string& docroot, const std::string& workDir,
                           const WebDavServerOptions& options)
    : docroot_(docroot), work_(workDir), options_(options) {
  std::string why;
  if (!available(why, options_.kind)) {
    error_ = why;
    return;
  }
  for (const std::string& dir : {work_, work_ + "/run", work_ + "/lock", work_ + "/tmp"}) {
    ::mkdir(dir.c_str(), 0755);
  }
  ::mkdir(docroot_.c_str(), 0755);
  if (asRoot()) {
    // The server's user must get through to the document root: the folder
    // that holds it (the caller's temporary folder) is opened for passing
    // through; a folder above that is not is the caller's to fix.
    std::string parent = docroot_.substr(0, docroot_.rfind('/'));
    struct stat st;
    if (::stat(parent.c_str(), &st) == 0 && (st.st_mode & 0001) == 0) {
      ::chmod(parent.c_str(), (st.st_mode & 07777) | 0011);
    }
    for (std::string dir = parent; dir.rfind('/') > 0; dir = dir.substr(0, dir.rfind('/'))) {
      std::string above = dir.substr(0, dir.rfind('/'));
      if (::stat(above.c_str(), &st) == 0 && (st.st_mode & 0001) == 0) {
        error_ = above + " does not let " + kServerUser + " through to the document root";
        return;
      }
    }
  }
  if (!options_.user.empty() &&
      !runQuiet({"htpasswd", "-bc", work_ + "/htpasswd", options_.user, options_.password})) {
    error_ = "htpasswd failed";
    return;
  }
  if (options_.https && !runQuiet({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                                   "ec_paramgen_curve:prime256v1", "-nodes", "-days", "2", "-subj",
                                   "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1",
                                   "-keyout", work_ + "/key.pem", "-out", certificate()})) {
    error_ = "openssl could not make a certificate";
    return;
  }
  if (asRoot() && options_.kind != WebDavServerKind::kRclone) {
    // Apache needs its lock folder, lighttpd its logs and database, nginx
    // its temporary folders, once they work as the server's user.
    struct passwd* server = ::getpwnam(kServerUser);
    chownTree(work_, server->pw_uid, server->pw_gid);
  }
  adopt();
  for (int attempt = 0; attempt < 5 && pid_ <= 0; ++attempt) {
    port_ = freePort();
    launch();  // another process may take the port in between: a new one then
  }
}

WebDavServer::~WebDavServer() { stop(); }

std::string WebDavServer::url() const {
  return std::string(options_.https ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) +
         "/dav/";
}

std::string WebDavServer::certificate() const { return work_ + "/cert.pem"; }

std::string WebDavServer::writeApacheConfig() const {
  std::ostringstream c;
  c << "ServerRoot \"" << work_ << "\"\n"
    << "ServerName 127.0.0.1\n"
    << "Listen 127.0.0.1:" << port_ << "\n"
    << "PidFile \"" << work_ << "/run/httpd.pid\"\n"
    << "DefaultRuntimeDir \"" << work_ << "/run\"\n"
    << "Mutex file:" << work_ << "/run default\n"
    << "ErrorLog \"" << work_ << "/error.log\"\n"
    << "LogLevel warn\n"
    // Per request: how many came before it on the same connection.
    << "LogFormat \"%k %m %>s %U\" reuse\n"
    << "CustomLog \"" << work_ << "/access.log\" reuse\n";
  for (const char* module :
       {"mpm_event", "authz_core", "authn_core", "auth_basic", "authn_file", "authz_user", "alias",
        "dav", "dav_fs", "env", "filter", "ratelimit", "ssl", "socache_shmcb"}) {
    c << "LoadModule " << module << "_module " << kModules << "/mod_" << module << ".so\n";
  }
  if (asRoot()) {
    c << "User " << kServerUser << "\nGroup " << kServerUser << "\n";
  }
  c << "StartServers 1\nServerLimit 2\nThreadsPerChild 32\nMaxRequestWorkers 64\n"
    << "MinSpareThreads 8\nMaxSpareThreads 64\n"
    << "KeepAlive On\nMaxKeepAliveRequests 0\nKeepAliveTimeout 30\nTimeout 60\n"
    << "DavLockDB \"" << work_ << "/lock/DavLock\"\n"
    << "Alias /dav \"" << docroot_ << "\"\n"
    << "<Directory />\n  Require all denied\n  AllowOverride None\n</Directory>\n"
    << "<Directory \"" << docroot_ << "\">\n"
    << "  Dav On\n  Options None\n  AllowOverride None\n";
  if (options_.user.empty()) {
    c << "  Require all granted\n";
  } else {
    c << "  AuthType Basic\n  AuthName \"vel tests\"\n  AuthBasicProvider file\n"
      << "  AuthUserFile \"" << work_ << "/htpasswd\"\n  Require valid-user\n";
  }
  c << "  <FilesMatch \"^ratelimited-\">\n    SetOutputFilter RATE_LIMIT\n"
    << "    SetEnv rate-limit 64\n  </FilesMatch>\n</Directory>\n";
  if (options_.https) {
    c << "SSLEngine on\nSSLCertificateFile \"" << certificate() << "\"\n"
      << "SSLCertificateKeyFile \"" << work_ << "/key.pem\"\n"
      << "SSLSessionCache none\n";
  }
  std::string path = work_ + "/httpd.conf";
  std::ofstream(path) << c.str();
  return path;
}

std::string WebDavServer::writeLighttpdConfig() const {
  std::ostringstream c;
  c << "server.modules = (\"mod_alias\", \"mod_webdav\", \"mod_accesslog\""
    << (options_.user.empty() ? "" : ", \"mod_auth\", \"mod_authn_file\"")
    << (options_.https ? ", \"mod_openssl\"" : "") << ")\n"
    << "server.bind = \"127.0.0.1\"\nserver.port = " << port_ << "\n"
    << "server.document-root = \"" << work_ << "/run\"\n"
    << "server.errorlog = \"" << work_ << "/error.log\"\n"
    << "server.upload-dirs = (\"" << work_ << "/tmp\")\n"
    << "server.max-keep-alive-requests = 60000\nserver.max-keep-alive-idle = 30\n";
  if (asRoot()) {
    c << "server.username = \"" << kServerUser << "\"\nserver.groupname = \"" << kServerUser
      << "\"\n";
  }
  c << "alias.url = (\"/dav/\" => \"" << docroot_ << "/\")\n"
    << "webdav.activate = \"enable\"\nwebdav.is-readonly = \"disable\"\n"
    << "webdav.sqlite-db-name = \"" << work_
    << "/lock/webdav.db\"\n"
    // Per request: how many came before it on the same connection.
    << "accesslog.filename = \"" << work_ << "/access.log\"\n"
    << "accesslog.format = \"%k %m %s %U\"\n"
    << "$HTTP[\"url\"] =~ \"/ratelimited-[^/]*$\" { connection.kbytes-per-second = 64 }\n";
  if (!options_.user.empty()) {
    c << "auth.backend = \"htpasswd\"\n"
      << "auth.backend.htpasswd.userfile = \"" << work_ << "/htpasswd\"\n"
      << "auth.require = (\"/dav/\" => (\"method\" => \"basic\", \"realm\" => \"vel tests\", "
      << "\"require\" => \"valid-user\"))\n";
  }
  if (options_.https) {
    c << "ssl.engine = \"enable\"\nssl.pemfile = \"" << certificate() << "\"\n"
      << "ssl.privkey = \"" << work_ << "/key.pem\"\n";
  }
  std::string path = work_ + "/lighttpd.conf";
  std::ofstream(path) << c.str();
  return path;
}

std::string WebDavServer::writeNginxConfig() const {
  std::ostringstream c;
  c << "daemon off;\nmaster_process on;\nworker_processes 1;\n";
  if (asRoot()) {
    c << "user " << kServerUser << " " << kServerUser << ";\n";
  }
  c << "pid " << work_ << "/run/nginx.pid;\n"
    << "error_log " << work_ << "/error.log warn;\n"
    << "load_module " << kNginxDavExt << ";\n"
    << "events { worker_connections 256; }\n"
    << "http {\n";
  for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
    c << "  " << temp << "_temp_path " << work_ << "/tmp/" << temp << ";\n";
  }
  // Per request: how many came on its connection up to it.
  c << "  log_format reuse '$connection_requests $request_method $status $uri';\n"
    << "  access_log " << work_ << "/access.log reuse;\n"
    << "  keepalive_requests 100000;\n  keepalive_timeout 30s;\n"
    << "  map $uri $rate { ~/ratelimited-[^/]*$ 64k; default 0; }\n"
    << "  server {\n"
    << "    listen 127.0.0.1:" << port_ << (options_.https ? " ssl" : "") << ";\n";
  if (options_.https) {
    c << "    ssl_certificate " << certificate() << ";\n"
      << "    ssl_certificate_key " << work_ << "/key.pem;\n";
  }
  c << "    location /dav/ {\n"
    << "      alias " << docroot_ << "/;\n"
    << "      dav_methods PUT DELETE MKCOL COPY MOVE;\n"
    << "      dav_ext_methods PROPFIND OPTIONS;\n"
    << "      dav_access user:rw group:rw all:r;\n"
    << "      create_full_put_path off;\n"
    << "      client_max_body_size 0;\n"
    << "      limit_rate $rate;\n";
  if (!options_.user.empty()) {
    c << "      auth_basic \"vel tests\";\n"
      << "      auth_basic_user_file " << work_ << "/htpasswd;\n";
  }
  c << "    }\n  }\n}\n";
  std::string path = work_ + "/nginx.conf";
  std::ofstream(path) << c.str();
  return path;
}

std::vector<std::string> WebDavServer::commandLine() const {
  switch (options_.kind) {
    case WebDavServerKind::kApache:
      return {kApache, "-f", writeApacheConfig(), "-DFOREGROUND"};
    case WebDavServerKind::kLighttpd:
      return {kLighttpd, "-D", "-f", writeLighttpdConfig()};
    case WebDavServerKind::kNginx:
      return {kNginx, "-e", work_ + "/error.log", "-p", work_ + "/", "-c", writeNginxConfig()};
    case WebDavServerKind::kRclone:
      break;
  }
  // As the README's recipe serves a bucket, with the folder as a remote of
  // the local back-end in place of the bucket's. No directory cache: what
  // the tests write into the folder shows at once.
  std::vector<std::string> argv = {kRclone,
                                   "serve",
                                   "webdav",
                                   "vel-store:" + docroot_,
                                   "--addr",
                                   "127.0.0.1:" + std::to_string(port_),
                                   "--baseurl",
                                   "/dav",
                                   "--config",
                                   work_ + "/rclone.conf",
                                   "--cache-dir",
                                   work_ + "/tmp",
                                   "--dir-cache-time",
                                   "0s",
                                   "--poll-interval",
                                   "0",
                                   "--etag-hash",
                                   "MD5",
                                   "--log-file",
                                   work_ + "/error.log"};
  if (!options_.user.empty()) {
    argv.insert(argv.end(), {"--user", options_.user, "--pass", options_.password});
  }
  if (options_.https) {
    argv.insert(argv.end(), {"--cert", certificate(), "--key", work_ + "/key.pem"});
  }
  return argv;
}

bool WebDavServer::launch() {
  const std::vector<std::string> argv = commandLine();
  const std::string log = work_ + "/error.log";
  ::unlink(log.c_str());
  if (options_.kind == WebDavServerKind::kRclone) {
    std::ofstream(work_ + "/rclone.conf") << "[vel-store]\ntype = local\n";
  } else if (asRoot()) {
    // Written by the server once it works as its user.
    std::ofstream(log) << "";
    struct passwd* server = ::getpwnam(kServerUser);
    ::chown(log.c_str(), server->pw_uid, server->pw_gid);
  }
  SpawnOptions options;
  options.nullInput = true;
  options.out = kToNull;
  options.err = kToNull;
  options.endWithParent = true;  // the server must not outlive a test process that aborts
  const pid_t pid = spawn(argv, options);
  if (pid < 0) {
    error_ = std::string("fork: ") + std::strerror(errno);
    return false;
  }
  auto deadline = Clock::now() + std::chrono::seconds(kStartSeconds);
  while (Clock::now() < deadline) {
    int status = 0;
    if (::waitpid(pid, &status, WNOHANG) == pid) {
      error_ = std::string(kindName(options_.kind)) + " ended at start: " + tailOf(log);
      return false;
    }
    if (accepts(port_)) {
      pid_ = pid;
      error_.clear();
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
  error_ = std::string(kindName(options_.kind)) + " did not accept connections in time";
  return false;
}

bool WebDavServer::start() { return pid_ > 0 || launch(); }

void WebDavServer::stop() {
  if (pid_ > 0 && options_.kind == WebDavServerKind::kLighttpd) {
    // lighttpd notices a stop signal only at its next tick, up to a second
    // later; nothing it holds needs a clean stop.
    ::kill(pid_, SIGKILL);
    waitExit(pid_);
  } else if (pid_ > 0) {
    stopProcess(pid_, kStopSeconds);
  }
  pid_ = -1;
}

void WebDavServer::adopt() const {
  if (!asRoot() || options_.kind == WebDavServerKind::kRclone) {
    return;
  }
  struct passwd* server = ::getpwnam(kServerUser);
  if (server != nullptr) {
    chownTree(docroot_, server->pw_uid, server->pw_gid);
  }
}

namespace {

// One request to the server; the status, or 0 when it failed.
long exchange(const std::string& url, const char* method, const char* depth,
              const std::string& body, const WebDavServerOptions& options,
              const std::string& caFile, std::string& answer) {
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    return 0;
  }
  struct curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/xml");
  if (depth != nullptr) {
    headers = curl_slist_append(headers, (std::string("Depth: ") + depth).c_str());
  }
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method);
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  if (!options.user.empty()) {
    curl_easy_setopt(curl, CURLOPT_USERNAME, options.user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, options.password.c_str());
  }
  if (options.https) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, caFile.c_str());
  }
  long code = 0;
  if (curl_easy_perform(curl) == CURLE_OK) {
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  return code;
}

}  // namespace

bool WebDavServer::setMode(const std::string& rel, unsigned mode) const {
  std::string answer;
  long code = exchange(url() + velagent::encodePath(rel), "PROPPATCH", nullptr,
                       velagent::modeUpdateBody(mode), options_, certificate(), answer);
  std::string error;
  return code == 200 || code == 204 || (code == 207 && velagent::proppatchSucceeded(answer, error));
}

int WebDavServer::mode(const std::string& rel) const {
  std::string answer;
  long code = exchange(url() + velagent::encodePath(rel), "PROPFIND", "0", velagent::propfindBody(),
                       options_, certificate(), answer);
  std::vector<velagent::DavNode> nodes;
  std::string error;
  if (code != 207 || !velagent::parseMultistatus(answer, nodes, error) || nodes.size() != 1) {
    return -1;
  }
  return static_cast<int>(nodes[0].mode);
}

}  // namespace veltest
