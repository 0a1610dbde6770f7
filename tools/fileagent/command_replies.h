// Replies and path checks shared by the files of the command layer
// (commands.cpp, sync_commands.cpp). Internal to the command layer.
#ifndef VEL_TOOLS_FILEAGENT_COMMAND_REPLIES_H_
#define VEL_TOOLS_FILEAGENT_COMMAND_REPLIES_H_

#include <string>
#include <vector>

#include "server/reply.h"
#include "stores/store.h"

namespace velagent {

constexpr const char* kNotFoundText = "file not found";

// "ERR <what>: <the system's text for err>".
std::string errnoText(const std::string& what, int err);
// A failure of the service behind the store is told as it is, whatever
// the command was; anything else as "ERR <what>: <message>".
std::string failureText(const std::string& what, const Status& status);
// `relative` below `base` ("" is `base` itself).
std::string under(const std::string& base, const std::string& relative);
// The parent of a clean path ("" for a top-level name).
std::string parentOf(const std::string& clean);

// Splits `path` for a command; false when it is refused (absolute,
// climbing, or naming the store root where a node is required).
bool resolve(const std::string& path, bool allowRoot, std::vector<std::string>& names,
             std::string& clean);
Reply refused(const std::string& path);
// The reply for a failed lookup of `path`: refused, the service's failure
// as it is, or `missing`.
Reply lookupFailure(const Status& status, const std::string& path, Reply missing);
// The reply for a change of the store at `path`: done, refused, or failed
// (`what` says what failed).
Reply changeReply(const Status& status, const std::string& path, const std::string& what);

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_COMMAND_REPLIES_H_
