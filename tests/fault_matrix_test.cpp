// Every remote operation against every way an agent call can fail, through
// the agent's rules: an error reply, a reply of the wrong type, a lowercase
// "ok", a closed connection and a reply that comes after the command
// time-out, and behind the agent a service that refuses a conditional
// change (412) or answers "not modified" (304) and a sync record that
// cannot be written, each injected at the n-th agent call for every n up
// to the number of calls the operation makes when nothing fails.
//
// Each cell starts from the same store and mirror. Afterwards every mirror
// path holds what it held before or what the operation leaves there when
// nothing fails (type, mode and bytes), every service path likewise (type
// and bytes), and no file content that both states hold is lost from the
// mirror or from the service. The operation reports a failure and keeps
// every mirror file as it was, except in the cells where its contract
// reports success on purpose (each such exception is in the table with its
// reason) and where a directory rename has already moved the tree in the
// mirror.
//
// The agent's WebDAV store meets the server's own failures at each HTTP
// request of each store operation: a kept-alive connection the server
// dropped, and a server that answers 503 once (support/counting_fault_proxy.h
// injects them). The store gets past both, so each such cell ends as the
// clean run does: the same answer to the caller, the same files on the
// server.
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <ostream>
#include <regex>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "fs/unique_fd.h"
#include "stores/webdav_store.h"
#include "support/agent_fixture.h"
#include "support/counting_fault_proxy.h"
#include "support/temp_dir.h"
#include "support/webdav_server.h"
#include "vel/codeset.h"
#include "vel/fstream.h"
#include "vel/hooks.h"
#include "vel/instance.h"
#include "vel/log.h"
#include "vel/mutations.h"

