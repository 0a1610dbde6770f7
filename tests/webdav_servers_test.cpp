// One scenario per WebDAV server of the suite (Apache, lighttpd, nginx,
// rclone; support/webdav_server.h): every store operation as a user makes
// it, through the `vel` tool and the library, against an agent serving a
// collection of that server. Names that need encoding, an empty and a
// larger file, nested folders; ls, update, commit, mkdir, file and folder
// renames, rm and delTree everywhere; chmod where the server keeps
// properties, and the error that names the server's limit elsewhere; and
// HTTPS with a login.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "stores/webdav_store.h"
#include "support/agent_fixture.h"
#include "support/process.h"
#include "support/temp_dir.h"
#include "support/webdav_server.h"
#include "vel/codeset.h"
#include "vel/instance.h"
#include "vel/log.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using namespace veltest;

class WebDavServersTest : public ::testing::TestWithParam<WebDavServerKind> {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  static void TearDownTestSuite() { curl_global_cleanup(); }

  void SetUp() override {
    std::string why;
    if (!WebDavServer::available(why, GetParam())) {
      GTEST_SKIP() << "no " << kindName(GetParam()) << " server here: " << why;
    }
    AgentOptions options;
    options.webdav = true;
    options.server.kind = GetParam();
    options.captureLog = true;
    agent_.reset(new AgentFixture(options));
    ASSERT_TRUE(agent_->ready());
    agent_->exportEnv();
    VEL::releaseLogger();
    VEL::init({{"clientType", "Tavora"}});
  }

  void TearDown() override {
    VEL::finish();
    VEL::releaseLogger();
    agent_.reset();
  }

  bool keepsModes() const { return keepsProperties(GetParam()); }
  std::string store(const std::string& rel) const { return agent_->store() + "/" + rel; }
  std::string mirror(const std::string& rel) const { return agent_->mirror() + "/" + rel; }

  ProcessResult vel(std::vector<std::string> args) {
    args.insert(args.begin(), VEL_TOOL_BIN);
    return runProcess(args, {{"UDS_ROOT_OSSUSER", agent_->udsRoot()},
                             {"TARN_ROOT_DIR", agent_->mirror()},
                             {"_APP_LOG_DIR", agent_->logDir()},
                             {"TARN_TIME_OUT", "20000"}});
  }

  std::unique_ptr<AgentFixture> agent_;
};

