// The agent's WebDAV store against real servers (support/webdav_server.h).
// Through the agent's socket, on Apache: logins, HTTPS with a certificate
// of the test's own, names that need encoding, a server that goes away in
// the middle of a download, how HTTP answers map onto the agent's replies,
// and the requests a tree update costs. Through the Store interface, on
// every server of the suite: versions, conditional changes and modes.
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fs/unique_fd.h"
#include "stores/webdav_store.h"
#include "support/agent_fixture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/webdav_server.h"

namespace {

using namespace veltest;

class WebDavStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!WebDavServer::available(why)) {
      GTEST_SKIP() << "no WebDAV server here: " << why;
    }
  }

  static AgentOptions webdav(const WebDavServerOptions& server = {}) {
    AgentOptions options;
    options.webdav = true;
    options.server = server;
    options.captureLog = true;
    return options;
  }
};

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

TEST_F(WebDavStoreTest, WrongPasswordGivesAClearErrorAndNoCredentialIsShown) {
  const WebDavServerOptions login{"vel", "right horse battery", false};
  AgentFixture good(webdav(login));
  ASSERT_TRUE(good.ready());
  good.storeFile("f", "data");
  AgentConnection ok(good.socketPath());
  EXPECT_NE(ok.ask({"tarn.metadata", kSvc, "f"}).find("\"Kind\":\"file\""), std::string::npos);

  TempDir secrets;
  writeFile(secrets.sub("wrong"), "wrong staple\n");
  AgentOptions options = webdav(login);
  options.args = {"--webdav-password-file", secrets.sub("wrong")};
  AgentFixture bad(options);
  ASSERT_TRUE(bad.ready());
  bad.storeFile("f", "data");
  AgentConnection c(bad.socketPath());
  const std::string unauthorized = "-ERR webdav: 401 Unauthorized";
  EXPECT_EQ(c.ask({"tarn.metadata", kSvc, "f"}), unauthorized);
  EXPECT_EQ(c.ask({"tarn.dir", kSvc, "", "x"}), unauthorized);  // never an empty list
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "f"}), unauthorized);
  EXPECT_FALSE(pathExists(bad.mirror() + "/f"));
  writeFile(bad.mirror() + "/up", "local");
  EXPECT_EQ(c.ask({"tarn.uploadlocal", kSvc, "up"}), unauthorized);
  EXPECT_FALSE(pathExists(bad.store() + "/up"));
  EXPECT_EQ(c.ask({"tarn.remove", kSvc, "f", "true"}), unauthorized);
  EXPECT_EQ(readFile(bad.store() + "/f"), "data");

  // The start line says the server refuses; neither password is anywhere.
  EXPECT_NE(bad.agentLog().find("not answering now: webdav: 401 Unauthorized"), std::string::npos)
      << bad.agentLog();
  for (const AgentFixture* agent : {&good, &bad}) {
    for (const std::string& text : {agent->agentLog(), readFile(agent->journalPath())}) {
      EXPECT_EQ(text.find("horse"), std::string::npos) << text;
      EXPECT_EQ(text.find("staple"), std::string::npos) << text;
    }
  }
}

TEST_F(WebDavStoreTest, HttpsWorksWithTheGivenCertificateOnly) {
  WebDavServerOptions tls;
  tls.https = true;
  AgentFixture trusted(webdav(tls));
  ASSERT_TRUE(trusted.ready());
  ASSERT_TRUE(startsWith(trusted.server()->url(), "https://"));
  trusted.storeFile("s/f", "over TLS");
  AgentConnection c(trusted.socketPath());
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "s"}), "+OK");
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "s/f"}), "+OK");
  EXPECT_EQ(readFile(trusted.mirror() + "/s/f"), "over TLS");

  // Another server's certificate does not vouch for this one.
  AgentOptions options = webdav(tls);
  options.args = {"--ca-file", trusted.server()->certificate()};
  AgentFixture untrusted(options);
  ASSERT_TRUE(untrusted.ready());
  AgentConnection u(untrusted.socketPath());
  std::string reply = u.ask({"tarn.metadata", kSvc, ""});
  EXPECT_TRUE(startsWith(reply, "-ERR webdav: ")) << reply;
  EXPECT_NE(reply.find("certificate"), std::string::npos) << reply;
}