namespace {

// ---- snapshots of a folder ----

using veltest::Tree;

// Kept copies carry a random number: they are compared by their place.
Tree snapshot(const std::string& root) {
  static const std::regex kKept("\\.vel\\.keep\\.[0-9]+(_[0-9]+)?");
  Tree tree;
  for (auto& entry : veltest::snapshot(root)) {
    tree[std::regex_replace(entry.first, kKept, ".vel.keep.*")] = std::move(entry.second);
  }
  return tree;
}

std::string describe(const Tree& tree, const std::string& path) {
  auto it = tree.find(path);
  if (it == tree.end()) {
    return "absent";
  }
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", it->second.mode);
  return std::string(1, it->second.type) + " " + mode + " \"" + it->second.content + "\"";
}

bool same(const Tree& a, const Tree& b, const std::string& path, bool withModes) {
  auto x = a.find(path);
  auto y = b.find(path);
  if (x == a.end() || y == b.end()) {
    return x == a.end() && y == b.end();
  }
  return x->second.type == y->second.type && x->second.content == y->second.content &&
         (!withModes || x->second.mode == y->second.mode);
}

// Every path holds what it held before or what the clean run left there.
::testing::AssertionResult beforeOrAfter(const char* side, const Tree& before, const Tree& after,
                                         const Tree& got, bool withModes) {
  std::set<std::string> paths;
  for (const Tree* tree : {&before, &after, &got}) {
    for (const auto& entry : *tree) {
      paths.insert(entry.first);
    }
  }
  for (const std::string& path : paths) {
    if (!same(got, before, path, withModes) && !same(got, after, path, withModes)) {
      return ::testing::AssertionFailure()
             << side << " " << path << " is " << describe(got, path) << ", neither "
             << describe(before, path) << " (before) nor " << describe(after, path)
             << " (after a clean run)";
    }
  }
  return ::testing::AssertionSuccess();
}

std::multiset<std::string> contents(const Tree& tree) {
  std::multiset<std::string> all;
  for (const auto& entry : tree) {
    if (entry.second.type == 'f') {
      all.insert(entry.second.content);
    }
  }
  return all;
}

// A content held before and kept by a clean run is still held somewhere:
// a path that went back to its old state cannot hide a lost copy.
::testing::AssertionResult nothingLost(const char* side, const Tree& before, const Tree& after,
                                       const Tree& got) {
  const std::multiset<std::string> kept = contents(after);
  const std::multiset<std::string> held = contents(got);
  for (const std::string& content : contents(before)) {
    if (kept.count(content) > 0 && held.count(content) == 0) {
      return ::testing::AssertionFailure() << side << " lost \"" << content << "\"";
    }
  }
  return ::testing::AssertionSuccess();
}

// Every file and link of the mirror is still there with its bytes and mode,
// and every directory is still a directory; new nodes may have come.
::testing::AssertionResult mirrorKept(const Tree& before, const Tree& got) {
  for (const auto& entry : before) {
    const std::string& path = entry.first;
    const bool isDir = entry.second.type == 'd';
    auto it = got.find(path);
    if (it == got.end() || (isDir ? it->second.type != 'd' : !same(got, before, path, true))) {
      return ::testing::AssertionFailure() << "mirror " << path << " is " << describe(got, path)
                                           << ", was " << describe(before, path);
    }
  }
  return ::testing::AssertionSuccess();
}

// ---- the table ----

struct Kind {
  const char* name;
  const char* rule;  // the reply part of the rule
  // The fault may leave the call's outcome as a clean run's (a store that
  // refuses only conditional changes, a record that cannot be written):
  // any status goes, and the mirror and the service are checked all the
  // same.
  bool anyStatus = false;
};

// The command time-out of the matrix, and the stall well past it.
constexpr const char* kTimeOutMs = "500";
const Kind kKinds[] = {
    {"error reply", R"("reply": ["error", "ERR injected"])"},
    {"wrong reply type", R"("reply": ["int", 1])"},
    {"lowercase ok", R"("reply": ["status", "ok"])"},
    {"connection closed", R"("reply": ["close", ""])"},
    {"stall past the time-out", R"("reply": ["status", "OK"], "delay_ms": 2000)"},
    // Behind the agent: the service refuses a conditional change (a 412),
    // answers a download "not modified" (a 304), or the sync record
    // cannot be written.
    {"412 from the service", R"("store": "conflict")", true},
    {"304 from the service", R"("store": "not-modified")", true},
    {"record cannot be written", R"("record": "fail")", true},
};

// The n-th of `count` agent calls, and that call as a clean run makes it
// (its arguments joined by blanks).
struct Call {
  int n;
  int count;
  std::string request;
};

// What a cell must show besides the path-by-path and no-loss checks.
enum class Verdict {
  kFailure,            // a failure status, and every mirror file kept
  kSuccess,            // 0: the contract only logs this call's failure
  kSuccessMirrorKept,  // 0, and every mirror file kept
};

struct Operation {
  const char* name;
  std::function<int32_t()> run;  // the status the caller sees
  // The verdict of each cell; empty: always kFailure.
  std::function<Verdict(const Call&)> verdict;
  const char* why;  // the contract's reason for the cells that report 0
  // A directory rename moves the tree in the mirror before it uploads it:
  // once it has, a failure leaves the files at the destination, not in place.
  bool movesMirrorFirst = false;
};

// fopen of t/a in `mode`, a read or a write, and fclose: fclose's status,
// or -1 when it did not open.
int32_t throughFopen(const char* mode) {
  FILE* f = VEL::fopen("t/a", mode);
  if (f == nullptr) {
    return -1;
  }
  char buffer[64];
  if (mode[0] == 'r') {
    (void)std::fread(buffer, 1, sizeof buffer, f);
  } else {
    std::fputs("written by fopen", f);
    std::fflush(f);  // the upload runs before the stream is closed
  }
  return VEL::fclose(f);
}

// A `Stream` on t/a in its default mode: a write when it can write, else a
// read of a line, and close: 0, or -1 when it did not open or failed.
template <typename Stream>
int32_t throughStream() {
  Stream stream("t/a");
  if (!stream.is_open()) {
    return -1;
  }
  if constexpr (std::is_base_of_v<std::ostream, Stream>) {
    stream << "written by a stream";
  } else {
    std::string text;
    std::getline(stream, text);
  }
  stream.close();
  return stream.fail() ? -1 : 0;
}

// newDir looks the directory up before creating it, only to tell whether it
// was there already, and sets its mode on the service after making it,
// where a service that cannot keep the mode does not undo the directory.
bool lookupBeforeCreating(const Call& call, const std::string& dir) {
  return call.request == "tarn.metadata TestService " + dir;
}
bool modeAfterCreating(const Call& call, const std::string& dir) {
  const std::string start = "tarn.chmod TestService ";
  const std::string end = " " + dir;
  return call.request.compare(0, start.size(), start) == 0 && call.request.size() > end.size() &&
         call.request.compare(call.request.size() - end.size(), end.size(), end) == 0;
}

const Operation kOperations[] = {
    {"update of a tree", [] { return VEL::syncFromServer("t", true); },
     [](const Call& call) { return call.n > 1 ? Verdict::kSuccess : Verdict::kFailure; },
     "after the top node, the tree walk only logs a failure and reports 0"},
    {"commit of a tree", [] { return VEL::syncToServer("t", true); },
     [](const Call& call) {
       return call.n < call.count ? Verdict::kSuccessMirrorKept : Verdict::kFailure;
     },
     "syncToServer reports the last entry's result; the last call sends the last entry"},
    {"fopen for reading", [] { return throughFopen("r"); },
     [](const Call&) { return Verdict::kSuccessMirrorKept; },
     "fopen opens the mirror copy when the pull fails; the failure is only logged"},
    {"fopen for writing", [] { return throughFopen("w"); },
     [](const Call&) { return Verdict::kSuccess; },
     "the parent pull's result is ignored and fclose returns the system fclose's result"},
    {"ifstream", throughStream<VEL::ifstream>, nullptr, ""},
    {"ofstream", throughStream<VEL::ofstream>, [](const Call&) { return Verdict::kSuccess; },
     "the parent pull's result is ignored and a failed upload on close is only logged"},
    {"fstream", throughStream<VEL::fstream>,
     [](const Call& call) { return call.n == call.count ? Verdict::kSuccess : Verdict::kFailure; },
     "once the file is open, a failed upload on close is only logged"},
    {"rename of a file", [] { return VEL::rename("t/a", "t/a2"); },
     [](const Call& call) { return call.n == 1 ? Verdict::kSuccess : Verdict::kFailure; },
     "a failed lookup leaves the path taken for a file, and the file move succeeds"},
    {"rename of a directory", [] { return VEL::rename("t/sub", "t/sub2"); },
     [](const Call& call) {
       return call.n == 1 || lookupBeforeCreating(call, "t/sub2") ||
                      modeAfterCreating(call, "t/sub2")
                  ? Verdict::kSuccess
                  : Verdict::kFailure;
     },
     "a failed first lookup takes the directory for a file (service and mirror move it "
     "whole); the lookup before creating t/sub2 only tells whether it was there, and its "
     "mode on the service does not undo it",
     true},
    {"chmod", [] { return VEL::chmod("t/a", 0600); }, nullptr, ""},
    {"rmdir", [] { return VEL::rmdir("t/empty"); },
     [](const Call&) { return Verdict::kSuccessMirrorKept; },
     "rmdir reports 0 when the service refuses, and keeps the mirror directory"},
    {"unlink", [] { return VEL::unlink("t/a"); }, nullptr, ""},
    {"delTree", [] { return VEL::delTree("t"); }, nullptr, ""},
    {"mkdir_all", [] { return VEL::mkdir_all("t/n1/n2", 0750); },
     [](const Call& call) {
       return lookupBeforeCreating(call, "t/n1/n2") || modeAfterCreating(call, "t/n1/n2")
                  ? Verdict::kSuccess
                  : Verdict::kFailure;
     },
     "the lookup before the creation only tells whether the directory was there, and the "
     "mode on the service does not undo the directory"},
};

// Names the operation in failure messages.
void PrintTo(const Operation& op, std::ostream* out) { *out << op.name; }

// ---- the fixture ----

// One agent for all cells of an operation: the store and the mirror are
// set up again for every cell. The command time-out is short, so that a
// stalled call costs little.
class FaultMatrixBase : public ::testing::Test {
 protected:
  void SetUp() override {
    agent_.reset(new veltest::AgentFixture());
    ASSERT_TRUE(agent_->ready());
    agent_->exportEnv();
    VEL::finish();
    VEL::releaseLogger();
    veltest::ScopedEnv timeOut("TARN_TIME_OUT", kTimeOutMs);
    VEL::init({{"clientType", "Tavora"}});
  }

