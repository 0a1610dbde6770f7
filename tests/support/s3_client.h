// A small S3 client for tests and benchmarks: what the agent's S3 store
// wrote is read back, and what a test prepares is written, by code apart
// from the store's own (its requests, its encoding, its answers), over
// libcurl with its request signing. Keys are relative to a prefix given at
// construction; folders follow the store's convention (a marker "name/").
//
// Free of GoogleTest. Not thread-safe: one connection, kept alive.
#ifndef VEL_TESTS_SUPPORT_S3_CLIENT_H_
#define VEL_TESTS_SUPPORT_S3_CLIENT_H_

#include <map>
#include <string>
#include <vector>

#include "support/ceph_cluster.h"

namespace veltest {

class S3Client {
 public:
  struct Answer {
    long status = 0;  // 0 when the request failed
    std::string body;
    std::string etag;                         // bare
    std::map<std::string, std::string> meta;  // x-amz-meta-<name>, lower case
  };

  S3Client(const S3Service& service, const std::string& prefix);
  ~S3Client();
  S3Client(const S3Client&) = delete;
  S3Client& operator=(const S3Client&) = delete;

  const std::string& prefix() const { return prefix_; }

  Answer put(const std::string& rel, const std::string& body,
             const std::map<std::string, std::string>& meta = {});
  Answer get(const std::string& rel);
  Answer head(const std::string& rel);
  Answer remove(const std::string& rel);
  // Every key below `relPrefix`, relative to the client's prefix, sorted.
  std::vector<std::string> keys(const std::string& relPrefix = "");
  // The keys of multipart uploads under way below the client's prefix.
  std::vector<std::string> uploads();

  // The store's conventions: a file with its mode (none for 0; markers for
  // its folders), a folder marker with a mode, whether a file or a folder is
  // there, the mode the store reads (-1 when nothing is there).
  void putFile(const std::string& rel, const std::string& content, unsigned mode);
  void putFolder(const std::string& rel, unsigned mode);
  bool exists(const std::string& rel);
  int mode(const std::string& rel);

 private:
  Answer perform(const std::string& method, const std::string& key, const std::string& query,
                 const std::string& body, const std::vector<std::string>& headers);

  S3Service service_;
  std::string prefix_;
  void* curl_;
};

}  // namespace veltest

#endif  // VEL_TESTS_SUPPORT_S3_CLIENT_H_
