// The fault matrix's cells for the S3 store: the agent talks to Ceph's
// gateway through a proxy (support/fault_proxy.h) that breaks one request
// at a time, the way a busy service and a flaky network do.
//  - A "503 SlowDown" once, at the n-th request of an operation, for every
//    n up to the number of requests the operation makes when nothing fails:
//    the agent sends it again, and the reply and the bucket end as they do
//    without the fault.
//  - A connection dropped in the middle of an upload's body, whole or of
//    any one part of a multipart upload: the same.
//  - A multipart upload whose last part keeps failing: the upload fails, the
//    file on the service stays as it was, no part is left behind, the
//    mirror is untouched; likewise when the service keeps saying SlowDown.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "support/agent_fixture.h"
#include "support/fault_proxy.h"
#include "support/s3_client.h"
#include "support/temp_dir.h"

namespace {

using namespace veltest;
using Action = FaultProxy::Action;

// Files of the multipart cases: three parts of the smallest size S3 takes.
constexpr long long kPart = 5LL << 20;
const std::string kBig = std::string(2 * kPart, 'n') + "the last part";
const std::string kOldBig = "the service's older copy";

struct Operation {
  const char* name;
  std::vector<std::vector<std::string>> requests;  // agent requests, each answered in turn
  bool changesService;                             // else the bucket needs no reset between cells
};

void PrintTo(const Operation& op, std::ostream* out) { *out << op.name; }

const Operation kOperations[] = {
    {"metadata", {{"tarn.metadata", kSvc, "t/a"}}, false},
    {"list", {{"tarn.dir", kSvc, "t", "x"}}, false},
    {"download", {{"tarn.downloadlocal", kSvc, "t/a"}}, false},
    {"upload", {{"tarn.uploadlocal", kSvc, "up/small"}}, true},
    {"multipart upload", {{"tarn.uploadlocal", kSvc, "up/big"}}, true},
    {"folder rename", {{"tarn.move", kSvc, "t", "moved"}}, true},
    {"chmod", {{"tarn.chmod", kSvc, "384", "t/a"}}, true},
    {"tree removal", {{"tarn.remove", kSvc, "t", "true"}}, true},
    {"folder creation", {{"tarn.createinfo", kSvc, "new/deeper", "dir"}}, true},
};

class S3FaultMatrix : public ::testing::Test {
 protected:
  void SetUp() override {
    VEL_REQUIRE_S3_SERVICE();
    std::string why;
    bool unavailable = false;
    service_ = sharedS3Service(why, unavailable);
    proxy_.reset(new FaultProxy(service_->endpoint));
    ASSERT_TRUE(proxy_->ready());
    const std::string prefix = service_->freshPrefix();
    client_.reset(new S3Client(*service_, prefix));
    // Resends after 10, 20, 40 ms: the cells wait less.
    AgentOptions options =
        quiet({"--s3-part-size", std::to_string(kPart), "--s3-retry-wait", "10"});
    options.s3 = true;
    options.s3Url = proxy_->endpoint() + "/" + service_->bucket + "/" + prefix;
    agent_.reset(new AgentFixture(options));
    ASSERT_TRUE(agent_->ready());
  }
  void TearDown() override {
    if (client_) {
      for (const std::string& key : client_->keys()) client_->remove(key);
    }
  }

  // The same bucket, mirror and sync record before every run. The service's
  // "up/big" is an older version that this device sent, so that uploading
  // the mirror's "up/big" sends an edit of it.
  void reset(bool bucketToo = true) {
    proxy_->setRules({});
    agent_->forgetRecord();
    removeTree(agent_->mirror() + "/t");
    plant(agent_->mirror(), {{"t/", ""}, {"up/small", "a small local file", 0644}});
    if (bucketToo) {
      for (const std::string& key : client_->keys()) {
        client_->remove(key);
      }
      client_->putFolder("t", 0750);
      client_->putFile("t/a", "service a", 0644);
      client_->putFile("t/sub/c", "service c", 0600);
      writeFile(agent_->mirror() + "/up/big", kOldBig);
      AgentConnection c(agent_->socketPath());
      EXPECT_EQ(c.ask({"tarn.uploadlocal", kSvc, "up/big"}), "+OK");
    }
    if (readFile(agent_->mirror() + "/up/big") != kBig) {
      writeFile(agent_->mirror() + "/up/big", kBig);
    }
    proxy_->setRules({});  // what the next run asks, from its first request
  }

  // Every key with its ETag (the MD5 of its content, or of its parts' MD5s)
  // and its mode metadata.
  std::map<std::string, std::string> bucket() {
    std::map<std::string, std::string> out;
    for (const std::string& key : client_->keys()) {
      S3Client::Answer answer = client_->head(key);
      out[key] = answer.etag + " " + answer.meta["mode"];
    }
    return out;
  }