  void TearDown() override {
    VEL::finish();
    VEL::releaseLogger();
    agent_.reset();
  }

  // The store holds t/a, t/b, t/sub/c and the empty t/empty; the mirror a
  // local edit of t/a and t/sub/c, both as synced from the service (so the
  // agent's record knows them), t/empty and a file never sent, t/local.
  void reset() {
    agent_->forgetRecord();
    // The folders themselves stay: the agent serves them by their paths.
    for (const std::string& root : {agent_->store(), agent_->mirror()}) {
      for (const std::string& name : veltest::namesIn(root)) {
        veltest::removeTree(root + "/" + name);
      }
      veltest::plant(root, {{"t/sub/", "", 0750}, {"t/empty/", ""}});
    }
    veltest::plant(
        agent_->store(),
        {{"t/a", "service a", 0644}, {"t/b", "service b", 0640}, {"t/sub/c", "service c", 0600}});
    veltest::AgentConnection agent(agent_->socketPath());
    for (const char* synced : {"t/a", "t/sub/c"}) {
      ASSERT_EQ("+OK", agent.ask({"tarn.downloadlocal", veltest::kSvc, synced})) << synced;
    }
    veltest::plant(agent_->mirror(),
                   {{"t/a", "local a", 0644}, {"t/local", "only in the mirror", 0644}});
  }

