#include "support/ceph_cluster.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <random>

#include "support/process.h"

namespace veltest {

namespace {

// The shell assignments of DIR/cluster.env.
bool readService(const std::string& dir, S3Service& out) {
  std::ifstream in(dir + "/cluster.env");
  if (!in) {
    return false;
  }
  std::map<std::string, std::string> values;
  std::string line;
  while (std::getline(in, line)) {
    size_t equals = line.find('=');
    if (equals != std::string::npos) {
      values[line.substr(0, equals)] = line.substr(equals + 1);
    }
  }
  out.endpoint = values["S3_ENDPOINT"];
  out.httpsEndpoint = values["S3_HTTPS_ENDPOINT"];
  out.caFile = values["S3_CA_FILE"];
  out.bucket = values["S3_BUCKET"];
  out.accessKey = values["AWS_ACCESS_KEY_ID"];
  out.secretKey = values["AWS_SECRET_ACCESS_KEY"];
  out.region = values["AWS_REGION"];
  return !out.endpoint.empty() && !out.bucket.empty() && !out.accessKey.empty();
}

std::string unavailableText(const std::string& dir) {
  std::ifstream in(dir + "/unavailable");
  std::string text;
  std::getline(in, text);
  return text;
}

// A cluster this process started; stopped when the process exits.
struct OwnCluster {
  std::string dir;
  ~OwnCluster() {
    if (!dir.empty()) {
      stopCluster(dir);
      ::rmdir(dir.c_str());
    }
  }
};

}  // namespace

std::map<std::string, std::string> S3Service::env() const {
  return {{"AWS_ACCESS_KEY_ID", accessKey},
          {"AWS_SECRET_ACCESS_KEY", secretKey},
          {"AWS_REGION", region},
          {"AWS_SESSION_TOKEN", kUnset}};
}

std::string S3Service::freshPrefix() const {
  static std::atomic<int> counter{0};
  static const unsigned salt = std::random_device{}();
  return "t" + std::to_string(::getpid()) + "-" + std::to_string(++counter) + "-" +
         std::to_string(salt % 100000) + "/";
}

std::string S3Service::url(const std::string& prefix, bool https) const {
  return (https ? httpsEndpoint : endpoint) + "/" + bucket + "/" + prefix;
}

bool startCluster(const std::string& dir, S3Service& out, std::string& why) {
  ProcessResult started = runProcess(
      {"/bin/bash", VEL_CEPH_FIXTURE, "start", dir, "--owner", std::to_string(::getpid())});
  if (started.status == 3) {
    why = unavailableText(dir);
    return false;
  }
  if (started.status != 0 || !readService(dir, out)) {
    why = "scripts/ceph-fixture.sh did not start the cluster (exit status " +
          std::to_string(started.status) + ", its output above)";
    return false;
  }
  return true;
}

void stopCluster(const std::string& dir) {
  runProcess({"/bin/bash", VEL_CEPH_FIXTURE, "stop", dir});
}

const S3Service* sharedS3Service(std::string& why, bool& unavailable) {
  static std::unique_ptr<S3Service> service;
  static std::string failure;
  static bool missing = false;
  static OwnCluster own;
  if (!service && failure.empty()) {
    S3Service found;
    const char* runDir = std::getenv("VEL_TEST_S3_CLUSTER");
    if (runDir != nullptr && *runDir != '\0') {
      if (readService(runDir, found)) {
        service.reset(new S3Service(found));
      } else if (!(failure = unavailableText(runDir)).empty()) {
        missing = true;
      } else {
        failure = std::string("the cluster of this test run (") + runDir +
                  ") is not running: see the test s3_cluster_start";
      }
    } else {
      const char* base = std::getenv("TMPDIR");
      std::string pattern =
          std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/velceph.XXXXXX";
      if (::mkdtemp(pattern.data()) == nullptr) {
        failure = "cannot make a folder for the cluster";
      } else if (startCluster(pattern, found, failure)) {
        own.dir = pattern;
        service.reset(new S3Service(found));
      } else {
        missing = !unavailableText(pattern).empty();
        stopCluster(pattern);
      }
    }
  }
  why = failure;
  unavailable = missing;
  return service.get();
}

}  // namespace veltest
