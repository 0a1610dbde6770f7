// The agent's S3 store against a real service, Ceph's gateway on a one-node
// cluster (support/ceph_cluster.h): the store itself, in this process, for
// versions, conditions, multipart uploads, listings and folders; and the
// agent through its socket for names that need encoding, HTTPS,
// credentials, a folder rename cut short and two agents on one prefix.
// What the store wrote is read back with a client of the tests' own
// (support/s3_client.h).
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fs/content_hash.h"
#include "remote_fixture.h"
#include "stores/s3_store.h"
#include "support/agent_fixture.h"
#include "support/fault_proxy.h"
#include "support/process.h"
#include "support/s3_client.h"
#include "support/temp_dir.h"

namespace {

using namespace veltest;
using velagent::Expect;
using velagent::S3Store;
using velagent::Status;
using velagent::StoreEntry;
using velagent::StoreStat;
using Code = velagent::Status::Code;

// A sink that keeps the bytes.
class StringSink : public velagent::ByteSink {
 public:
  int write(const char* data, size_t size) override {
    bytes.append(data, size);
    appended(data, size);
    return 0;
  }
  std::string bytes;
};

class S3StoreTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  static void TearDownTestSuite() { curl_global_cleanup(); }

  void SetUp() override {
    VEL_REQUIRE_S3_SERVICE();
    std::string why;
    bool unavailable = false;
    service_ = sharedS3Service(why, unavailable);
    prefix_ = service_->freshPrefix();
    client_.reset(new S3Client(*service_, prefix_));
  }
  void TearDown() override {
    if (client_) {
      for (const std::string& key : client_->keys()) {
        client_->remove(key);
      }
    }
  }

  // A store on the test's prefix (through `endpoint` when given).
  std::unique_ptr<S3Store> store(int listPage = 1000, const std::string& endpoint = "") {
    velagent::S3Options options;
    options.url =
        (endpoint.empty() ? service_->endpoint : endpoint) + "/" + service_->bucket + "/" + prefix_;
    options.credentials = {service_->accessKey, service_->secretKey, "", service_->region};
    options.partSize = S3Store::kMinPartSize;
    options.listPage = listPage;
    return std::unique_ptr<S3Store>(new S3Store(options));
  }