  std::vector<std::string> run(const Operation& op) {
    std::vector<std::string> replies;
    for (const std::vector<std::string>& request : op.requests) {
      AgentConnection c(agent_->socketPath());
      replies.push_back(c.ask(request, 60000));
    }
    return replies;
  }

  const S3Service* service_ = nullptr;
  std::unique_ptr<FaultProxy> proxy_;
  std::unique_ptr<S3Client> client_;
  std::unique_ptr<AgentFixture> agent_;
};

class S3SlowDownCells : public S3FaultMatrix, public ::testing::WithParamInterface<Operation> {};

TEST_P(S3SlowDownCells, ASlowDownOnceAtEveryRequestIsSentAgainAndChangesNothing) {
  const Operation& op = GetParam();
  reset();
  const std::vector<std::string> clean = run(op);
  const std::vector<std::string> requests = proxy_->requests();
  const std::map<std::string, std::string> after = bucket();
  const Tree mirrorAfter = snapshot(agent_->mirror());
  ASSERT_FALSE(requests.empty());
  std::printf("S3 fault matrix, %s: %zu requests, a SlowDown at each\n", op.name, requests.size());
  for (size_t n = 1; n <= requests.size(); ++n) {
    SCOPED_TRACE(std::string(op.name) + ", SlowDown at request " + std::to_string(n) + " of " +
                 std::to_string(requests.size()) + " (" + requests[n - 1] + ")");
    reset(op.changesService);
    proxy_->setRules({{"", "", Action::kSlowDown, static_cast<int>(n) - 1, 1}});
    EXPECT_EQ(run(op), clean);
    EXPECT_EQ(proxy_->faults(), 1);
    EXPECT_EQ(bucket(), after);
    EXPECT_TRUE(snapshot(agent_->mirror()) == mirrorAfter);
  }
  // A HEAD's answer has no body to name the error.
  EXPECT_NE(agent_->agentLog().find("velfileagent: s3: 503"), std::string::npos);
  EXPECT_NE(agent_->agentLog().find("; sent again in 10 ms"), std::string::npos);
}

std::string nameOf(const ::testing::TestParamInfo<Operation>& info) {
  std::string name;
  for (const char* c = info.param.name; *c != '\0'; ++c) {
    name.push_back(std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_');
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Operations, S3SlowDownCells, ::testing::ValuesIn(kOperations), nameOf);

TEST_F(S3FaultMatrix, AConnectionDroppedMidUploadIsSentAgain) {
  // The whole body of a small file, then each part of a large one.
  struct Cell {
    const char* path;
    const char* match;
    const std::string* content;
  };
  const std::string small = "a small local file";
  for (const Cell& cell :
       {Cell{"up/small", "up/small", &small}, Cell{"up/big", "partNumber=1", &kBig},
        Cell{"up/big", "partNumber=2", &kBig}, Cell{"up/big", "partNumber=3", &kBig}}) {
    SCOPED_TRACE(std::string(cell.path) + " dropped at " + cell.match);
    reset();
    proxy_->setRules({{"PUT", cell.match, Action::kDropMidBody, 0, 1}});
    AgentConnection c(agent_->socketPath());
    EXPECT_EQ(c.ask({"tarn.uploadlocal", kSvc, cell.path}, 60000), "+OK");
    EXPECT_EQ(proxy_->faults(), 1);
    EXPECT_TRUE(client_->get(cell.path).body == *cell.content);
    EXPECT_EQ(client_->uploads(), std::vector<std::string>{});
  }
}

TEST_F(S3FaultMatrix, AMultipartUploadFailingAtItsLastPartLeavesNoParts) {
  struct Cell {
    const char* name;
    FaultProxy::Rule rule;
    const char* reply;
  };
  for (const Cell& cell : {Cell{"the last part fails",
                                {"PUT", "partNumber=3", Action::kServerError, 0, -1},
                                "-ERR s3: 500 InternalError"},
                           Cell{"the service keeps saying SlowDown at the last part",
                                {"PUT", "partNumber=3", Action::kSlowDown, 0, -1},
                                "-ERR s3: 503 SlowDown"},
                           Cell{"the completion fails",
                                {"POST", "uploadId=", Action::kServerError, 0, -1},
                                "-ERR s3: 500 InternalError"}}) {
    SCOPED_TRACE(cell.name);
    reset();
    const Tree mirrorBefore = snapshot(agent_->mirror());
    proxy_->setRules({cell.rule});
    AgentConnection c(agent_->socketPath());
    EXPECT_EQ(c.ask({"tarn.uploadlocal", kSvc, "up/big"}, 60000), cell.reply);
    EXPECT_EQ(proxy_->faults(), 4);  // every attempt
    EXPECT_EQ(client_->get("up/big").body, kOldBig);
    EXPECT_EQ(client_->uploads(), std::vector<std::string>{});
    EXPECT_TRUE(snapshot(agent_->mirror()) == mirrorBefore);
  }
}

}  // namespace