// The same tree in a folder store and behind WebDAV lists and describes
// the same; downloads, uploads, moves and removals keep every byte of the
// names.
TEST_F(WebDavStoreTest, NamesThatNeedEncodingMatchTheFolderStore) {
  const std::vector<std::string> files = {"a b/c d.txt",    "100%/x%41y",   "h#sh/#1",
                                          "q?/why?",        "ü/日本語.txt", "mix ?#%/ä b/%2F",
                                          "plain/+&=;,@$'!"};
  AgentFixture dav(webdav());
  AgentFixture folder;
  ASSERT_TRUE(dav.ready());
  ASSERT_TRUE(folder.ready());
  for (const std::string& rel : files) {
    dav.storeFile(rel, "bytes of " + rel);
    folder.storeFile(rel, "bytes of " + rel);
  }
  AgentConnection d(dav.socketPath());
  AgentConnection f(folder.socketPath());
  std::vector<std::string> folders = {"",  "a b",     "100%",        "h#sh", "q?",
                                      "ü", "mix ?#%", "mix ?#%/ä b", "plain"};
  for (const std::string& dir : folders) {
    EXPECT_EQ(d.ask({"tarn.dir", kSvc, dir, "x"}), f.ask({"tarn.dir", kSvc, dir, "x"})) << dir;
  }
  // Equal but for the time, which the two copies need not share.
  const auto timeless = [](std::string meta) {
    size_t at = meta.find("\"LastModifiedTime\"");
    return at == std::string::npos ? meta : meta.erase(at, meta.find(',', at) + 1 - at);
  };
  for (const std::string& rel : files) {
    ::chmod((folder.store() + "/" + rel).c_str(), 0640);  // the WebDAV default
    EXPECT_EQ(timeless(d.ask({"tarn.metadata", kSvc, rel})),
              timeless(f.ask({"tarn.metadata", kSvc, rel})));
    for (size_t slash = rel.find('/'); slash != std::string::npos;
         slash = rel.find('/', slash + 1)) {
      EXPECT_EQ(d.ask({"tarn.downloadlocal", kSvc, rel.substr(0, slash)}), "+OK");
    }
    EXPECT_EQ(d.ask({"tarn.downloadlocal", kSvc, rel}), "+OK") << rel;
    EXPECT_EQ(readFile(dav.mirror() + "/" + rel), "bytes of " + rel);
  }

  plant(dav.mirror(), {{"new ä/#?%/ö 1%.txt", "sent"}});
  EXPECT_EQ(d.ask({"tarn.uploadlocal", kSvc, "new ä/#?%/ö 1%.txt"}), "+OK");
  EXPECT_EQ(readFile(dav.store() + "/new ä/#?%/ö 1%.txt"), "sent");
  EXPECT_EQ(d.ask({"tarn.move", kSvc, "a b/c d.txt", "h#sh/moved ?.txt"}), "+OK");
  EXPECT_EQ(readFile(dav.store() + "/h#sh/moved ?.txt"), "bytes of a b/c d.txt");
  EXPECT_EQ(d.ask({"tarn.move", kSvc, "100%", "ü/100% moved"}), "+OK");
  EXPECT_EQ(readFile(dav.store() + "/ü/100% moved/x%41y"), "bytes of 100%/x%41y");
  EXPECT_EQ(d.ask({"tarn.remove", kSvc, "mix ?#%", "true"}), "+OK");
  EXPECT_FALSE(pathExists(dav.store() + "/mix ?#%"));
  EXPECT_EQ(d.ask({"tarn.dir", kSvc, "", "x"}), "*\na b/\nh#sh/\nnew ä/\nplain/\nq?/\nü/");
}

