// The agent's command layer: checks each "tarn.*" request (command word,
// number of arguments, service name, paths and values), maps it onto the
// store and the mirror, and builds the reply the client reads. It knows the
// store only through the Store interface (store.h); the mirror is the
// folder downloads write to and uploads read from, resolved beneath its
// root like the store (beneath.h) and written through AtomicFile.
//
// Replies to requests it does not accept (unknown command or service,
// wrong arguments, a path that leaves the store or the mirror) are marked
// as refusals, for the log.
//
// Thread safety: execute() may be called from several threads at once, each
// with the Client of its own connection. Changes are ordered per path
// (path_locks.h); nothing else is shared.
#ifndef VEL_TOOLS_FILEAGENT_COMMANDS_H_
#define VEL_TOOLS_FILEAGENT_COMMANDS_H_

#include <sys/types.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fs/beneath.h"
#include "path_locks.h"
#include "server/reply.h"
#include "stores/store.h"

namespace velagent {

constexpr const char* kServiceName = "TestService";
// Open handles one connection may hold at a time.
constexpr size_t kMaxHandlesPerClient = 256;

class Commands {
 public:
  // What belongs to one connection: the handles it opened with tarn.create
  // (closed when the Client goes, that is when the connection ends).
  struct Client {
    std::map<std::string, std::shared_ptr<StoreHandle>> handles;
  };

  // `store` must outlive this object. Reads up to `inlineRead` bytes are
  // answered from memory, longer ones streamed from the file while sent.
  Commands(Store& store, const std::string& mirror, size_t inlineRead)
      : store_(store), mirror_(mirror), inlineRead_(inlineRead) {}
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  // Answers one request; args[0] is the command word.
  Reply execute(Client& client, const std::vector<std::string>& args);

 private:
  Reply metadata(const std::string& path);
  Reply dir(const std::string& path);
  Reply download(const std::string& path);
  Reply upload(const std::string& path);
  Reply createInfo(const std::string& path, const std::string& kind);
  Reply move(const std::string& from, const std::string& to);
  Reply chmod(const std::string& mode, const std::string& path);
  Reply remove(const std::string& path, const std::string& recursive);
  Reply createHandle(Client& client, const std::string& name, const std::string& mode);
  Reply closeHandle(Client& client, const std::string& handle);
  Reply read(Client& client, const std::string& handle, const std::string& offset,
             const std::string& length);
  Reply write(Client& client, const std::string& handle, const std::string& data);

  Store& store_;
  Root mirror_;
  size_t inlineRead_;
  PathLocks locks_;
  std::atomic<unsigned long> nextHandle_{1};
};

// Splits a request path into its names. False for an absolute path or one
// with a ".." name; "" and "." names are dropped.
bool splitPath(const std::string& path, std::vector<std::string>& names);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_COMMANDS_H_
