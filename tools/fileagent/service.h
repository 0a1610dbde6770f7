// The file service the agent stands in for: a store directory plays the
// remote service, the mirror root is where downloads land and uploads come
// from. Every method is safe to call from several threads.
#ifndef VEL_TOOLS_FILEAGENT_SERVICE_H_
#define VEL_TOOLS_FILEAGENT_SERVICE_H_

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "reply.h"

namespace velagent {

constexpr const char* kServiceName = "TestService";

class FileService {
 public:
  FileService(const std::string& store, const std::string& mirror);
  ~FileService();
  FileService(const FileService&) = delete;
  FileService& operator=(const FileService&) = delete;

  // Answers one request; args[0] is the command word.
  Reply execute(const std::vector<std::string>& args);

 private:
  Reply metadata(const std::string& path);
  Reply dir(const std::string& path);
  Reply download(const std::string& path);
  Reply upload(const std::string& path);
  Reply createInfo(const std::string& path, const std::string& kind);
  Reply move(const std::string& from, const std::string& to);
  Reply chmod(const std::string& mode, const std::string& path);
  Reply remove(const std::string& path, const std::string& recursive);
  Reply createHandle(const std::string& name, const std::string& mode);
  Reply closeHandle(const std::string& handle);
  Reply read(const std::string& handle, const std::string& offset, const std::string& length);
  Reply write(const std::string& handle, const std::string& data);

  std::string store_;
  std::string mirror_;
  std::mutex mutex_;  // one request at a time touches the directories
  std::map<std::string, int> handles_;
  unsigned long nextHandle_ = 1;
};

// Splits a request path into its names. False for an absolute path or one
// with a ".." name; "" and "." names are dropped.
bool splitPath(const std::string& path, std::vector<std::string>& names);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVICE_H_
