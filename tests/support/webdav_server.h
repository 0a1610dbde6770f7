// A real WebDAV server for tests and benchmarks, one of four kinds from
// Debian, started in the foreground from a configuration generated in a
// folder of its own, on a free loopback port, serving one local folder
// (the document root) at /dav/. No system service or system configuration
// is touched. Optionally with basic authentication and with HTTPS on a
// self-signed certificate made for it.
//
//  kApache    Apache httpd with mod_dav and mod_dav_fs (dead properties in
//             its own database; honours conditional requests)
//  kLighttpd  lighttpd with mod_webdav (dead properties in an SQLite
//             database in the work folder; honours conditional requests)
//  kNginx     nginx with dav_methods and the dav_ext module (no PROPPATCH,
//             no getetag; ignores If-Match and If-None-Match on PUT and
//             DELETE)
//  kRclone    `rclone serve webdav` as the README's recipe serves a bucket,
//             the folder standing in for it as a remote of the local
//             back-end, with MD5 entity tags and no directory cache (no
//             dead properties; ignores conditions)
// What each one gives in detail: docs/webdav-servers.md.
//
// Started as root, Apache, lighttpd and nginx serve as www-data: adopt()
// gives them what the caller wrote into the document root; rclone runs as
// the caller. On Apache, lighttpd and nginx, files whose names begin with
// "ratelimited-" are sent at 64 KiB/s, so that a transfer can be cut in
// the middle.
//
// Free of GoogleTest, so that the benchmarks use it as well. Not
// thread-safe.
#ifndef VEL_TESTS_SUPPORT_WEBDAV_SERVER_H_
#define VEL_TESTS_SUPPORT_WEBDAV_SERVER_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace veltest {

enum class WebDavServerKind { kApache, kLighttpd, kNginx, kRclone };

// "Apache", "Lighttpd", "Nginx", "Rclone" (usable in test names).
const char* kindName(WebDavServerKind kind);
// True for the kinds that keep dead properties (the mode), so that
// setMode() works and chmod is possible.
bool keepsProperties(WebDavServerKind kind);

struct WebDavServerOptions {
  std::string user;  // basic authentication when not empty
  std::string password;
  bool https = false;
  WebDavServerKind kind = WebDavServerKind::kApache;
};

class WebDavServer {
 public:
  // Prepares `workDir` (configuration, logs, certificate) and starts the
  // server on `docroot`; see ready() and error().
  WebDavServer(const std::string& docroot, const std::string& workDir,
               const WebDavServerOptions& options = {});
  ~WebDavServer();
  WebDavServer(const WebDavServer&) = delete;
  WebDavServer& operator=(const WebDavServer&) = delete;

  // True for a machine where a server of `kind` can run (it is installed
  // and can run here); otherwise false with the reason.
  static bool available(std::string& why, WebDavServerKind kind = WebDavServerKind::kApache);

  WebDavServerKind kind() const { return options_.kind; }
  bool ready() const { return pid_ > 0; }
  // Why it did not start (with the end of its error log).
  const std::string& error() const { return error_; }
  // The URL of the document root, "http(s)://127.0.0.1:PORT/dav/".
  std::string url() const;
  // The certificate an HTTPS server presents (PEM), to trust with --ca-file.
  std::string certificate() const;
  const std::string& docroot() const { return docroot_; }
  // Apache and nginx, one line per request: "<requests on its connection
  // before it (Apache), or up to it (nginx)> <method> <status> <path>";
  // lighttpd writes the same as Apache some seconds late, rclone nothing.
  std::string accessLog() const { return work_ + "/access.log"; }

  // Stops it (SIGTERM: connections are cut at once); idempotent.
  void stop();
  // Starts it again on the same port; true once it accepts connections.
  bool start();

  // Gives everything in the document root to the user the server works
  // as, so that it can change what the caller wrote there.
  void adopt() const;
  // Sets the mode property of `rel` through the server (false when that
  // fails, as it does on the kinds that keep no properties), or reads the
  // mode the agent sees there: the property, or the default of its kind
  // without it (-1 when the request fails).
  bool setMode(const std::string& rel, unsigned mode) const;
  int mode(const std::string& rel) const;

 private:
  bool launch();
  // The command line that starts the server in the foreground, after
  // writing its configuration.
  std::vector<std::string> commandLine() const;
  std::string writeApacheConfig() const;
  std::string writeLighttpdConfig() const;
  std::string writeNginxConfig() const;

  std::string docroot_;
  std::string work_;
  WebDavServerOptions options_;
  int port_ = 0;
  pid_t pid_ = -1;
  std::string error_;
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_WEBDAV_SERVER_H_