  // An open file holding `content`.
  int source(const std::string& content) {
    const std::string path = dir_.sub("source" + std::to_string(++files_));
    writeFile(path, content);
    fds_.push_back(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return fds_.back();
  }
  ~S3StoreTest() override {
    for (int fd : fds_) ::close(fd);
  }

  Status upload(S3Store& s, const std::string& path, const std::string& content,
                const Expect& expect, StoreStat* written = nullptr) {
    StoreStat stat;
    velagent::ContentHash sent;
    Status status = s.upload(source(content), path, 0640, expect, stat, sent);
    if (status.isOk()) {
      velagent::Hasher hasher;
      hasher.update(content.data(), content.size());
      EXPECT_EQ(sent, hasher.digest()) << path;
    }
    if (written != nullptr) *written = stat;
    return status;
  }

  const S3Service* service_ = nullptr;
  std::string prefix_;
  std::unique_ptr<S3Client> client_;
  TempDir dir_;
  int files_ = 0;
  std::vector<int> fds_;
};

// A conditional change either finds the version it expects or changes
// nothing; the gateway ignores the condition on DELETE, so the store reads
// the version again itself. A fresh store sends If-Match quoted, as HTTP
// has it; the gateway refuses that even for the right tag, and the store,
// seeing the tag it expected, sends bare tags from then on.
TEST_F(S3StoreTest, VersionsAndConditionsFollowTheGatewaysRules) {
  auto s3 = store();
  StoreStat v1;
  ASSERT_TRUE(upload(*s3, "f", "one", Expect::absent(), &v1).isOk());
  EXPECT_EQ(v1.version, client_->head("f").etag);
  EXPECT_TRUE(v1.settled);
  EXPECT_TRUE(v1.identity);  // the MD5 of "one"
  EXPECT_EQ(v1.version, "f97c5d29941bfb1b2fdab0874906ab82");
  EXPECT_EQ(v1.mode, 0640u);

  EXPECT_EQ(upload(*s3, "f", "other", Expect::absent()).code(), Code::kConflict);
  EXPECT_EQ(client_->get("f").body, "one");
  StoreStat v2;
  ASSERT_TRUE(upload(*s3, "f", "two", Expect::at(v1.version), &v2).isOk());
  EXPECT_NE(v2.version, v1.version);
  EXPECT_EQ(upload(*s3, "f", "three", Expect::at(v1.version)).code(), Code::kConflict);
  EXPECT_EQ(client_->get("f").body, "two");
  EXPECT_EQ(upload(*s3, "gone", "x", Expect::at(v1.version)).code(), Code::kConflict);
  EXPECT_EQ(client_->head("gone").status, 404);

  StoreStat st;
  ASSERT_TRUE(s3->stat("f", true, st).isOk());
  EXPECT_EQ(st.version, v2.version);
  EXPECT_EQ(st.size, 3);
  EXPECT_EQ(st.mode, 0640u);

  StringSink unchanged;
  StoreStat copied;
  EXPECT_EQ(s3->download("f", unchanged, copied, v2.version).code(), Code::kNotModified);
  EXPECT_EQ(unchanged.bytes, "");
  StringSink changed;
  ASSERT_TRUE(s3->download("f", changed, copied, v1.version).isOk());
  EXPECT_EQ(changed.bytes, "two");
  EXPECT_EQ(copied.version, v2.version);
  EXPECT_TRUE(copied.identity);

  EXPECT_EQ(s3->remove("f", false, Expect::at(v1.version)).code(), Code::kConflict);
  EXPECT_EQ(client_->get("f").body, "two");
  EXPECT_TRUE(s3->remove("f", false, Expect::at(v2.version)).isOk());
  EXPECT_EQ(client_->head("f").status, 404);
  EXPECT_EQ(s3->stat("f", true, st).code(), Code::kNotFound);
}

// A conditional upload whose answer was lost is sent again; the service
// then refuses it, since the first one landed: the store recognises its
// own bytes (their MD5 is the ETag now there) instead of reporting a
// conflict.
TEST_F(S3StoreTest, ARetriedConditionalUploadThatLandedIsNoConflict) {
  FaultProxy proxy(service_->endpoint);
  ASSERT_TRUE(proxy.ready());
  auto s3 = store(1000, proxy.endpoint());
  proxy.setRules({{"PUT", "/new", FaultProxy::Action::kDropAnswer, 0, 1}});
  StoreStat written;
  Status status = upload(*s3, "new", "first", Expect::absent(), &written);
  EXPECT_TRUE(status.isOk()) << status.message();
  EXPECT_EQ(proxy.faults(), 1);
  EXPECT_EQ(written.version, client_->head("new").etag);
  EXPECT_EQ(client_->get("new").body, "first");
  // A change by someone else in between is still a conflict.
  proxy.setRules({{"PUT", "/new", FaultProxy::Action::kDropAnswer, 0, 1}});
  ASSERT_EQ(client_->put("new", "theirs").status, 200);
  EXPECT_EQ(upload(*s3, "new", "mine", Expect::absent()).code(), Code::kConflict);
}

// Above the part size a file goes up in parts; its ETag then names how it
// was cut, not what it holds. The gateway ignores conditions on the
// completion: the store reads the version again just before it, and a
// change that came in meanwhile stops the upload, with no parts left.
TEST_F(S3StoreTest, MultipartUploadsCheckTheirConditionLastAndLeaveNoParts) {
  const std::string big(11 << 20, 'b');
  auto s3 = store();
  StoreStat written;
  ASSERT_TRUE(upload(*s3, "big", big, Expect::absent(), &written).isOk());
  StoreStat st;
  ASSERT_TRUE(s3->stat("big", true, st).isOk());
  // The gateway's answer leaves the ETag empty: the store knows it from the
  // parts' ETags all the same.
  EXPECT_EQ(written.version, st.version);
  EXPECT_TRUE(written.settled);
  EXPECT_FALSE(written.identity);
  EXPECT_EQ(st.size, static_cast<long long>(big.size()));
  EXPECT_NE(st.version.find("-3"), std::string::npos) << st.version;
  EXPECT_FALSE(st.identity);
  EXPECT_TRUE(client_->get("big").body == big);
  EXPECT_EQ(upload(*s3, "big", big, Expect::absent()).code(), Code::kConflict);

  // Another client replaces the file while the last part is on its way.
  FaultProxy proxy(service_->endpoint);
  ASSERT_TRUE(proxy.ready());
  proxy.setRules({{"PUT", "partNumber=3", FaultProxy::Action::kHold, 0, 1}});
  auto slow = store(1000, proxy.endpoint());
  Status status = Status::ok();
  std::thread uploading([&] { status = upload(*slow, "big", big, Expect::at(st.version)); });
  ASSERT_TRUE(proxy.waitHeld(20000));
  ASSERT_EQ(client_->put("big", "theirs").status, 200);
  proxy.release();
  uploading.join();
  EXPECT_EQ(status.code(), Code::kConflict) << status.message();
  EXPECT_EQ(client_->get("big").body, "theirs");
  EXPECT_EQ(client_->uploads(), std::vector<std::string>{});

  // A service that checks the completion's If-Match and refuses the form
  // of the tag: the version just read matches, so the completion goes
  // again in the other form instead of failing.
  const std::string theirs = client_->head("big").etag;
  proxy.setRules({{"POST", "uploadId=", FaultProxy::Action::kPreconditionFailed, 0, 1}});
  status = upload(*slow, "big", big, Expect::at(theirs));
  EXPECT_TRUE(status.isOk()) << status.message();
  EXPECT_EQ(proxy.faults(), 1);
  EXPECT_TRUE(client_->get("big").body == big);
  EXPECT_EQ(client_->uploads(), std::vector<std::string>{});
}

// A listing follows the service's pages to the end, shows a folder's
// marker as nothing and a key beside a folder of the same name as the
// file, and says what it knows of each file.
TEST_F(S3StoreTest, ListingsFollowEveryPageAndDescribeFiles) {
  for (const char* key : {"d/", "d/a", "d/b", "d/c", "d/e/", "d/f/x", "d/g", "d/g/inside", "d/h"}) {
    ASSERT_EQ(client_->put(key, std::string(key).back() == '/' ? "" : key).status, 200) << key;
  }
  auto s3 = store(2);
  std::vector<StoreEntry> entries;
  ASSERT_TRUE(s3->list("d", entries).isOk());
  std::sort(entries.begin(), entries.end(),
            [](const StoreEntry& x, const StoreEntry& y) { return x.name < y.name; });
  std::vector<std::string> names;
  for (const StoreEntry& entry : entries) {
    names.push_back(entry.name + (entry.isDir ? "/" : ""));
  }
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b", "c", "e/", "f/", "g", "h"}));
  EXPECT_TRUE(entries[0].described);
  EXPECT_EQ(entries[0].stat.size, 3);
  EXPECT_EQ(entries[0].stat.version, client_->head("d/a").etag);
  EXPECT_TRUE(entries[0].stat.identity);

  StoreStat st;
  ASSERT_TRUE(s3->stat("d/f", true, st).isOk());  // only its content makes it
  EXPECT_TRUE(st.isDir);
  EXPECT_EQ(st.mode, 0750u);
  ASSERT_TRUE(s3->stat("d/g", true, st).isOk());
  EXPECT_FALSE(st.isDir);
  EXPECT_EQ(s3->list("d/a", entries).code(), Code::kNotDirectory);
  EXPECT_EQ(s3->list("none", entries).code(), Code::kNotFound);
  entries.clear();
  ASSERT_TRUE(s3->list("d/e", entries).isOk());
  EXPECT_TRUE(entries.empty());
}

// Folders are markers at every level, so each stays when its last file
// goes; a rename copies, checks and then removes, and refuses what a
// folder rename refuses.
TEST_F(S3StoreTest, FoldersAreMarkersAndRenamesAreCheckedCopies) {
  auto s3 = store();
  ASSERT_TRUE(s3->makeDirs("a/b/c").isOk());
  EXPECT_EQ(client_->keys(), (std::vector<std::string>{"a/", "a/b/", "a/b/c/"}));
  ASSERT_TRUE(upload(*s3, "a/b/c/f", "eff", Expect::anything()).isOk());
  ASSERT_TRUE(upload(*s3, "a/b/g", "gee", Expect::anything()).isOk());
  ASSERT_TRUE(s3->chmod("a/b", 0705).isOk());
  ASSERT_TRUE(s3->chmod("a/b/g", 0600).isOk());
  EXPECT_EQ(client_->mode("a/b"), 0705);
  EXPECT_EQ(client_->mode("a/b/g"), 0600);
  EXPECT_EQ(client_->get("a/b/g").body, "gee");
  EXPECT_EQ(s3->makeDirs("a/b/g/h").message(), "Not a directory");

  EXPECT_EQ(s3->remove("a/b", false, Expect::anything()).code(), Code::kNotEmpty);
  ASSERT_TRUE(s3->remove("a/b/c/f", false, Expect::anything()).isOk());
  ASSERT_TRUE(s3->remove("a/b/c", false, Expect::anything()).isOk());
  StoreStat st;
  ASSERT_TRUE(s3->stat("a/b", true, st).isOk());
  EXPECT_EQ(st.mode, 0705u);

  ASSERT_TRUE(upload(*s3, "z/busy", "z", Expect::anything()).isOk());
  EXPECT_EQ(s3->move("a", "z").message(), "Directory not empty");
  EXPECT_EQ(s3->move("a/b/g", "z").message(), "Is a directory");
  EXPECT_EQ(s3->move("a", "a/b/inside").message(), "Invalid argument");
  ASSERT_TRUE(s3->move("a", "moved").isOk());
  EXPECT_EQ(client_->keys(),
            (std::vector<std::string>{"moved/", "moved/b/", "moved/b/g", "z/busy"}));
  EXPECT_EQ(client_->mode("moved/b"), 0705);
  EXPECT_EQ(client_->mode("moved/b/g"), 0600);
  ASSERT_TRUE(s3->move("moved/b/g", "z/busy").isOk());  // a file replaces a file
  EXPECT_EQ(client_->get("z/busy").body, "gee");
  EXPECT_EQ(client_->head("moved/b/g").status, 404);
  ASSERT_TRUE(s3->remove("moved", true, Expect::anything()).isOk());
  EXPECT_EQ(client_->keys(), std::vector<std::string>{"z/busy"});
}

// Against the agent: its socket, its options, its start line.
class S3AgentTest : public ::testing::Test {
 protected:
  void SetUp() override { VEL_REQUIRE_S3_SERVICE(); }