TEST_P(WebDavServersTest, EveryStoreOperationThroughTheToolAndTheLibrary) {
  const std::string big(3 << 20, 'b');
  const std::vector<std::string> files = {"docs/a b/c d.txt", "docs/100%/x#y?;&+",
                                          "docs/ü/日本語.txt", "docs/n1/n2/deep.txt"};
  for (const std::string& rel : files) {
    agent_->storeFile(rel, "bytes of " + rel);
  }
  agent_->storeFile("docs/empty", "");
  agent_->storeFile("docs/big.bin", big);
  if (keepsModes()) {
    ASSERT_TRUE(agent_->server()->setMode("docs/a b/c d.txt", 0600));
  } else {
    EXPECT_FALSE(agent_->server()->setMode("docs/a b/c d.txt", 0600));
  }

  // ls and update: every name and byte, the mode where the server keeps it
  // and the default of its kind where it does not.
  ProcessResult result = vel({"ls", "docs"});
  EXPECT_EQ(result.status, 0);
  for (const char* name : {"\n100%\n", "\na b\n", "\nbig.bin\n", "\nempty\n", "\nn1\n", "\nü\n"}) {
    EXPECT_NE(result.out.find(name), std::string::npos) << name << " in\n" << result.out;
  }
  result = vel({"update", "docs"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.find("failed"), std::string::npos) << result.out;
  for (const std::string& rel : files) {
    EXPECT_EQ(readFile(mirror(rel)), "bytes of " + rel) << rel;
  }
  EXPECT_TRUE(pathExists(mirror("docs/empty")));
  EXPECT_EQ(readFile(mirror("docs/empty")), "");
  EXPECT_TRUE(readFile(mirror("docs/big.bin")) == big);
  EXPECT_EQ(permissionsOf(mirror("docs/a b/c d.txt")), keepsModes() ? 0600 : 0640);
  struct stat st;
  ASSERT_EQ(VEL::stat("docs/big.bin", &st), 0);
  EXPECT_EQ(st.st_size, static_cast<off_t>(big.size()));
  struct stat onDisk;
  ASSERT_EQ(::stat(store("docs/big.bin").c_str(), &onDisk), 0);
  EXPECT_EQ(st.st_mtime, onDisk.st_mtime);

  // commit: an edit and a new name reach the server, whatever becomes of
  // the mode.
  writeFile(mirror("docs/a b/c d.txt"), "edited");
  writeFile(mirror("docs/ü/new ?#%.txt"), "new");
  ::chmod(mirror("docs/ü/new ?#%.txt").c_str(), 0604);
  result = vel({"commit", "docs/a b/c d.txt", "docs/ü"});
  EXPECT_EQ(result.out.find("fialed"), std::string::npos) << result.out;
  EXPECT_EQ(readFile(store("docs/a b/c d.txt")), "edited");
  EXPECT_EQ(readFile(store("docs/ü/new ?#%.txt")), "new");
  EXPECT_EQ(agent_->server()->mode("docs/ü/new ?#%.txt"), keepsModes() ? 0604 : 0640);
  const std::string log = agent_->agentLog();
  EXPECT_EQ(log.find("the mode 0604 of 'docs/ü/new ?#%.txt' is left out") != std::string::npos,
            !keepsModes())
      << log;

  // mkdir, file and folder renames: nothing left behind under either name.
  EXPECT_EQ(VEL::mkdir("docs/made here", 0751), 0);
  struct stat made;
  EXPECT_EQ(::stat(store("docs/made here").c_str(), &made), 0);
  EXPECT_TRUE(S_ISDIR(made.st_mode));
  EXPECT_EQ(agent_->server()->mode("docs/made here"), keepsModes() ? 0751 : 0750);
  EXPECT_EQ(VEL::rename("docs/ü/日本語.txt", "docs/ü/renamed #1.txt"), 0);
  EXPECT_EQ(readFile(store("docs/ü/renamed #1.txt")), "bytes of docs/ü/日本語.txt");
  EXPECT_FALSE(pathExists(store("docs/ü/日本語.txt")));
  EXPECT_EQ(VEL::rename("docs/n1", "docs/n1 moved"), 0);
  EXPECT_EQ(readFile(store("docs/n1 moved/n2/deep.txt")), "bytes of docs/n1/n2/deep.txt");
  EXPECT_FALSE(pathExists(store("docs/n1")));
  EXPECT_EQ(readFile(mirror("docs/n1 moved/n2/deep.txt")), "bytes of docs/n1/n2/deep.txt");

  // chmod: stored where the server keeps properties; elsewhere refused with
  // the server's limit, and the listing keeps the default mode.
  const int changed = VEL::chmod("docs/ü/renamed #1.txt", 0600);
  AgentConnection c(agent_->socketPath());
  const std::string direct = c.ask({"tarn.chmod", kSvc, "384", "docs/ü/renamed #1.txt"});
  const std::string meta = c.ask({"tarn.metadata", kSvc, "docs/ü/renamed #1.txt"});
  if (keepsModes()) {
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(direct, "+OK");
    EXPECT_EQ(agent_->server()->mode("docs/ü/renamed #1.txt"), 0600);
    EXPECT_NE(meta.find("\"mode\":384"), std::string::npos) << meta;
  } else {
    EXPECT_NE(changed, 0);
    const std::string limit =
        "-ERR chmod failed: the WebDAV server keeps no properties (PROPPATCH answered ";
    EXPECT_EQ(direct.compare(0, limit.size(), limit), 0) << direct;
    EXPECT_NE(direct.find("so it cannot store modes"), std::string::npos) << direct;
    EXPECT_NE(meta.find("\"mode\":416"), std::string::npos) << meta;
  }

  // rm and delTree.
  result = vel({"rm", "docs/empty"});
  EXPECT_EQ(result.status, 0);
  EXPECT_FALSE(pathExists(store("docs/empty")));
  EXPECT_EQ(VEL::delTree("docs"), 0);
  EXPECT_FALSE(pathExists(store("docs")));
}

// Each server behind HTTPS with a certificate of the test's own and a
// basic login: the agent gets through with the certificate and the
// password; a wrong password is refused, and so is the server's
// certificate without the file that vouches for it.
TEST_P(WebDavServersTest, HttpsWithALogin) {
  AgentOptions options;
  options.webdav = true;
  options.server = {"vel", "a long horse", true, GetParam()};
  options.captureLog = true;
  AgentFixture secure(options);
  ASSERT_TRUE(secure.ready());
  EXPECT_EQ(secure.server()->url().compare(0, 8, "https://"), 0);
  secure.storeFile("s/f", "over TLS");
  AgentConnection c(secure.socketPath());
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "s"}), "+OK");
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "s/f"}), "+OK");
  EXPECT_EQ(readFile(secure.mirror() + "/s/f"), "over TLS");

  velagent::WebDavStore refused(
      {secure.server()->url(), "vel", "a short horse", secure.server()->certificate()});
  velagent::Status status = refused.probe();
  EXPECT_EQ(status.message(), "webdav: 401 Unauthorized");
  velagent::WebDavStore untrusting({secure.server()->url(), "vel", "a long horse", ""});
  status = untrusting.probe();
  EXPECT_NE(status.message().find("certificate"), std::string::npos) << status.message();
}

std::string kindOf(const ::testing::TestParamInfo<WebDavServerKind>& info) {
  return kindName(info.param);
}

INSTANTIATE_TEST_SUITE_P(Servers, WebDavServersTest,
                         ::testing::Values(WebDavServerKind::kApache, WebDavServerKind::kLighttpd,
                                           WebDavServerKind::kNginx, WebDavServerKind::kRclone),
                         kindOf);

}  // namespace