  // The operation once without faults: its agent calls and what it leaves
  // in the mirror and the store.
  std::vector<std::string> cleanRun(const Operation& op, Tree& mirrorAfter, Tree& storeAfter) {
    reset();
    agent_->setRules("");
    agent_->clearJournal();
    const int32_t status = op.run();
    EXPECT_EQ(status, 0) << op.name << " fails without faults";
    mirrorAfter = snapshot(agent_->mirror());
    storeAfter = snapshot(agent_->store());
    return agent_->requests();
  }

  std::unique_ptr<veltest::AgentFixture> agent_;
};

class FaultMatrix : public FaultMatrixBase, public ::testing::WithParamInterface<Operation> {};
using FaultMatrixSize = FaultMatrixBase;

constexpr int kKindCount = static_cast<int>(sizeof kKinds / sizeof kKinds[0]);

// The size of the whole matrix: operations x kinds x calls.
TEST_F(FaultMatrixSize, OperationsKindsAndCalls) {
  int calls = 0;
  for (const Operation& op : kOperations) {
    Tree mirror;
    Tree store;
    const int count = static_cast<int>(cleanRun(op, mirror, store).size());
    EXPECT_GT(count, 0) << op.name;
    calls += count;
  }
  const int operations = static_cast<int>(sizeof kOperations / sizeof kOperations[0]);
  std::printf("fault matrix: %d operations, %d kinds, %d agent calls in all: %d cells\n",
              operations, kKindCount, calls, kKindCount * calls);
}

TEST_P(FaultMatrix, EveryFailedAgentCallKeepsEveryByte) {
  const Operation& op = GetParam();
  reset();
  const Tree mirrorBefore = snapshot(agent_->mirror());
  const Tree storeBefore = snapshot(agent_->store());
  Tree mirrorAfter;
  Tree storeAfter;
  const std::vector<std::string> calls = cleanRun(op, mirrorAfter, storeAfter);
  const int count = static_cast<int>(calls.size());
  ASSERT_GT(count, 0) << op.name << " sends no agent call";
  std::printf("fault matrix, %s: %d kinds x %d agent calls = %d cells\n", op.name, kKindCount,
              count, kKindCount * count);

  for (const Kind& kind : kKinds) {
    for (int n = 1; n <= count; ++n) {
      const Call call{n, count, calls[n - 1]};
      SCOPED_TRACE(std::string(op.name) + ", " + kind.name + " at call " + std::to_string(n) +
                   " of " + std::to_string(count) + " (" + call.request + ")");
      reset();
      agent_->setRules(R"([{"match": [], "skip": )" + std::to_string(n - 1) + R"(, "times": 1, )" +
                       kind.rule + "}]");
      const int32_t status = op.run();
      agent_->setRules("");
      const Verdict verdict = op.verdict ? op.verdict(call) : Verdict::kFailure;
      const Tree mirror = snapshot(agent_->mirror());
      const Tree store = snapshot(agent_->store());
      if (kind.anyStatus) {
        // Failed or not, the mirror keeps every file the operation does
        // not change itself.
        if (status != 0 && !op.movesMirrorFirst) {
          EXPECT_TRUE(mirrorKept(mirrorBefore, mirror));
        }
      } else if (verdict == Verdict::kFailure) {
        EXPECT_NE(status, 0);
      } else {
        EXPECT_EQ(status, 0) << op.why;
      }
      if (!kind.anyStatus && (verdict == Verdict::kSuccessMirrorKept ||
                              (verdict == Verdict::kFailure && !op.movesMirrorFirst))) {
        EXPECT_TRUE(mirrorKept(mirrorBefore, mirror));
      }
      EXPECT_TRUE(beforeOrAfter("mirror", mirrorBefore, mirrorAfter, mirror, true));
      EXPECT_TRUE(beforeOrAfter("service", storeBefore, storeAfter, store, false));
      EXPECT_TRUE(nothingLost("mirror", mirrorBefore, mirrorAfter, mirror));
      EXPECT_TRUE(nothingLost("service", storeBefore, storeAfter, store));
    }
  }
}

std::string nameOf(const ::testing::TestParamInfo<Operation>& info) {
  std::string name;
  for (const char* c = info.param.name; *c != '\0'; ++c) {
    name.push_back(std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_');
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Operations, FaultMatrix, ::testing::ValuesIn(kOperations), nameOf);

// ---- the WebDAV server's failures, under every store operation ----

// What one store operation gives its caller, in words, for comparing runs:
// statuses, sizes, names, bytes and modes (versions differ from run to
// run, the files being planted again).
struct StoreOperation {
  const char* name;
  std::function<std::string(velagent::WebDavStore& store, int source)> run;
};

std::string codeOf(const velagent::Status& status) {
  return std::to_string(static_cast<int>(status.code()));
}

std::string statOf(velagent::WebDavStore& store, const std::string& path) {
  velagent::StoreStat st;
  velagent::Status status = store.stat(path, true, st);
  return codeOf(status) + (status.isOk()
                               ? (st.isDir ? " dir " : " file ") + std::to_string(st.size) + " " +
                                     std::to_string(st.mode)
                               : "");
}

std::string versionOf(velagent::WebDavStore& store, const std::string& path) {
  velagent::StoreStat st;
  store.stat(path, true, st);
  return st.version;
}

class StringSink : public velagent::ByteSink {
 public:
  int write(const char* data, size_t size) override {
    bytes.append(data, size);
    appended(data, size);
    return 0;
  }
  std::string bytes;
};

std::string uploadTo(velagent::WebDavStore& store, int source, const std::string& path,
                     const velagent::Expect& expect) {
  velagent::StoreStat written;
  velagent::ContentHash sent;
  return codeOf(store.upload(source, path, 0604, expect, written, sent)) + " " +
         statOf(store, path);
}

const StoreOperation kStoreOperations[] = {
    {"stat", [](velagent::WebDavStore& s, int) { return statOf(s, "t/a") + statOf(s, "t/no"); }},
    {"list",
     [](velagent::WebDavStore& s, int) {
       std::vector<velagent::StoreEntry> entries;
       std::string out = codeOf(s.list("t", entries));
       std::sort(entries.begin(), entries.end(),
                 [](const velagent::StoreEntry& a, const velagent::StoreEntry& b) {
                   return a.name < b.name;
                 });
       for (const velagent::StoreEntry& entry : entries) {
         out += " " + entry.name;
       }
       return out;
     }},
    {"download",
     [](velagent::WebDavStore& s, int) {
       StringSink sink;
       velagent::StoreStat copied;
       return codeOf(s.download("t/a", sink, copied, "")) + " " + sink.bytes;
     }},
    {"download unless unchanged",
     [](velagent::WebDavStore& s, int) {
       StringSink sink;
       velagent::StoreStat copied;
       return codeOf(s.download("t/a", sink, copied, versionOf(s, "t/a"))) + " " + sink.bytes;
     }},
    {"upload",
     [](velagent::WebDavStore& s, int source) {
       return uploadTo(s, source, "t/new", velagent::Expect::anything());
     }},
    {"upload at the version",
     [](velagent::WebDavStore& s, int source) {
       return uploadTo(s, source, "t/a", velagent::Expect::at(versionOf(s, "t/a")));
     }},
    {"upload of a new name",
     [](velagent::WebDavStore& s, int source) {
       return uploadTo(s, source, "t/fresh", velagent::Expect::absent());
     }},
    {"makeDirs", [](velagent::WebDavStore& s,
                    int) { return codeOf(s.makeDirs("t/x/y/z")) + " " + statOf(s, "t/x/y/z"); }},
    {"createFile",
     [](velagent::WebDavStore& s, int) {
       return codeOf(s.createFile("t/sub/made", 0644)) + " " + statOf(s, "t/sub/made");
     }},
    {"move of a file",
     [](velagent::WebDavStore& s, int) {
       return codeOf(s.move("t/a", "t/moved")) + " " + statOf(s, "t/moved");
     }},
    {"move of a folder",
     [](velagent::WebDavStore& s, int) {
       return codeOf(s.move("t/sub", "t/sub2")) + " " + statOf(s, "t/sub2/c");
     }},
    {"chmod", [](velagent::WebDavStore& s,
                 int) { return codeOf(s.chmod("t/b", 0600)) + " " + statOf(s, "t/b"); }},
    {"remove at the version",
     [](velagent::WebDavStore& s, int) {
       return codeOf(s.remove("t/b", false, velagent::Expect::at(versionOf(s, "t/b")))) + " " +
              statOf(s, "t/b");
     }},
    {"remove of an empty folder",
     [](velagent::WebDavStore& s, int) {
       return codeOf(s.remove("t/empty", false, velagent::Expect::anything())) + " " +
              statOf(s, "t/empty");
     }},
    {"remove of a tree",
     [](velagent::WebDavStore& s, int) {
       return codeOf(s.remove("t", true, velagent::Expect::anything())) + " " + statOf(s, "t");
     }},
};

void PrintTo(const StoreOperation& op, std::ostream* out) { *out << op.name; }

// The server's own folder of properties (Apache's .DAV) is no file of the
// service.
Tree serviceSnapshot(const std::string& root) {
  Tree tree = snapshot(root);
  for (auto it = tree.begin(); it != tree.end();) {
    it = it->first.find(".DAV") != std::string::npos ? tree.erase(it) : std::next(it);
  }
  return tree;
}

// A store of its own for every run, with nothing remembered between
// questions, talks to Apache through a proxy that injects the faults.
class WebDavFaults : public ::testing::TestWithParam<StoreOperation> {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  static void TearDownTestSuite() { curl_global_cleanup(); }

  void SetUp() override {
    std::string why;
    if (!veltest::WebDavServer::available(why)) {
      GTEST_SKIP() << "no WebDAV server here: " << why;
    }
    server_.reset(new veltest::WebDavServer(dir_.sub("store"), dir_.sub("httpd")));
    ASSERT_TRUE(server_->ready()) << server_->error();
    const std::string url = server_->url();
    proxy_.reset(new veltest::CountingFaultProxy(std::atoi(url.c_str() + url.rfind(':') + 1)));
    ASSERT_TRUE(proxy_->ready());
    veltest::writeFile(dir_.sub("source"), "sent by the store");
  }

  // The planted tree, the operation on a fresh store, and what it gave.
  std::string run(const StoreOperation& op) {
    const std::string root = dir_.sub("store");
    for (const std::string& name : veltest::namesIn(root)) {
      veltest::removeTree(root + "/" + name);
    }
    veltest::plant(
        root,
        {{"t/a", "service a"}, {"t/b", "service b"}, {"t/sub/c", "service c"}, {"t/empty/", ""}});
    server_->adopt();
    velagent::WebDavOptions options;
    options.url = "http://127.0.0.1:" + std::to_string(proxy_->port()) + "/dav/";
    options.cacheWindow = std::chrono::milliseconds(0);
    velagent::WebDavStore store(options);
    velagent::UniqueFd source(::open(dir_.sub("source").c_str(), O_RDONLY | O_CLOEXEC));
    return op.run(store, source.get());
  }

  veltest::TempDir dir_;
  std::unique_ptr<veltest::WebDavServer> server_;
  std::unique_ptr<veltest::CountingFaultProxy> proxy_;
};

TEST_P(WebDavFaults, ADroppedConnectionAndABusyServerChangeNothing) {
  const StoreOperation& op = GetParam();
  using Fault = veltest::CountingFaultProxy::Fault;
  proxy_->arm(Fault::kNone, 0);
  const std::string clean = run(op);
  const int count = proxy_->requests();
  const Tree after = serviceSnapshot(dir_.sub("store"));
  ASSERT_GT(count, 0);
  const std::pair<Fault, const char*> faults[] = {
      {Fault::kDropConnection, "a dropped kept-alive connection"}, {Fault::kBusy, "a 503 answer"}};
  for (const auto& fault : faults) {
    int struck = 0;
    for (int n = 1; n <= count; ++n) {
      SCOPED_TRACE(std::string(op.name) + ", " + fault.second + " at HTTP request " +
                   std::to_string(n) + " of " + std::to_string(count));
      proxy_->arm(fault.first, n);
      EXPECT_EQ(run(op), clean);
      struck += proxy_->struck() ? 1 : 0;
      EXPECT_TRUE(
          beforeOrAfter("service", after, after, serviceSnapshot(dir_.sub("store")), false));
    }
    // A 503 can strike every request; a drop those on a connection that
    // served one before.
    EXPECT_GE(struck, fault.first == Fault::kBusy ? count : count - 1) << fault.second;
  }
}

std::string storeOperationName(const ::testing::TestParamInfo<StoreOperation>& info) {
  std::string name;
  for (const char* c = info.param.name; *c != '\0'; ++c) {
    name.push_back(std::isalnum(static_cast<unsigned char>(*c)) ? *c : '_');
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(StoreOperations, WebDavFaults, ::testing::ValuesIn(kStoreOperations),
                         storeOperationName);

}  // namespace
