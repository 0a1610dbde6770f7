// TarnClient: one RESP connection to the local file agent.
//
// Each command has the command time-out as its deadline: the socket is
// non-blocking and the client waits with poll() for the time left, so
// neither a silent agent nor one that trickles its reply can hold a command
// longer; the reply is read through the reply caps. A command that misses
// its deadline or whose reply is over a cap ends with a null reply (-6) and
// leaves the connection failed, since the rest of that reply would be taken
// for the next one. A write to an agent that has gone away must not kill the
// caller with SIGPIPE: requests are sent with send(MSG_NOSIGNAL), which
// reports EPIPE instead.
#include "vel/tarn_client.h"

#include <hiredis/hiredis.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <string>

#include "agent/tarn_reply.h"
#include "vel/client_config.h"
#include "vel/log.h"
#include "vel/records.h"

namespace VEL {

namespace {

constexpr int32_t kAgentFailure = -6;
constexpr int32_t kEmptyHandle = -7;
constexpr int32_t kDefaultCommandTimeoutMs = 30000;

struct ReplyDeleter {
  void operator()(redisReply* reply) const {
    if (reply != nullptr) {
      freeReplyObject(reply);
    }
  }
};
using Reply = std::unique_ptr<redisReply, ReplyDeleter>;

using Clock = std::chrono::steady_clock;

// Waits until the socket is ready for `events` or the deadline passes.
bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      return false;
    }
    pollfd entry{fd, events, 0};
    const int ready = ::poll(&entry, 1, left > 1000000 ? 1000000 : static_cast<int>(left));
    if (ready > 0) {
      return true;  // hang-ups and errors show in the read or write that follows
    }
    if (ready < 0 && errno != EINTR) {
      return false;
    }
  }
}

// Marks the connection failed, as hiredis does on an I/O error, so that no
// later command reads what is left of an abandoned reply.
void failConnection(redisContext* context, const char* why, int type = REDIS_ERR_IO) {
  if (context->err == 0) {
    context->err = type;
    std::snprintf(context->errstr, sizeof(context->errstr), "%s", why);
  }
}

// Sends the whole request by the deadline. false (the connection failed)
// when the agent is gone, the socket fails or the deadline passes.
bool sendRequest(redisContext* context, const char* data, size_t size, Clock::time_point deadline) {
  while (size > 0) {
    const ssize_t n = ::send(context->fd, data, size, MSG_NOSIGNAL);
    if (n > 0) {
      data += n;
      size -= static_cast<size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (!waitFor(context->fd, POLLOUT, deadline)) {
        failConnection(context, "Command time-out");
        return false;
      }
      continue;
    }
    failConnection(context, std::strerror(errno));
    return false;
  }
  return true;
}

// The request in the protocol's form, as hiredis writes a command whose
// format is words and "%s": one bulk text per argument, each up to its
// first NUL (where "%s" stops reading).
std::string formatRequest(std::initializer_list<const char*> args) {
  std::string request;
  request.reserve(64);
  request.append("*").append(std::to_string(args.size())).append("\r\n");
  for (const char* arg : args) {
    const size_t length = std::strlen(arg);
    request.append("$").append(std::to_string(length)).append("\r\n");
    request.append(arg, length).append("\r\n");
  }
  return request;
}

// One request under the deadline `timeoutMs` from now; a null reply when not
// connected, on a broken connection, when the deadline passes or when the
// reply is over a cap.
Reply sendCommand(redisContext* context, int32_t timeoutMs,
                  std::initializer_list<const char*> args) {
  if (context == nullptr || context->err != 0) {
    return Reply();
  }
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
  std::string request;
  try {
    request = formatRequest(args);
  } catch (const std::bad_alloc&) {
    failConnection(context, "Out of memory", REDIS_ERR_OOM);
    return Reply();
  }
  if (!sendRequest(context, request.data(), request.size(), deadline)) {
    return Reply();
  }
  tarn::CappedReader reader(context->reader);
  for (;;) {
    void* reply = nullptr;
    if (reader.getReply(&reply) != REDIS_OK) {
      failConnection(context, context->reader->errstr);
      return Reply();
    }
    if (reply != nullptr) {
      return Reply(static_cast<redisReply*>(reply));
    }
    if (!waitFor(context->fd, POLLIN, deadline)) {
      failConnection(context, "Command time-out");
      return Reply();
    }
    if (redisBufferRead(context) != REDIS_OK) {
      return Reply();
    }
  }
}

const char* textOf(const Reply& reply) {
  const char* text = tarn::replyText(reply.get());
  return text != nullptr ? text : "";
}

}  // namespace

