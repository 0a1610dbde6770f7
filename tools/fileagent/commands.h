// The agent's command layer: checks each "tarn.*" request (command word,
// number of arguments, service name, paths and values), maps it onto the
// store and the mirror, and builds the reply the client reads. It knows the
// store only through the Store interface (store.h); the mirror is the
// folder downloads write to and uploads read from, resolved beneath its
// root like the store (beneath.h) and written through AtomicFile.
//
// Downloads, uploads, removals, renames and listings go through the sync
// record (sync/record.h) and its decision table (sync/decision.h): nothing
// unchanged is copied, no edit is overwritten (a conflict is refused, or
// the mirror copy kept aside), a removal or a rename seen in a listing of
// the service reaches the mirror copies nobody changed, and every copy is
// recorded after it is in place.
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
#include "sync/decision.h"
#include "sync/record.h"

namespace velagent {

constexpr const char* kServiceName = "TestService";
// Open handles one connection may hold at a time.
constexpr size_t kMaxHandlesPerClient = 256;

struct SyncOptions {
  // The last command wins: no conflict is refused and nothing kept aside
  // (an update takes the service's version, a commit the mirror's, a
  // removal removes whatever is there). Copies of unchanged files are
  // still skipped, and removals and renames still travel.
  bool lastWriterWins = false;
};

class Commands {
 public:
  // What belongs to one connection: the handles it opened with tarn.create
  // (closed when the Client goes, that is when the connection ends).
  struct Client {
    std::map<std::string, std::shared_ptr<StoreHandle>> handles;
  };

  // `store` and `record` must outlive this object. Reads up to
  // `inlineRead` bytes are answered from memory, longer ones streamed from
  // the file while sent.
  Commands(Store& store, const std::string& mirror, size_t inlineRead, SyncRecord& record,
           const SyncOptions& sync = SyncOptions())
      : store_(store), mirror_(mirror), inlineRead_(inlineRead), record_(record), sync_(sync) {}
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

  // The sync side (sync_commands.cpp).
  struct Place;
  sync::Action decide(sync::Action (*table)(const sync::Facts&), const sync::Facts& facts) const;
  Reply downloadFile(const std::string& path, const std::string& clean, const StoreStat& st,
                     Place& place);
  Reply removeTree(const std::string& path, const std::string& clean);
  // A file of the service that another device renamed from a name this
  // mirror recorded: its unchanged copy is moved to `clean` instead of
  // being fetched again. The candidates' paths are locked by the caller.
  bool adoptMovedCopy(const std::string& clean, const StoreStat& st,
                      const std::vector<RecordEntry>& candidates);
  // After a listing of the folder `clean`: the recorded paths below it that
  // the service no longer shows leave the mirror, or follow a rename, where
  // no edit touched them.
  void reconcile(const std::string& clean, const std::vector<StoreEntry>& entries);
  // The record of `clean`, taking up a copy put in place at `place` just
  // before the agent last stopped (SyncRecord::expect); false for none.
  bool recall(const std::string& clean, const Place& place, RecordEntry& record);
  // The mirror folders one pass over a listing works in (sync_commands.cpp).
  class MirrorFolders;
  // Removes the mirror copy of a recorded path that went from the service,
  // or moves it to `to` (true), where the service holds the same content
  // as `there`, or forgets it (sync::decideGone). With `folders`, the
  // mirror folders are opened through it.
  bool settleGone(const RecordEntry& record, const std::string& to, const StoreStat* there,
                  MirrorFolders* folders = nullptr);
  // Makes the missing folders of `rel` in the mirror; false when one
  // cannot be made or is no folder.
  bool makeMirrorDirs(const std::string& rel);
  // Removes the mirror folder `rel` and the folders below it that are
  // empty, never following a link.
  void pruneMirrorFolder(const std::string& rel);
  // Writes `entry`, saying in the log when it could not.
  void keep(const RecordEntry& entry);

  Store& store_;
  Root mirror_;
  size_t inlineRead_;
  SyncRecord& record_;
  SyncOptions sync_;
  PathLocks locks_;
  std::atomic<unsigned long> nextHandle_{1};
};

// Splits a request path into its names. False for an absolute path or one
// with a ".." name; "" and "." names are dropped.
bool splitPath(const std::string& path, std::vector<std::string>& names);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_COMMANDS_H_
