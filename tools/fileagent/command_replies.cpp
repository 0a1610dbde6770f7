#include "command_replies.h"

#include <cstring>

#include "commands.h"

namespace velagent {

std::string errnoText(const std::string& what, int err) {
  return "ERR " + what + ": " + std::strerror(err);
}

std::string failureText(const std::string& what, const Status& status) {
  if (status.code() == Status::Code::kServiceError) {
    return "ERR " + status.message();
  }
  return "ERR " + what + ": " + status.message();
}

std::string under(const std::string& base, const std::string& relative) {
  return relative.empty() ? base : base + "/" + relative;
}

std::string parentOf(const std::string& clean) {
  size_t slash = clean.rfind('/');
  return slash == std::string::npos ? "" : clean.substr(0, slash);
}

bool resolve(const std::string& path, bool allowRoot, std::vector<std::string>& names,
             std::string& clean) {
  if (!splitPath(path, names) || (!allowRoot && names.empty())) {
    return false;
  }
  clean = joinNames(names, names.size());
  return true;
}

Reply refused(const std::string& path) {
  return Reply::refusal("ERR path refused: '" + path + "'");
}

Reply lookupFailure(const Status& status, const std::string& path, Reply missing) {
  if (status.code() == Status::Code::kRefused) {
    return refused(path);
  }
  return status.code() == Status::Code::kServiceError ? Reply::error("ERR " + status.message())
                                                      : missing;
}

Reply changeReply(const Status& status, const std::string& path, const std::string& what) {
  if (status.code() == Status::Code::kRefused) {
    return refused(path);
  }
  return status.isOk() ? Reply::ok() : Reply::error(failureText(what, status));
}

}  // namespace velagent