// The server goes away while it sends a file: the mirror keeps its old
// copy whole, no temporary file is left, and the next download after the
// server is back brings the new copy whole.
TEST_F(WebDavStoreTest, ServerStoppingMidDownloadLeavesTheOldCopy) {
  AgentFixture agent(webdav());
  ASSERT_TRUE(agent.ready());
  const std::string fresh(160 * 1024, 'n');  // sent at 64 KiB/s: about 2.5 s
  agent.storeFile("ratelimited-doc", fresh);
  writeFile(agent.mirror() + "/ratelimited-doc", "old copy");
  AgentConnection c(agent.socketPath());
  ASSERT_TRUE(c.send({"tarn.downloadlocal", kSvc, "ratelimited-doc"}));

  // Stopped once the first bytes reached the temporary file.
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  bool started = false;
  while (!started && std::chrono::steady_clock::now() < deadline) {
    for (const std::string& partial : matching(agent.mirror() + "/.*.velpart.*")) {
      started = started || !readFile(partial).empty();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(started);
  agent.server()->stop();
  std::string reply = c.reply(30000);
  EXPECT_TRUE(startsWith(reply, "-ERR webdav: ")) << reply;
  EXPECT_EQ(readFile(agent.mirror() + "/ratelimited-doc"), "old copy");
  EXPECT_TRUE(matching(agent.mirror() + "/.*.velpart.*").empty());

  // Without a server every request that needs it says why.
  AgentConnection down(agent.socketPath());
  reply = down.ask({"tarn.metadata", kSvc, "elsewhere"});
  EXPECT_TRUE(startsWith(reply, "-ERR webdav: ")) << reply;

  ASSERT_TRUE(agent.server()->start());
  EXPECT_EQ(down.ask({"tarn.downloadlocal", kSvc, "ratelimited-doc"}, 30000), "+OK");
  std::string copy = readFile(agent.mirror() + "/ratelimited-doc");
  EXPECT_TRUE(copy == fresh) << copy.size() << " bytes";
  EXPECT_TRUE(matching(agent.mirror() + "/.*.velpart.*").empty());
}

// How the answers of the server become the agent's replies, and the
// server connection that outlives each agent connection.
TEST_F(WebDavStoreTest, AnswersMapOntoTheAgentRepliesOverOneKeptConnection) {
  AgentFixture agent(webdav());
  ASSERT_TRUE(agent.ready());
  agent.storeFile("a", "A");
  agent.storeFile("b", "B");
  agent.storeFile("full/x", "X");
  AgentConnection c(agent.socketPath());
  EXPECT_EQ(c.ask({"tarn.move", kSvc, "a", "b"}), "-ERR move failed: File exists");
  EXPECT_EQ(readFile(agent.store() + "/a"), "A");
  EXPECT_EQ(readFile(agent.store() + "/b"), "B");
  EXPECT_EQ(c.ask({"tarn.move", kSvc, "a", "new/deeper/c"}), "+OK");
  EXPECT_EQ(readFile(agent.store() + "/new/deeper/c"), "A");
  EXPECT_EQ(c.ask({"tarn.createinfo", kSvc, "new", "dir"}), "+OK");
  EXPECT_EQ(c.ask({"tarn.createinfo", kSvc, "made/one/two", "dir"}), "+OK");
  EXPECT_TRUE(pathExists(agent.store() + "/made/one/two"));
  EXPECT_EQ(c.ask({"tarn.createinfo", kSvc, "b/under", "dir"}),
            "-ERR cannot create folder: Not a directory");
  EXPECT_EQ(c.ask({"tarn.createinfo", kSvc, "made/empty", "file"}), "+OK");
  EXPECT_EQ(readFile(agent.store() + "/made/empty"), "");
  EXPECT_NE(c.ask({"tarn.metadata", kSvc, "made/empty"}).find("\"mode\":420"),
            std::string::npos);  // 0644, as the folder store creates it

  EXPECT_EQ(c.ask({"tarn.remove", kSvc, "full", "false"}), "-ERR directory not empty");
  EXPECT_EQ(readFile(agent.store() + "/full/x"), "X");
  EXPECT_EQ(c.ask({"tarn.remove", kSvc, "gone", "false"}), "+OK");
  EXPECT_EQ(c.ask({"tarn.remove", kSvc, "made/one/two", "false"}), "+OK");
  EXPECT_FALSE(pathExists(agent.store() + "/made/one/two"));
  EXPECT_EQ(c.ask({"tarn.remove", kSvc, "full", "true"}), "+OK");
  EXPECT_FALSE(pathExists(agent.store() + "/full"));

  EXPECT_EQ(c.ask({"tarn.metadata", kSvc, "nothing"}), "$file not found");
  EXPECT_EQ(c.ask({"tarn.chmod", kSvc, "420", "nothing"}), "-ERR file not found");
  EXPECT_EQ(c.ask({"tarn.dir", kSvc, "b", "x"}), "-ERR not a directory");
  EXPECT_EQ(c.ask({"tarn.dir", kSvc, "nothing", "x"}), "-ERR file not found");
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "nothing"}), "$file not found");
  EXPECT_EQ(c.ask({"tarn.create", kSvc, "b", "r"}),
            "-ERR open failed: not supported by the WebDAV store");

  // Without the property a file reads 0640 and a folder 0750; chmod sets it.
  EXPECT_NE(c.ask({"tarn.metadata", kSvc, "b"}).find("\"mode\":416"), std::string::npos);
  EXPECT_NE(c.ask({"tarn.metadata", kSvc, "new"}).find("\"mode\":488"), std::string::npos);
  EXPECT_EQ(c.ask({"tarn.chmod", kSvc, "1517", "new"}), "+OK");  // 02755
  EXPECT_EQ(agent.server()->mode("new"), 02755);

  // Twenty clients one after the other, each on a connection of its own:
  // the agent asks the server over one connection it keeps.
  for (int i = 0; i < 20; ++i) {
    AgentConnection once(agent.socketPath());
    EXPECT_EQ(once.ask({"tarn.dir", kSvc, "", "x"}).substr(0, 1), "*");
  }
  std::istringstream log(readFile(agent.server()->accessLog()));
  int most = 0;
  for (std::string line; std::getline(log, line);) {
    most = std::max(most, std::atoi(line.c_str()));
  }
  EXPECT_GE(most, 20) << readFile(agent.server()->accessLog());

  // It stops cleanly with its pooled connections (a sanitizer build also
  // fails it here for anything left behind).
  agent.stop();
  EXPECT_EQ(agent.exitStatus(), 0) << agent.agentLog();
}