  static AgentOptions s3(std::vector<std::string> args = {}) {
    AgentOptions options = quiet(std::move(args));
    options.s3 = true;
    return options;
  }
};

TEST_F(S3AgentTest, NamesThatNeedEncodingKeepEveryByte) {
  const std::vector<std::string> files = {"a b/c d.txt",     "100%/x%41y",   "h#sh/#1",
                                          "q?/why?",         "ü/日本語.txt", "mix ?#%/ä b/%2F",
                                          "plain/+&=;,@$'!", "tilde~/a*b"};
  AgentFixture agent(s3());
  ASSERT_TRUE(agent.ready());
  AgentConnection c(agent.socketPath());
  for (const std::string& rel : files) {
    makeDirs(agent.mirror() + "/" + rel.substr(0, rel.rfind('/')));
    writeFile(agent.mirror() + "/" + rel, "bytes of " + rel);
    EXPECT_EQ(c.ask({"tarn.uploadlocal", kSvc, rel}), "+OK") << rel;
    EXPECT_EQ(agent.s3()->get(rel).body, "bytes of " + rel) << rel;
  }
  for (const std::string& rel : files) {
    const std::string folder = rel.substr(0, rel.rfind('/'));
    std::string listing = c.ask({"tarn.dir", kSvc, folder, "x"}) + "\n";
    EXPECT_NE(listing.find("\n" + rel + "\n"), std::string::npos) << listing;
    ::unlink((agent.mirror() + "/" + rel).c_str());
    EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, rel}), "+OK") << rel;
    EXPECT_EQ(readFile(agent.mirror() + "/" + rel), "bytes of " + rel);
    EXPECT_EQ(c.ask({"tarn.move", kSvc, rel, rel + " moved"}), "+OK") << rel;
    EXPECT_EQ(agent.s3()->get(rel + " moved").body, "bytes of " + rel) << rel;
    EXPECT_EQ(c.ask({"tarn.remove", kSvc, rel + " moved", "false"}), "+OK") << rel;
    EXPECT_EQ(agent.s3()->head(rel + " moved").status, 404) << rel;
  }
}

