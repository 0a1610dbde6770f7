// The S3 service of the tests and benchmarks: the one-node Ceph cluster of
// scripts/ceph-fixture.sh (a monitor, a memstore object store daemon and
// the S3 gateway on loopback ports, in a folder of its own).
//
// A ctest run shares one cluster: the test "s3_cluster_start" starts it
// before the first test that needs it, "s3_cluster_stop" stops it after the
// last, and VEL_TEST_S3_CLUSTER names its folder. A test program run by
// hand (or a benchmark) starts its own the first time it asks, and stops it
// when the program exits (or, should it die, the script's watchdog does).
// Each test takes a fresh key prefix in the cluster's bucket, so tests
// share nothing but the daemons.
//
// Free of GoogleTest, so that the benchmarks use it too. Call from one
// thread.
#ifndef VEL_TESTS_SUPPORT_CEPH_CLUSTER_H_
#define VEL_TESTS_SUPPORT_CEPH_CLUSTER_H_

#include <map>
#include <string>

namespace veltest {

struct S3Service {
  std::string endpoint;       // "http://127.0.0.1:PORT"
  std::string httpsEndpoint;  // "https://127.0.0.1:PORT2", with this certificate:
  std::string caFile;
  std::string bucket;  // made by the cluster's script
  std::string accessKey;
  std::string secretKey;
  std::string region;

  // AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and AWS_REGION for an agent.
  std::map<std::string, std::string> env() const;
  // A key prefix ("t<pid>-<n>-<random>/") no other caller of this run gets.
  std::string freshPrefix() const;
  // The --s3 URL of `prefix` in the bucket.
  std::string url(const std::string& prefix, bool https = false) const;
};

// The run's service, or null with `why`: `unavailable` is true when the
// Ceph programs are not installed here (a test skips), false when they are
// and the cluster did not start (a test fails).
const S3Service* sharedS3Service(std::string& why, bool& unavailable);

// Starts a cluster of its own in `dir` (for benchmarks that want a fresh
// one); false with `why`. stopCluster() ends it.
bool startCluster(const std::string& dir, S3Service& out, std::string& why);
void stopCluster(const std::string& dir);

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_CEPH_CLUSTER_H_