// What the agent learned a moment ago may be out of date when another
// client changes the server: a listing shows a file or a folder that is
// gone. An upload into a folder removed meanwhile makes it again; a
// metadata read within the window may still show what went.
TEST_F(WebDavStoreTest, AFolderRemovedBehindTheAgentsBackIsMadeAgain) {
  AgentOptions remembering = webdav();
  remembering.args = {"--webdav-cache-ms", "60000"};  // however slow the machine
  AgentFixture agent(remembering);
  ASSERT_TRUE(agent.ready());
  agent.storeFile("d/sub/f", "old");
  AgentConnection c(agent.socketPath());
  EXPECT_EQ(c.ask({"tarn.dir", kSvc, "d", "x"}), "*\nd/sub/");
  EXPECT_EQ(c.ask({"tarn.dir", kSvc, "d/sub", "x"}), "*\nd/sub/f");
  removeTree(agent.store() + "/d");
  EXPECT_EQ(c.ask({"tarn.metadata", kSvc, "d/sub/f"}).substr(0, 16), "${\"AccessAllowRo");
  plant(agent.mirror(), {{"d/sub/f", "new"}});
  EXPECT_EQ(c.ask({"tarn.uploadlocal", kSvc, "d/sub/f"}), "+OK");
  EXPECT_EQ(readFile(agent.store() + "/d/sub/f"), "new");

  // Without a memory, every question goes to the server.
  AgentOptions options = webdav();
  options.args = {"--webdav-cache-ms", "0"};
  AgentFixture forgetful(options);
  ASSERT_TRUE(forgetful.ready());
  forgetful.storeFile("d/f", "old");
  AgentConnection f(forgetful.socketPath());
  EXPECT_EQ(f.ask({"tarn.dir", kSvc, "d", "x"}), "*\nd/f");
  removeTree(forgetful.store() + "/d");
  EXPECT_EQ(f.ask({"tarn.metadata", kSvc, "d/f"}), "$file not found");
}

