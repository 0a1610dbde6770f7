// libFuzzer target: the reference agent's request reader, rules and path
// splitting, fed without a socket.
//
// The bytes are read as a connection delivers them, once whole and once
// one byte at a time, with the agent's caps and with small ones: both ways
// must give the same requests and the same error, and no request may break
// a cap. Every argument goes through the path splitting; the whole input is
// also read as a rules file, whose replies must encode to the size the
// agent announces for them.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "commands.h"
#include "fs/beneath.h"
#include "fuzz_support.h"
#include "server/control.h"
#include "server/reply.h"
#include "server/request.h"

namespace {

using velagent::RequestLimits;
using velagent::RequestReader;

using velfuzz::fail;

struct Outcome {
  std::vector<std::vector<std::string>> requests;
  std::string error;
};

Outcome readAll(const std::string& bytes, const RequestLimits& limits, size_t piece) {
  RequestReader reader(limits);
  Outcome outcome;
  for (size_t fed = 0; fed < bytes.size() && outcome.error.empty(); fed += piece) {
    reader.feed(bytes.data() + fed, std::min(piece, bytes.size() - fed));
    for (;;) {
      std::vector<std::string> args;
      std::string error;
      RequestReader::Result result = reader.next(args, error);
      if (result == RequestReader::Result::kIncomplete) {
        break;
      }
      if (result == RequestReader::Result::kError) {
        if (error.empty()) {
          fail("an error without a text", bytes);
        }
        outcome.error = error;
        break;
      }
      size_t total = 0;
      for (const std::string& arg : args) {
        total += arg.size();
      }
      if (args.empty() || args.size() > limits.maxArgs || total > limits.maxBytes) {
        fail("a request breaks the caps", std::to_string(args.size()) + " arguments");
      }
      outcome.requests.push_back(std::move(args));
    }
  }
  return outcome;
}

void checkSplit(const std::string& path) {
  std::vector<std::string> names;
  if (!velagent::splitPath(path, names)) {
    const bool absolute = !path.empty() && path[0] == '/';
    const bool hasNul = path.find('\0') != std::string::npos;
    bool climbs = false;
    for (const std::string& name : velagent::splitNames(path)) {
      climbs = climbs || name == "..";
    }
    if (!absolute && !hasNul && !climbs) {
      fail("a harmless path was refused", path);
    }
    return;
  }
  for (const std::string& name : names) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos) {
      fail("a split name is empty, \".\", \"..\" or holds a separator", path);
    }
  }
  std::vector<std::string> again;
  if (!velagent::splitPath(velagent::joinNames(names, names.size()), again) || again != names) {
    fail("joined names do not split into the same names", path);
  }
}

void checkRules(const std::string& text) {
  std::vector<velagent::Rule> rules;
  std::string error;
  if (!velagent::Rules::parse(text, rules, error)) {
    if (error.empty()) {
      fail("rules refused without a reason", text);
    }
    return;
  }
  for (const velagent::Rule& rule : rules) {
    if (rule.delayMs < 0 || rule.delayMs > 3600000 || rule.trickleMs < 0 ||
        rule.trickleMs > 60000 || rule.skip < 0 || rule.times < -1) {
      fail("a rule holds a count out of its range", text);
    }
    if (rule.hasReply && velagent::encode(rule.reply).size() != velagent::encodedSize(rule.reply)) {
      fail("a reply's encoded size is not the size announced for it", text);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return velfuzz::quietLibrary(); }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  RequestLimits small;
  small.maxArgs = 5;
  small.maxBytes = 1024;
  for (const RequestLimits& limits : {RequestLimits(), small}) {
    const Outcome whole = readAll(bytes, limits, bytes.size() + 1);
    const Outcome trickled = readAll(bytes, limits, 1);
    if (whole.requests != trickled.requests || whole.error != trickled.error) {
      fail("the requests depend on how the bytes arrive", whole.error + " | " + trickled.error);
    }
    for (const std::vector<std::string>& request : whole.requests) {
      for (const std::string& arg : request) {
        checkSplit(arg);
      }
    }
  }
  checkSplit(bytes);
  checkRules(bytes);
  return 0;
}