TarnClient::TarnClient(const TarnConnOptions& options, const std::string& socketPath)
    : host_(options.host),
      type_(options.type),
      socketPath_(socketPath),
      connectTimeoutMs_(options.connectTimeoutMs),
      commandTimeoutMs_(options.commandTimeoutMs) {
  if (commandTimeoutMs_ <= 0) {
    // The configured time-out ("TARN_TIME_OUT", default 30000 ms), read from
    // a configuration record of our own: the client instance need not exist.
    commandTimeoutMs_ = VELClientConfig().cmdTimeout;
  }
  if (commandTimeoutMs_ <= 0) {
    // "TARN_TIME_OUT" beyond 32 bits wraps to 0 or below in the
    // configuration; without this no command would ever time out.
    commandTimeoutMs_ = kDefaultCommandTimeoutMs;
  }
}

TarnClient::~TarnClient() {
  if (context_ != nullptr) {
    redisFree(context_);
    context_ = nullptr;
  }
}

int32_t TarnClient::connect(uint32_t type) {
  if (context_ != nullptr) {
    redisFree(context_);
    context_ = nullptr;
  }
  if (type == 0) {
    return 0;
  }
  if (type != 1) {
    getLogger()->log(kLogError, "[TARN] Connection type is not define");
    return kAgentFailure;
  }
  // A non-blocking socket from the start: commands wait with poll()
  // against their deadline, never in a read or a write. A Unix-domain
  // connect does not wait either: the agent's backlog takes it or it fails
  // at once (EAGAIN when the backlog is full), so the connection time-out
  // has nothing to bound.
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
  int err = fd == -1 ? errno : 0;
  if (fd != -1) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, socketPath_.c_str(), sizeof(address.sun_path) - 1);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == -1) {
      err = errno;
      ::close(fd);
    }
  }
  if (err != 0) {
    getLogger()->log(kLogError, "[VEL] Connection error: %s", std::strerror(err));
    return kAgentFailure;
  }
  redisContext* context = redisConnectFd(fd);
  if (context == nullptr) {
    ::close(fd);
    getLogger()->log(kLogError, "[TARN] Connection error: can't allocate redis context");
    return kAgentFailure;
  }
  context->flags &= ~REDIS_BLOCK;
  context_ = context;
  return 0;
}

std::string TarnClient::TarnCreateFileHandle(const std::string& name, const std::string& mode) {
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.create", service_.c_str(), name.c_str(), mode.c_str()});
  const char* text = tarn::replyText(reply.get());
  if (text == nullptr) {
    // A reply without text cannot name a handle either.
    getLogger()->log(kLogError, "[VEL] TarnCreateFileHandle:Internal Error: null reply.");
    return std::string();
  }
  return std::string(text, reply->len);
}

int32_t TarnClient::TarnCloseFileHandle(const std::string& handle) {
  if (handle.empty()) {
    return kEmptyHandle;
  }
  Reply reply =
      sendCommand(context_, commandTimeoutMs_, {"tarn.close", service_.c_str(), handle.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnCloseFileHandle:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      std::printf("close handle success!\n");
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  std::printf("error reply = %s\n", textOf(reply));
  return kAgentFailure;
}

int32_t TarnClient::TarnRead(const std::string& handle, int32_t offset, int32_t length) {
  if (handle.empty()) {
    return kEmptyHandle;
  }
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.read", handle.c_str(), std::to_string(offset).c_str(),
                             std::to_string(length).c_str(), service_.c_str()});
  if (!reply) {
    getLogger()->log(kLogError, "[VEL] TarnRead:Internal Error: null reply.");
    return kAgentFailure;
  }
  return 0;  // the data read is not handed back
}

int32_t TarnClient::TarnWrite(const std::string& handle, const std::string& data) {
  if (handle.empty()) {
    return kEmptyHandle;
  }
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.write", handle.c_str(), data.c_str(), service_.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnWrite:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  std::printf("resp = %s\n", textOf(reply));
  return kAgentFailure;
}

int32_t TarnClient::TarnRemoveFile(const std::string& path, const std::string& recursive) {
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.remove", service_.c_str(), path.c_str(), recursive.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnRemoveFile:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      getLogger()->log(kLogError, "[VEL] remove: success remove, %s", path.c_str());
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  getLogger()->log(kLogError, "[VEL] remove: Failed to remove object. %s, %s", textOf(reply),
                   path.c_str());
  std::printf("resp = %s, path = %s\n", textOf(reply), path.c_str());
  return kAgentFailure;
}