// The requests each method got since `from` lines of the access log
// ("<reuse> <method> <status> <path>"), and the log's length. The server
// writes a line once it has answered: this waits (a few seconds at most)
// for `method` to have got `least` requests.
std::map<std::string, int> methodsSince(const std::string& log, size_t& from,
                                        const std::string& method = "", int least = 0) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  for (;;) {
    std::istringstream lines(readFile(log));
    std::map<std::string, int> counts;
    size_t n = 0;
    for (std::string line; std::getline(lines, line); ++n) {
      if (n >= from) {
        std::istringstream words(line);
        std::string reuse, name;
        words >> reuse >> name;
        ++counts[name];
      }
    }
    if (counts[method] >= least || std::chrono::steady_clock::now() > deadline) {
      from = n;
      return counts;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

// The tool's tree update asks for each folder's listing and each file's
// bytes once: the entries' metadata and the downloads' lookups come from
// the listing. A commit after it sends each file once, with a fresh look
// at it, and over connections the agent keeps.
TEST_F(WebDavStoreTest, ATreeCostsARequestPerFolderAndPerFile) {
  AgentOptions remembering = webdav();
  remembering.args = {"--webdav-cache-ms", "60000"};  // however slow the machine
  AgentFixture agent(remembering);
  ASSERT_TRUE(agent.ready());
  const int folders = 3;
  const int perFolder = 4;
  // Changed long enough ago for the server's versions to be settled.
  struct timespec past[2] = {{::time(nullptr) - 60, 0}, {::time(nullptr) - 60, 0}};
  for (int d = 0; d < folders; ++d) {
    for (int f = 0; f < perFolder; ++f) {
      const std::string rel = "tree/d" + std::to_string(d) + "/f" + std::to_string(f);
      agent.storeFile(rel, "bytes");
      ::utimensat(AT_FDCWD, (agent.store() + "/" + rel).c_str(), past, 0);
    }
  }
  const std::map<std::string, std::string> env = {{"UDS_ROOT_OSSUSER", agent.udsRoot()},
                                                  {"TARN_ROOT_DIR", agent.mirror()},
                                                  {"_APP_LOG_DIR", agent.logDir()}};
  const std::string log = agent.server()->accessLog();
  size_t mark = 0;
  methodsSince(log, mark);
  ProcessResult result = runProcess({VEL_TOOL_BIN, "update", "tree"}, env);
  ASSERT_EQ(result.status, 0);
  ASSERT_EQ(readFile(agent.mirror() + "/tree/d2/f3"), "bytes");
  std::map<std::string, int> update = methodsSince(log, mark, "GET", folders * perFolder);
  // One lookup of the top (the tool checks it is there), one listing each.
  EXPECT_EQ(update["PROPFIND"], 1 + 1 + folders);
  EXPECT_EQ(update["GET"], folders * perFolder);
  EXPECT_EQ(update.size(), 2u);

  for (int d = 0; d < folders; ++d) {
    for (int f = 0; f < perFolder; ++f) {
      writeFile(agent.mirror() + "/tree/d" + std::to_string(d) + "/f" + std::to_string(f),
                "edited");
    }
  }
  result = runProcess({VEL_TOOL_BIN, "commit", "tree"}, env);
  ASSERT_EQ(result.status, 0);
  ASSERT_EQ(readFile(agent.store() + "/tree/d2/f3"), "edited");
  std::map<std::string, int> commit = methodsSince(log, mark, "PUT", folders * perFolder);
  EXPECT_EQ(commit["PUT"], folders * perFolder + 1);  // and the store's question on conditions
  // A fresh look at each file before (the download ended what the listing
  // said of it) tells the version to send against and the mode it keeps,
  // and one after it the new version (the server's PUT answer does not);
  // the folders come from the listings.
  EXPECT_LE(commit["PROPFIND"], 2 * folders * perFolder + 1 + folders);
  // The folders' modes, the store's question whether the server keeps
  // them; the files keep theirs.
  EXPECT_LE(commit["PROPPATCH"], 1 + folders + 1);
  EXPECT_EQ(commit["GET"] + commit["MKCOL"], 0);

  std::istringstream lines(readFile(log));
  int fresh = 0;
  for (std::string line; std::getline(lines, line);) {
    fresh += line.compare(0, 2, "0 ") == 0 ? 1 : 0;
  }
  EXPECT_LE(fresh, 3) << readFile(log);
}

// ---- the Store interface on every server of the suite ----

using velagent::ContentHash;
using velagent::Expect;
using velagent::Status;
using velagent::StoreEntry;
using velagent::StoreStat;
using Code = velagent::Status::Code;

class StringSink : public velagent::ByteSink {
 public:
  int write(const char* data, size_t size) override {
    bytes.append(data, size);
    appended(data, size);
    return 0;
  }
  std::string bytes;
};

class WebDavStoreContract : public ::testing::TestWithParam<WebDavServerKind> {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  static void TearDownTestSuite() { curl_global_cleanup(); }

  void SetUp() override {
    std::string why;
    if (!WebDavServer::available(why, GetParam())) {
      GTEST_SKIP() << "no " << kindName(GetParam()) << " server here: " << why;
    }
    WebDavServerOptions options;
    options.kind = GetParam();
    server_.reset(new WebDavServer(dir_.sub("store"), dir_.sub("httpd"), options));
    ASSERT_TRUE(server_->ready()) << server_->error();
    store_.reset(new velagent::WebDavStore({server_->url(), "", "", ""}));
  }

  WebDavServerKind kind() const { return GetParam(); }
  std::string docroot(const std::string& rel) const { return dir_.sub("store/" + rel); }

  // Writes `rel` into the document root, last changed `age` seconds ago
  // and half a second (negative: in the future).
  void put(const std::string& rel, const std::string& content, int age) {
    makeDirs(docroot(rel).substr(0, docroot(rel).rfind('/')));
    writeFile(docroot(rel), content);
    struct timespec times[2];
    times[0].tv_sec = times[1].tv_sec = ::time(nullptr) - age;
    times[0].tv_nsec = times[1].tv_nsec = 500000000;
    ::utimensat(AT_FDCWD, docroot(rel).c_str(), times, 0);
    server_->adopt();
  }

  // A file to upload from.
  velagent::UniqueFd source(const std::string& content) {
    const std::string path = dir_.sub("source." + std::to_string(++sources_));
    writeFile(path, content);
    return velagent::UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  }

  Status upload(const std::string& rel, const std::string& content, const Expect& expect,
                mode_t mode = 0640) {
    velagent::UniqueFd fd = source(content);
    StoreStat written;
    ContentHash sent;
    Status status = store_->upload(fd.get(), rel, mode, expect, written, sent);
    if (status.isOk()) {
      StringSink expected;
      expected.write(content.data(), content.size());
      EXPECT_EQ(sent, expected.hash()) << rel;
    }
    return status;
  }

  StoreStat statOf(const std::string& rel) {
    StoreStat st;
    Status status = store_->stat(rel, true, st);
    EXPECT_TRUE(status.isOk()) << rel << ": " << status.message();
    return st;
  }

  TempDir dir_;
  std::unique_ptr<WebDavServer> server_;
  std::unique_ptr<velagent::WebDavStore> store_;
  int sources_ = 0;
};

// The same file has the same version whichever request read it; a version
// read in the second of the change is not settled; only Apache's tags
// name their content alone; a service copy at the asked-for version is not
// sent again where the server can tell.
TEST_P(WebDavStoreContract, VersionsAgreeAcrossStatListingAndDownload) {
  put("v/old", "settled bytes", 10);
  put("v/new", "fresh bytes", -5);
  StoreStat old = statOf("v/old");
  StoreStat fresh = statOf("v/new");
  EXPECT_FALSE(old.version.empty());
  EXPECT_TRUE(old.settled) << old.version;
  EXPECT_EQ(old.identity, kind() == WebDavServerKind::kApache) << old.version;
  EXPECT_FALSE(fresh.settled) << fresh.version;
  EXPECT_FALSE(fresh.identity) << fresh.version;
  EXPECT_NE(old.version, fresh.version);

  std::vector<StoreEntry> entries;
  ASSERT_TRUE(store_->list("v", entries).isOk());
  ASSERT_EQ(entries.size(), 2u);
  for (const StoreEntry& entry : entries) {
    ASSERT_TRUE(entry.described) << entry.name;
    EXPECT_EQ(entry.stat.version, statOf("v/" + entry.name).version) << entry.name;
  }

  StringSink copy;
  StoreStat copied = old;
  ASSERT_TRUE(store_->download("v/old", copy, copied, "").isOk());
  EXPECT_EQ(copy.bytes, "settled bytes");
  EXPECT_EQ(copied.version, old.version);
  EXPECT_TRUE(copied.settled);
  EXPECT_EQ(copied.size, 13);

  StringSink again;
  copied = old;
  Status status = store_->download("v/old", again, copied, old.version);
  const bool tells = kind() == WebDavServerKind::kApache || kind() == WebDavServerKind::kRclone;
  EXPECT_EQ(status.code(), tells ? Code::kNotModified : Code::kOk) << status.message();
  EXPECT_EQ(again.bytes, tells ? "" : "settled bytes");

  // Another content of the same size, changed at another time.
  put("v/old", "SETTLED BYTES", 20);
  StoreStat changed;
  ASSERT_TRUE(store_->download("v/old", again, changed, old.version).isOk());
  EXPECT_NE(changed.version, old.version);
}

// Conditions hold on every server, where the server checks them and where
// the store reads the version again just before: nothing is replaced or
// removed at a version other than the one expected, and a version of the
// store's own write a moment earlier is no conflict.
TEST_P(WebDavStoreContract, ChangesHappenOnlyAtTheExpectedVersion) {
  put("c/f", "first", 10);
  const StoreStat first = statOf("c/f");
  EXPECT_EQ(upload("c/f", "second", Expect::absent()).code(), Code::kConflict);
  EXPECT_EQ(upload("c/f", "second", Expect::at("\"no-such-version\"")).code(), Code::kConflict);
  EXPECT_EQ(upload("c/f", "second", Expect::at("lm:1-5")).code(), Code::kConflict);
  // A refusal that comes before the server has read a large body.
  const std::string large(2 << 20, 'L');
  EXPECT_EQ(upload("c/f", large, Expect::at("\"no-such-version\"")).code(), Code::kConflict);
  EXPECT_EQ(upload("c/f", large, Expect::absent()).code(), Code::kConflict);
  EXPECT_EQ(readFile(docroot("c/f")), "first");

  Status status = upload("c/f", "second", Expect::at(first.version));
  ASSERT_TRUE(status.isOk()) << status.message();
  EXPECT_EQ(readFile(docroot("c/f")), "second");
  // Within the same second: Apache calls its tag weak now.
  const StoreStat second = statOf("c/f");
  EXPECT_FALSE(second.settled);
  // (A rewrite of the same size in the same second would keep nginx's
  // version, last change and size: not settled, the version does not say.)
  status = upload("c/f", "third!!", Expect::at(second.version));
  ASSERT_TRUE(status.isOk()) << status.message();
  EXPECT_EQ(readFile(docroot("c/f")), "third!!");
  EXPECT_EQ(upload("c/f", "fourth", Expect::at(second.version)).code(), Code::kConflict);

  EXPECT_EQ(store_->remove("c/f", false, Expect::at(first.version)).code(), Code::kConflict);
  EXPECT_EQ(store_->remove("c/f", false, Expect::absent()).code(), Code::kConflict);
  EXPECT_EQ(readFile(docroot("c/f")), "third!!");
  status = store_->remove("c/f", false, Expect::at(statOf("c/f").version));
  EXPECT_TRUE(status.isOk()) << status.message();
  EXPECT_FALSE(pathExists(docroot("c/f")));
  EXPECT_EQ(store_->remove("c/f", false, Expect::at(first.version)).code(), Code::kConflict);

  status = upload("c/new", "made", Expect::absent());
  EXPECT_TRUE(status.isOk()) << status.message();
  EXPECT_EQ(readFile(docroot("c/new")), "made");
  // The probes of the store leave nothing behind (Apache keeps properties
  // in .DAV).
  std::vector<std::string> names = namesIn(docroot(""));
  names.erase(std::remove(names.begin(), names.end(), ".DAV"), names.end());
  EXPECT_EQ(names, std::vector<std::string>{"c"});
}

// A folder another client removed while the store still remembers it: an
// upload into it makes it again, on each server's way of saying it is
// missing.
TEST_P(WebDavStoreContract, AFolderRemovedMeanwhileIsMadeAgain) {
  put("r/sub/f", "old", 10);
  std::vector<StoreEntry> entries;
  ASSERT_TRUE(store_->list("r/sub", entries).isOk());
  removeTree(docroot("r"));
  Status status = upload("r/sub/f", "new", Expect::anything());
  EXPECT_TRUE(status.isOk()) << status.message();
  EXPECT_EQ(readFile(docroot("r/sub/f")), "new");
  removeTree(docroot("r"));
  put("r/x", "x", 10);
  ASSERT_TRUE(store_->list("r", entries).isOk());
  removeTree(docroot("r"));
  status = store_->createFile("r/made", 0640);
  EXPECT_TRUE(status.isOk()) << status.message();
  EXPECT_TRUE(pathExists(docroot("r/made")));
}

TEST_P(WebDavStoreContract, ModesWhereTheServerKeepsPropertiesAndTheLimitElsewhere) {
  put("m/f", "x", 10);
  ASSERT_TRUE(upload("m/up", "y", Expect::anything(), 0604).isOk());
  Status status = store_->chmod("m/f", 0600);
  if (keepsProperties(kind())) {
    EXPECT_TRUE(status.isOk()) << status.message();
    EXPECT_EQ(statOf("m/f").mode, 0600u);
    EXPECT_EQ(statOf("m/up").mode, 0604u);
    EXPECT_EQ(store_->chmod("m", 0711).code(), Code::kOk);
    EXPECT_EQ(statOf("m").mode, 0711u);
  } else {
    EXPECT_EQ(status.code(), Code::kFailed);
    EXPECT_NE(status.message().find("keeps no properties"), std::string::npos) << status.message();
    EXPECT_EQ(statOf("m/f").mode, 0640u);
    EXPECT_EQ(statOf("m/up").mode, 0640u);
    EXPECT_EQ(statOf("m").mode, 0750u);
  }
  EXPECT_EQ(store_->chmod("m/none", 0600).code(), Code::kNotFound);
}

std::string kindOf(const ::testing::TestParamInfo<WebDavServerKind>& info) {
  return kindName(info.param);
}

INSTANTIATE_TEST_SUITE_P(Servers, WebDavStoreContract,
                         ::testing::Values(WebDavServerKind::kApache, WebDavServerKind::kLighttpd,
                                           WebDavServerKind::kNginx, WebDavServerKind::kRclone),
                         kindOf);

}  // namespace