TEST_F(S3AgentTest, HttpsWorksWithTheGivenCertificateOnly) {
  AgentOptions options = s3();
  options.s3Https = true;
  AgentFixture trusted(options);
  ASSERT_TRUE(trusted.ready());
  ASSERT_EQ(trusted.s3Url().compare(0, 8, "https://"), 0);
  trusted.storeFile("s/f", "over TLS");
  AgentConnection c(trusted.socketPath());
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "s"}), "+OK");
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "s/f"}), "+OK");
  EXPECT_EQ(readFile(trusted.mirror() + "/s/f"), "over TLS");

  // Without the certificate the system's authorities do not vouch for it.
  options.s3Url = trusted.s3Url();
  options.s3Https = false;
  AgentFixture untrusted(options);
  ASSERT_TRUE(untrusted.ready());
  AgentConnection u(untrusted.socketPath());
  std::string reply = u.ask({"tarn.metadata", kSvc, "s/f"});
  EXPECT_EQ(reply.compare(0, 8, "-ERR s3:"), 0) << reply;
  EXPECT_NE(reply.find("certificate"), std::string::npos) << reply;
}

// Keys come from the environment or from a file only its owner can read;
// a wrong one gives the service's refusal, and no key shows anywhere.
TEST_F(S3AgentTest, CredentialsComeFromTheEnvironmentOrAPrivateFileAndNeverShow) {
  std::string why;
  bool unavailable = false;
  const S3Service& service = *sharedS3Service(why, unavailable);
  TempDir dir;
  const std::string url = service.url(service.freshPrefix());
  const auto start = [&](const std::vector<std::string>& extra,
                         const std::map<std::string, std::string>& env) {
    std::vector<std::string> argv = {VEL_AGENT_BIN, "--s3",           url, "--mirror", dir.sub("m"),
                                     "--socket",    dir.sub("s.sock")};
    argv.insert(argv.end(), extra.begin(), extra.end());
    std::map<std::string, std::string> all = {{"AWS_ACCESS_KEY_ID", kUnset},
                                              {"AWS_SECRET_ACCESS_KEY", kUnset},
                                              {"AWS_SESSION_TOKEN", kUnset}};
    for (const auto& [name, value] : env) all[name] = value;
    TempDir err;
    SpawnOptions spawning;
    spawning.env = all;
    spawning.out = kToNull;
    spawning.err = ::open(err.sub("log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    pid_t pid = spawn(argv, spawning);
    ::close(spawning.err);
    int status = waitExit(pid);
    return std::make_pair(status, readFile(err.sub("log")));
  };
  makeDirs(dir.sub("m"));

  auto missing = start({}, {});
  EXPECT_EQ(missing.first, 2);
  EXPECT_NE(missing.second.find("AWS_ACCESS_KEY_ID"), std::string::npos) << missing.second;

  writeFile(dir.sub("keys"), "[default]\naws_access_key_id = " + service.accessKey +
                                 "\naws_secret_access_key = " + service.secretKey + "\n");
  ::chmod(dir.sub("keys").c_str(), 0640);
  auto open = start({"--s3-credentials", dir.sub("keys")}, {});
  EXPECT_EQ(open.first, 2);
  EXPECT_NE(open.second.find("chmod 600"), std::string::npos) << open.second;
  EXPECT_EQ(open.second.find(service.secretKey), std::string::npos);

  // Keys in the URL are refused before anything else.
  ProcessResult inUrl = runProcess(
      {VEL_AGENT_BIN, "--s3",
       "http://" + service.accessKey + ":" + service.secretKey + "@127.0.0.1/" + service.bucket});
  EXPECT_EQ(inUrl.status, 2);

  // The private file works, as the variables do (every other test).
  ::chmod(dir.sub("keys").c_str(), 0600);
  AgentFixture agent(s3({"--s3-credentials", dir.sub("keys")}));
  ASSERT_TRUE(agent.ready());
  agent.storeFile("f", "keys work");
  AgentConnection c(agent.socketPath());
  EXPECT_EQ(c.ask({"tarn.downloadlocal", kSvc, "f"}), "+OK");
  EXPECT_EQ(readFile(agent.mirror() + "/f"), "keys work");

  // A wrong secret gets the service's refusal, in the start line too.
  writeFile(dir.sub("wrong"), "[default]\naws_access_key_id = " + service.accessKey +
                                  "\naws_secret_access_key = WrongSecretStaple\n");
  ::chmod(dir.sub("wrong").c_str(), 0600);
  AgentOptions bad = s3({"--s3-credentials", dir.sub("wrong")});
  bad.s3Url = agent.s3Url();
  AgentFixture refused(bad);
  ASSERT_TRUE(refused.ready());
  AgentConnection r(refused.socketPath());
  EXPECT_EQ(r.ask({"tarn.dir", kSvc, "", "x"}), "-ERR s3: 403 SignatureDoesNotMatch");
  EXPECT_EQ(r.ask({"tarn.metadata", kSvc, "f"}), "-ERR s3: 403");  // a HEAD: no body to say why
  EXPECT_NE(refused.agentLog().find("not answering now: s3: 403 SignatureDoesNotMatch"),
            std::string::npos)
      << refused.agentLog();
  for (const AgentFixture* one : {&agent, &refused}) {
    for (const std::string& text : {one->agentLog(), readFile(one->journalPath())}) {
      EXPECT_EQ(text.find("WrongSecretStaple"), std::string::npos);
      EXPECT_EQ(text.find(service.secretKey), std::string::npos);
    }
  }
}

// A folder rename copies everything before it removes anything: an agent
// killed in between leaves both trees whole. A copy that fails leaves the
// source alone and takes its copies away.
TEST_F(S3AgentTest, AFolderRenameCutShortLeavesBothTreesNeverNeither) {
  std::string why;
  bool unavailable = false;
  const S3Service& service = *sharedS3Service(why, unavailable);
  FaultProxy proxy(service.endpoint);
  ASSERT_TRUE(proxy.ready());
  const std::string prefix = service.freshPrefix();
  AgentOptions options = s3();
  options.s3Url = proxy.endpoint() + "/" + service.bucket + "/" + prefix;
  AgentFixture agent(options);
  ASSERT_TRUE(agent.ready());
  S3Client client(service, prefix);
  const std::vector<std::string> tree = {"S/", "S/x", "S/sub/", "S/sub/y"};
  const auto plantTree = [&] {
    for (const std::string& key : tree) {
      client.put(key, key.back() == '/' ? "" : "bytes of " + key);
    }
  };
  const auto whole = [&](const std::string& top) {
    for (const std::string& key : tree) {
      const std::string moved = top + key.substr(1);
      S3Client::Answer answer = client.get(moved);
      if (answer.status != 200 || answer.body != (key.back() == '/' ? "" : "bytes of " + key)) {
        return ::testing::AssertionFailure() << moved << ": " << answer.status;
      }
    }
    return ::testing::AssertionSuccess();
  };
  plantTree();

  // A copy that keeps failing.
  proxy.setRules({{"PUT", "D/sub/y", FaultProxy::Action::kServerError, 0, -1}});
  AgentConnection c(agent.socketPath());
  std::string reply = c.ask({"tarn.move", kSvc, "S", "D"});
  EXPECT_EQ(reply, "-ERR s3: 500 InternalError");
  EXPECT_TRUE(whole("S"));
  EXPECT_EQ(client.keys("D"), std::vector<std::string>{});

  // Killed while the removals of the sources wait.
  proxy.setRules({{"POST", "?delete", FaultProxy::Action::kHold, 0, 1}});
  AgentConnection k(agent.socketPath());
  ASSERT_TRUE(k.send({"tarn.move", kSvc, "S", "D"}));
  ASSERT_TRUE(proxy.waitHeld(20000));
  agent.kill();
  proxy.release();
  EXPECT_TRUE(whole("S"));
  EXPECT_TRUE(whole("D"));

  // Once it runs again, the old tree goes.
  proxy.setRules({});
  ASSERT_TRUE(agent.restart());
  AgentConnection again(agent.socketPath());
  EXPECT_EQ(again.ask({"tarn.remove", kSvc, "S", "true"}), "+OK");
  EXPECT_EQ(client.keys("S"), std::vector<std::string>{});
  EXPECT_TRUE(whole("D"));
}

// Two agents (two devices) on one prefix see each other's changes.
TEST_F(S3AgentTest, TwoAgentsShareOnePrefix) {
  AgentFixture first(s3());
  ASSERT_TRUE(first.ready());
  AgentOptions options = s3();
  options.s3Url = first.s3Url();
  AgentFixture second(options);
  ASSERT_TRUE(second.ready());
  writeFile(first.mirror() + "/shared", "from the first");
  AgentConnection a(first.socketPath());
  AgentConnection b(second.socketPath());
  EXPECT_EQ(a.ask({"tarn.uploadlocal", kSvc, "shared"}), "+OK");
  EXPECT_EQ(b.ask({"tarn.downloadlocal", kSvc, "shared"}), "+OK");
  EXPECT_EQ(readFile(second.mirror() + "/shared"), "from the first");
  EXPECT_EQ(b.ask({"tarn.remove", kSvc, "shared", "false"}), "+OK");
  EXPECT_EQ(a.ask({"tarn.metadata", kSvc, "shared"}), "$file not found");
}

}  // namespace
