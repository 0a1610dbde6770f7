// Test controls of the file agent: the request journal and the reply rules.
#ifndef VEL_TOOLS_FILEAGENT_SERVER_CONTROL_H_
#define VEL_TOOLS_FILEAGENT_SERVER_CONTROL_H_

#include <sys/types.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "faults.h"
#include "server/reply.h"

namespace velagent {

// Appends one JSON array of the request's arguments per line, flushed at
// once. Without a file name it records nothing.
class Journal {
 public:
  explicit Journal(const std::string& path);
  ~Journal();
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  bool ok() const { return path_.empty() || file_ != nullptr; }
  void record(const std::vector<std::string>& args);

 private:
  std::string path_;
  std::FILE* file_ = nullptr;
  std::mutex mutex_;
};

// A rule answers every request whose leading arguments equal `match`.
// With `skip` it lets that many matching requests pass untouched first;
// with `times` it applies to that many requests and is then spent. The
// counts start again whenever the rules file is re-read.
struct Rule {
  std::vector<std::string> match;
  bool hasReply = false;  // without a reply the request is served normally
  Reply reply;
  long delayMs = 0;
  long trickleMs = 0;  // pause before each byte of the reply
  long skip = 0;
  long times = -1;  // -1: no limit
  long seen = 0;    // matching requests so far
  // Armed while the matching request is served (faults.h): "crash" kills
  // the agent at a point of the command, "record": "fail" makes every
  // write of the sync record fail.
  ArmedFaults faults;
};

// The rules file, re-read whenever its identity, size or time changes.
// A missing, empty or unreadable file means no rules.
class Rules {
 public:
  explicit Rules(const std::string& path) : path_(path) {}

  // The first rule matching `args` (after refreshing from the file), or
  // false when none does.
  bool find(const std::vector<std::string>& args, Rule& out);

  // Parses the rules text; false with `error` set when it is not valid.
  static bool parse(const std::string& text, std::vector<Rule>& out, std::string& error);

 private:
  void refresh();

  std::string path_;
  std::mutex mutex_;
  bool seen_ = false;
  dev_t dev_ = 0;
  ino_t ino_ = 0;
  off_t size_ = -1;
  long long mtimeNs_ = -1;
  std::vector<Rule> rules_;
};

}  // namespace velagent

#endif  // VEL_TOOLS_FILEAGENT_SERVER_CONTROL_H_
