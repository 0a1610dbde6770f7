// TarnClient: one connection to the local file agent over a Unix-domain
// socket, speaking RESP through hiredis, one request per method.
//
// Every "OK" command succeeds only on the exact reply text "OK" (0) and
// returns -6 otherwise (also for a null reply or a broken connection).
// connect() applies the connection time-out. The command time-out
// (milliseconds; "TARN_TIME_OUT", default 30000) is a deadline for the whole
// command, from sending the request to the last byte of its reply: an agent
// that stalls, or that sends its reply too slowly however short each pause,
// ends the command as a null reply (-6 where a null reply gives -6, with the
// command's "Internal Error: null reply." line) soon after the deadline.
//
// Reply caps: a reply whose texts add up to more than 64 MiB (67,108,864
// bytes), or that holds more than 1,000,000 array elements in all (nested
// arrays included), also ends the command as a null reply. It is refused as
// soon as a header announces too much (no memory is taken for an announced
// size) or the bytes buffered for it pass 64 MiB.
//
// After a null reply for a missed deadline or a cap, the connection stays
// failed: later commands on the same TarnClient return their null-reply
// result at once. A TarnClient is used by one thread at a time; it owns its
// hiredis context.
#ifndef VEL_TARN_CLIENT_H_
#define VEL_TARN_CLIENT_H_

#include <cstdint>
#include <list>
#include <string>

struct redisContext;

#include "vel/export.h"

namespace VEL {

class TarnMetaData;

// How to reach the agent: the connection type (0 none, 1 Unix-domain socket),
// the host (kept, unused for sockets) and the time-outs in milliseconds.
// A commandTimeoutMs of 0 (or below) takes the configured command time-out
// (VELClientConfig::cmdTimeout, "TARN_TIME_OUT", default 30000); a configured
// value that does not fit a positive 32-bit number falls back to 30000.
struct TarnConnOptions {
  uint32_t type = 1;
  std::string host = "127.0.0.1";
  int32_t connectTimeoutMs = 12000;
  int32_t reserved = 0;
  int32_t commandTimeoutMs = 0;
};

class VEL_API TarnClient {
 public:
  TarnClient(const TarnConnOptions& options, const std::string& socketPath);
  ~TarnClient();
  TarnClient(const TarnClient&) = delete;
  TarnClient& operator=(const TarnClient&) = delete;

  // 0 on success; -6 when the socket cannot be reached or the type is unknown.
  int32_t connect(uint32_t type);

  std::string TarnCreateFileHandle(const std::string& name, const std::string& mode);
  int32_t TarnCloseFileHandle(const std::string& handle);
  int32_t TarnRead(const std::string& handle, int32_t offset, int32_t length);
  int32_t TarnWrite(const std::string& handle, const std::string& data);
  int32_t TarnRemoveFile(const std::string& path, const std::string& recursive);
  int32_t TarnUploadLocal(const std::string& path, const std::string& extra);
  int32_t TarnDownloadLocal(const std::string& path, const std::string& extra);
  int32_t TarnCreateInfo(const std::string& path, const std::string& kind);
  // Appends the element texts of the array reply to `entries`.
  int32_t TarnListFile(const std::string& path, const std::string& arg,
                       std::list<std::string>& entries);
  int32_t TarnMove(const std::string& src, const std::string& dst);
  // 0, -19 "file not found", -6 null reply, -1 unparsable, or fromJson's status.
  // `mode`, when given, receives the reply's integer "mode" member (the
  // node's permission bits), or -1 when the reply has none.
  int32_t TarnGetMetaData(const std::string& path, TarnMetaData& out, int32_t* mode = nullptr);
  // Sent as "tarn.chmod <service> <mode> <path>": the mode precedes the path.
  int32_t TarnChmod(const std::string& path, const std::string& mode);
  int32_t TarnFSRename(const std::string& src, const std::string& dst);

  const std::string& serviceName() const { return service_; }
  // The command time-out in force, in milliseconds (always above 0).
  int32_t commandTimeoutMs() const { return commandTimeoutMs_; }

 private:
  std::string host_;
  uint32_t type_;
  std::string socketPath_;
  std::string service_ = "TestService";
  redisContext* context_ = nullptr;
  int32_t connectTimeoutMs_;
  int32_t commandTimeoutMs_;
};

}  // namespace VEL

#endif  // VEL_TARN_CLIENT_H_