int32_t TarnClient::TarnUploadLocal(const std::string& path, const std::string& extra) {
  getLogger()->log(kLogError, "[SHOWINFO] service is %s, path is %s", service_.c_str(),
                   path.c_str());
  Reply reply =
      extra.empty()
          ? sendCommand(context_, commandTimeoutMs_,
                        {"tarn.uploadlocal", service_.c_str(), path.c_str()})
          : sendCommand(context_, commandTimeoutMs_,
                        {"tarn.uploadlocal", service_.c_str(), path.c_str(), extra.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnUploadLocal:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      std::printf("[TARN]upload file success[%s]!\n", path.c_str());
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  getLogger()->log(kLogError, "[VEL] uploadlocal: Failed to upload object. %s, %s", textOf(reply),
                   path.c_str());
  std::printf("resp = %s\n", textOf(reply));
  return kAgentFailure;
}

int32_t TarnClient::TarnDownloadLocal(const std::string& path, const std::string& extra) {
  Reply reply =
      extra.empty()
          ? sendCommand(context_, commandTimeoutMs_,
                        {"tarn.downloadlocal", service_.c_str(), path.c_str()})
          : sendCommand(context_, commandTimeoutMs_,
                        {"tarn.downloadlocal", service_.c_str(), path.c_str(), extra.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnDownloadLocal:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      std::printf("[TARN]download file success[%s]!\n", path.c_str());
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  getLogger()->log(kLogError, "[VEL] downloadlocal: Failed to download object. %s, %s",
                   textOf(reply), path.c_str());
  std::printf("resp = %s\n", textOf(reply));
  return kAgentFailure;
}

int32_t TarnClient::TarnCreateInfo(const std::string& path, const std::string& kind) {
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.createinfo", service_.c_str(), path.c_str(), kind.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnCreateInfo:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      std::printf("[TARN]createinfo success[%s]!\n", path.c_str());
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  getLogger()->log(kLogError, "[VEL] createinfo: Failed to create info. %s, %s", textOf(reply),
                   path.c_str());
  std::printf("resp = %s\n", textOf(reply));
  return kAgentFailure;
}

int32_t TarnClient::TarnListFile(const std::string& path, const std::string& arg,
                                 std::list<std::string>& entries) {
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.dir", service_.c_str(), path.c_str(), arg.c_str()});
  return tarn::collectListReply(reply.get(), path, entries);
}

int32_t TarnClient::TarnMove(const std::string& src, const std::string& dst) {
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.move", service_.c_str(), src.c_str(), dst.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnMove:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      std::printf("[TARN]move file success[src=%s, dest=%s]!\n", src.c_str(), dst.c_str());
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  getLogger()->log(kLogError, "[VEL] move: Failed to move object. %s, %s", textOf(reply),
                   src.c_str());
  std::printf("resp = %s\n", textOf(reply));
  return kAgentFailure;
}

int32_t TarnClient::TarnGetMetaData(const std::string& path, TarnMetaData& out, int32_t* mode) {
  Reply reply =
      sendCommand(context_, commandTimeoutMs_, {"tarn.metadata", service_.c_str(), path.c_str()});
  return tarn::decodeMetaDataReply(reply.get(), path, out, mode);
}

int32_t TarnClient::TarnChmod(const std::string& path, const std::string& mode) {
  // The mode goes before the path on the wire.
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.chmod", service_.c_str(), mode.c_str(), path.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnChmod:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      std::printf("[TARN]chmod success[path=%s, mod=%s]!\n", path.c_str(), mode.c_str());
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  getLogger()->log(kLogError, "[VEL] chmod: Fail to chmod object. %s, %s, %s", textOf(reply),
                   path.c_str(), mode.c_str());
  std::printf("resp = %s\n", textOf(reply));
  return kAgentFailure;
}

int32_t TarnClient::TarnFSRename(const std::string& src, const std::string& dst) {
  Reply reply = sendCommand(context_, commandTimeoutMs_,
                            {"tarn.move_cache", service_.c_str(), src.c_str(), dst.c_str()});
  switch (tarn::classifyOk(reply.get())) {
    case tarn::OkOutcome::kNullReply:
      getLogger()->log(kLogError, "[VEL] TarnFSRename:Internal Error: null reply.");
      return kAgentFailure;
    case tarn::OkOutcome::kOk:
      return 0;
    case tarn::OkOutcome::kRefused:
      break;
  }
  getLogger()->log(kLogError, "[VEL] TarnFSRename: Failed to rename object. %s, %s", textOf(reply),
                   src.c_str());
  return kAgentFailure;
}

}  // namespace VEL
