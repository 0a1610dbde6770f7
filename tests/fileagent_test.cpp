// The reference file agent through connections of its own: concurrent
// clients, malformed input, refused paths, shutdown and its options. Its
// commands, journal and reply rules are exercised by the agent-connection and
// remote tests that rely on them.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_fixture.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace {

using namespace veltest;
using Args = std::vector<std::string>;

// Sends raw bytes on a fresh connection: everything the agent sends back
// until it closes the connection, and "<still open>" when it has not
// closed it after `waitMs`.
std::string rawExchange(const std::string& socket, const std::string& bytes, int waitMs = 5000) {
  AgentConnection c(socket);
  bool closed = false;
  std::string out = c.sendRaw(bytes) ? c.rawUntilClosed(waitMs, closed) : "";
  return out + (closed ? "" : "<still open>");
}

TEST(FileAgent, ServesConcurrentClientsAndADelayDoesNotBlockOthers) {
  AgentFixture agent(R"([{"match": ["tarn.metadata", "TestService", "slow"],
                          "reply": ["bulk", "late"], "delay_ms": 4000}])");
  ASSERT_TRUE(agent.ready());
  AgentConnection slow(agent.socketPath());
  ASSERT_TRUE(slow.send({"tarn.metadata", kSvc, "slow"}));
  constexpr int kThreads = 8;
  constexpr int kRounds = 25;
  std::atomic<int> good{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      AgentConnection c(agent.socketPath());
      for (int i = 0; i < kRounds; ++i) {
        std::string dir = "t" + std::to_string(t) + "/n" + std::to_string(i);
        good += c.ask({"tarn.createinfo", kSvc, dir, "dir"}) == "+OK" &&
                c.ask({"tarn.metadata", kSvc, dir}).find("\"Kind\":\"dir\"") != std::string::npos;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ("", slow.reply(0)) << "the other clients waited for the delayed one";
  EXPECT_EQ("$late", slow.reply());
  EXPECT_EQ(kThreads * kRounds, good.load());
  EXPECT_EQ(1u + 2u * kThreads * kRounds, agent.journal().size());
}

// Broken input gets an error and bad paths a refusal; neither stops the
// agent, and nothing outside the store changes.
TEST(FileAgent, MalformedInputAndPathsLeavingTheStoreAreRefusedWithoutStoppingTheAgent) {
  AgentFixture agent;
  ASSERT_TRUE(agent.ready());
  const std::string sock = agent.socketPath();
  for (const char* bytes : {
           "PING\r\n",                 // inline command
           "\x01\x02garbage\xff\r\n",  // no RESP at all
           "*99999999999\r\n",         // absurd element count
           "*1\r\n$abc\r\n",           // bad bulk length
           "*1\r\n*1\r\n$1\r\nx\r\n",  // nested array
           "*0\r\n",                   // empty request
       }) {
    std::string answer = rawExchange(sock, bytes);
    EXPECT_EQ("-", answer.substr(0, 1)) << "input " << bytes << " answered " << answer;
  }
  EXPECT_EQ("<still open>", rawExchange(sock, "*2\r\n$4\r\ntarn", 300));  // waits for the rest

  writeFile(agent.root() + "/outside", "keep");
  makeDirs(agent.store() + "/in");
  AgentConnection c(sock);
  const std::vector<Args> attempts = {
      {"tarn.metadata", kSvc, "../outside"},
      {"tarn.dir", kSvc, "..", "false"},
      {"tarn.downloadlocal", kSvc, "in/../../outside"},
      {"tarn.uploadlocal", kSvc, "../outside"},
      {"tarn.remove", kSvc, "../outside", "true"},
      {"tarn.move", kSvc, "../outside", "in/stolen"},
      {"tarn.chmod", kSvc, "0", "../outside"},
      {"tarn.createinfo", kSvc, "../made", "dir"},
  };
  for (const Args& args : attempts) {
    const std::string answer = c.ask(args);
    EXPECT_EQ("-ERR path refused: '", answer.substr(0, 20)) << args[0] << " " << args[2];
  }
  EXPECT_EQ("keep", readFile(agent.root() + "/outside"));
  EXPECT_FALSE(pathExists(agent.root() + "/made"));
  EXPECT_EQ("+OK", c.ask({"tarn.createinfo", kSvc, "alive", "dir"}));  // still served
}

// The rules that fault tests build on: the n-th matching request alone
// (skip + times), raw reply bytes, and a reply sent one byte at a time.
TEST(FileAgent, RulesPickTheNthRequestAndShapeRawOrTricklingReplies) {
  AgentFixture agent(R"([{"match": ["tarn.metadata"], "skip": 1, "times": 2,
                          "reply": ["error", "ERR injected"]},
                         {"match": ["tarn.dir"], "reply": ["raw", ":7\r\n"]},
                         {"match": ["tarn.chmod"], "reply": ["status", "OK"],
                          "trickle_ms": 150}])");
  ASSERT_TRUE(agent.ready());
  makeDirs(agent.store() + "/d");
  AgentConnection c(agent.socketPath());
  std::vector<std::string> answers;
  for (int i = 0; i < 4; ++i) {
    answers.push_back(c.ask({"tarn.metadata", kSvc, "missing"}));
  }
  EXPECT_EQ((std::vector<std::string>{"$file not found", "-ERR injected", "-ERR injected",
                                      "$file not found"}),
            answers);
  EXPECT_EQ(":7\r\n", rawExchange(agent.socketPath(),
                                  "*4\r\n$8\r\ntarn.dir\r\n$11\r\nTestService\r\n"
                                  "$1\r\nd\r\n$5\r\nfalse\r\n",
                                  1000)
                          .substr(0, 4));
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ("+OK", c.ask({"tarn.chmod", kSvc, "420", "d"}));
  // "+OK\r\n" is five bytes, each after its own pause.
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(700));
}

// A number beyond its range makes the whole rules file invalid: it is
// ignored with a message, and requests are served as if there were none.
TEST(FileAgent, RulesWithANumberBeyondItsRangeAreIgnored) {
  AgentOptions options;
  options.rules = R"([{"match": ["tarn.metadata"], "reply": ["int", 15532559284365935304]}])";
  options.captureLog = true;
  AgentFixture agent(options);
  ASSERT_TRUE(agent.ready());
  EXPECT_EQ("$file not found",
            AgentConnection(agent.socketPath()).ask({"tarn.metadata", kSvc, "missing"}));
  agent.setRules(
      R"([{"match": ["tarn.metadata"], "skip": 18446744073709551615, "reply": ["int", 1]}])");
  EXPECT_EQ("$file not found",
            AgentConnection(agent.socketPath()).ask({"tarn.metadata", kSvc, "missing"}));
  EXPECT_NE(std::string::npos, agent.agentLog().find("ignoring rules file"));
}

TEST(FileAgent, StopSignalsEndItCleanlyAndRemoveTheSocket) {
  // A client waiting on a long delay does not hold up the stop.
  AgentFixture agent(R"([{"match": ["tarn.dir"], "delay_ms": 60000}])");
  ASSERT_TRUE(agent.ready());
  std::thread waiting([&] {
    EXPECT_EQ("", AgentConnection(agent.socketPath()).ask({"tarn.dir", kSvc, "", "false"}));
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  auto start = std::chrono::steady_clock::now();
  agent.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  waiting.join();
  EXPECT_EQ(0, agent.exitStatus());
  EXPECT_FALSE(pathExists(agent.socketPath()));
}

// The options "--name" of a text: in --help as they are, in the manual page
// with its escaped dashes.
std::set<std::string> optionsIn(const std::string& text, const std::string& dash) {
  std::set<std::string> options;
  const std::string mark = dash + dash;
  for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
    std::string name;
    size_t end = at + mark.size();
    while (end < text.size()) {
      if (text.compare(end, dash.size(), dash) == 0 && !name.empty()) {
        name += '-';
        end += dash.size();
      } else if (std::islower(static_cast<unsigned char>(text[end])) ||
                 std::isdigit(static_cast<unsigned char>(text[end]))) {
        name += text[end++];
      } else {
        break;
      }
    }
    if (!name.empty()) {
      options.insert("--" + name);
    }
  }
  return options;
}

TEST(FileAgent, HelpListsTheOptionsAndTheCapsAndTheManualPageEachOption) {
  ProcessResult help = runProcess({VEL_AGENT_BIN, "--help"});
  EXPECT_EQ(0, help.status);
  for (const char* option : {"--store",
                             "--mirror",
                             "--socket",
                             "--journal",
                             "--rules",
                             "--threads",
                             "--max-clients",
                             "--request-timeout-ms",
                             "--max-request-args",
                             "--max-request-bytes",
                             "--max-reply-bytes",
                             "--no-openat2",
                             "UDS_ROOT_OSSUSER",
                             "TARN_ROOT_DIR",
                             "delay_ms",
                             "trickle_ms",
                             "skip",
                             "times",
                             "\"raw\"",
                             "default 1024",
                             "default 67108864",
                             "256 handles",
                             "default 4",
                             "default 10000",
                             "max number of clients reached",
                             "request not complete within"}) {
    EXPECT_NE(std::string::npos, help.out.find(option)) << option;
  }
  const std::string here = __FILE__;
  const std::string manual =
      readFile(here.substr(0, here.rfind("/tests/")) + "/man/velfileagent.1");
  const std::set<std::string> inHelp = optionsIn(help.out, "-");
  EXPECT_GE(inHelp.size(), 16u);
  const std::set<std::string> inManual = optionsIn(manual, "\\-");
  for (const std::string& option : inHelp) {
    EXPECT_EQ(1u, inManual.count(option)) << option << " is not in man/velfileagent.1";
  }
}

TEST(FileAgent, LimitsOutOfTheirRangeAreRefused) {
  TempDir dir;
  makeDirs(dir.sub("store"));
  for (const Args& limit : {Args{"--threads", "0"}, Args{"--threads", "257"},
                            Args{"--max-clients", "0"}, Args{"--max-clients", "1000001"},
                            Args{"--request-timeout-ms", "9"}, Args{"--request-timeout-ms", "x"}}) {
    ProcessResult run =
        runProcess({"/bin/sh", "-c",
                    std::string(VEL_AGENT_BIN) + " --store " + dir.sub("store") + " --mirror " +
                        dir.sub("mirror") + " --socket " + dir.sub("s.sock") + " " + limit[0] +
                        " " + limit[1] + " 2>&1"});
    EXPECT_EQ(2, run.status) << limit[0] << " " << limit[1];
    EXPECT_NE(std::string::npos, run.out.find("option " + limit[0] + " needs a number from"))
        << run.out;
  }
}

// The limit on connections is lowered to what the limit on open files
// leaves, and the log says so.
TEST(FileAgent, TheConnectionLimitFitsTheLimitOnOpenFiles) {
  TempDir dir;
  makeDirs(dir.sub("store"));
  ProcessResult run = runProcess({"/bin/sh", "-c",
                                  "ulimit -n 300 && exec timeout --preserve-status -s TERM 1 " +
                                      std::string(VEL_AGENT_BIN) + " --store " + dir.sub("store") +
                                      " --mirror " + dir.sub("mirror") + " --socket " +
                                      dir.sub("s.sock") + " --max-clients 5000 2>&1"});
  EXPECT_EQ(0, run.status) << run.out;
  EXPECT_NE(std::string::npos,
            run.out.find("velfileagent: max clients lowered from 5000 to 236: the limit on open "
                         "files is 300\n"))
      << run.out;
  EXPECT_NE(std::string::npos, run.out.find(", 236 clients, ")) << run.out;
}

TEST(FileAgent, LogsOneLineEachForStartStopAndEveryRefusedRequest) {
  AgentOptions options;
  options.captureLog = true;
  AgentFixture agent(options);
  ASSERT_TRUE(agent.ready());
  AgentConnection c(agent.socketPath());
  EXPECT_EQ("-ERR path refused: '../x y'", c.ask({"tarn.metadata", kSvc, "../x\ny"}));
  EXPECT_EQ("-ERR unknown service 'Other'", c.ask({"tarn.metadata", "Other", "a"}));
  EXPECT_EQ("$file not found", c.ask({"tarn.metadata", kSvc, "a"}));  // not refused
  const std::string started = "velfileagent: started, pid " + std::to_string(agent.pid()) + ",";
  agent.stop();
  std::vector<std::string> lines;
  std::string log = agent.agentLog();
  for (size_t start = 0, end; (end = log.find('\n', start)) != std::string::npos; start = end + 1) {
    lines.push_back(log.substr(start, end - start));
  }
  // A new sync record is made, and said so, before the start line.
  ASSERT_EQ(5u, lines.size()) << log;
  const std::string made = "velfileagent: sync record " + agent.stateDir() + "/sync-";
  EXPECT_EQ(made, lines[0].substr(0, made.size()));
  EXPECT_EQ(".db created", lines[0].substr(lines[0].size() - 11));
  EXPECT_EQ(started, lines[1].substr(0, started.size()));
  EXPECT_NE(std::string::npos, lines[1].find("store " + agent.store())) << lines[1];
  EXPECT_NE(std::string::npos,
            lines[2].find("refused 'tarn.metadata' 'TestService' '../x\\x0ay' from pid " +
                          std::to_string(::getpid()) + ": ERR path refused"))
      << lines[2];
  EXPECT_NE(std::string::npos, lines[3].find("ERR unknown service 'Other'")) << lines[3];
  EXPECT_EQ("velfileagent: stopped on SIGTERM", lines[4]);
}

TEST(FileAgent, RefusesToStartWhenTheStoreAndTheMirrorOverlap) {
  TempDir dir;
  makeDirs(dir.sub("store/inner"));
  makeDirs(dir.sub("mirror"));
  makeDirs(dir.sub("store2"));
  ASSERT_EQ(0, ::symlink(dir.sub("store").c_str(), dir.sub("alias").c_str()));
  auto start = [&](const std::string& store, const std::string& mirror,
                   const std::string& state = "") {
    return runProcess({"/bin/sh", "-c",
                       "exec timeout --preserve-status -s TERM 1 '" + std::string(VEL_AGENT_BIN) +
                           "' --store '" + store + "' --mirror '" + mirror + "' --socket '" +
                           dir.sub("a.sock") + "' --state '" +
                           (state.empty() ? dir.sub("state") : state) + "' 2>&1"});
  };
  // The sync record never lives where a commit or a listing would take it
  // to the service.
  for (const std::string& state :
       {dir.sub("mirror/.state"), dir.sub("store2/state"), dir.sub("mirror")}) {
    ProcessResult result = start(dir.sub("store2"), dir.sub("mirror"), state);
    EXPECT_EQ(2, result.status) << state << ": " << result.out;
    EXPECT_NE(std::string::npos, result.out.find("give a folder outside the mirror and the store"))
        << result.out;
    EXPECT_FALSE(pathExists(dir.sub("mirror/.state")));
  }
  const std::vector<std::pair<std::string, std::string>> overlapping = {
      {dir.sub("store"), dir.sub("store/")},          // the same folder
      {dir.sub("store"), dir.sub("alias")},           // the same through a link
      {dir.sub("store"), dir.sub("store/inner")},     // the mirror inside the store
      {dir.sub("store"), dir.sub("alias/new/m")},     // not made yet, but inside
      {dir.sub("store/inner"), dir.sub("store")},     // the store inside the mirror
      {dir.sub("store/inner"), dir.sub("alias/./")},  // the same through a link
  };
  for (const auto& folders : overlapping) {
    ProcessResult result = start(folders.first, folders.second);
    EXPECT_EQ(2, result.status) << folders.first << " " << folders.second;
    EXPECT_NE(std::string::npos, result.out.find("give two separate folders")) << result.out;
    EXPECT_FALSE(pathExists(dir.sub("a.sock")));
  }
  // Names that only share a prefix are separate folders.
  ProcessResult apart = start(dir.sub("store"), dir.sub("store2"));
  EXPECT_EQ(0, apart.status) << apart.out;
  EXPECT_NE(std::string::npos, apart.out.find("ready")) << apart.out;
}

// The unit file with its example environment file starts the agent the way
// systemd would: store, mirror and socket folder from the environment file.
TEST(FileAgent, TheServiceUnitStartsTheAgentFromItsEnvironmentFile) {
  const std::string here = __FILE__;
  const std::string tools = here.substr(0, here.rfind("/tests/")) + "/tools/fileagent/";
  const std::string unit = readFile(tools + "velfileagent.service");
  const std::string example = readFile(tools + "velfileagent.env");
  for (const char* setting : {"\nEnvironmentFile=/etc/velfileagent/velfileagent.env\n",
                              "\nRestart=on-failure\n", "\nRestartPreventExitStatus=2\n"}) {
    EXPECT_NE(std::string::npos, unit.find(setting)) << setting;
  }
  size_t exec = unit.find("\nExecStart=/usr/bin/velfileagent ");
  ASSERT_NE(std::string::npos, exec);
  std::string command = unit.substr(exec + 11, unit.find('\n', exec + 1) - exec - 11);
  command.replace(0, command.find(' '), VEL_AGENT_BIN);

  // The example's variables, pointed at a temporary folder.
  TempDir dir;
  makeDirs(dir.sub("store"));
  std::map<std::string, std::string> values = {
      {"VELFILEAGENT_STORE", dir.sub("store")},
      {"VELFILEAGENT_MIRROR", dir.sub("mirror")},
      {"UDS_ROOT_OSSUSER", dir.sub("uds")},
      {"VELFILEAGENT_OPTIONS", "--journal " + dir.sub("journal.jsonl")}};
  for (const auto& value : values) {
    EXPECT_NE(std::string::npos, example.find("\n" + value.first + "=")) << value.first;
    for (const std::string& form : {"${" + value.first + "}", "$" + value.first}) {
      for (size_t at; (at = command.find(form)) != std::string::npos;) {
        command.replace(at, form.size(), value.second);
      }
    }
  }
  EXPECT_EQ(std::string::npos, command.find('$')) << command;
  ProcessResult run =
      runProcess({"/bin/sh", "-c", "exec timeout --preserve-status -s TERM 1 " + command + " 2>&1"},
                 {{"UDS_ROOT_OSSUSER", dir.sub("uds")}});
  EXPECT_EQ(0, run.status) << run.out;
  EXPECT_NE(std::string::npos, run.out.find("ready\n")) << run.out;
  EXPECT_NE(std::string::npos,
            run.out.find("socket " + dir.sub("uds") + "/velfileagent/velfileagent.sock"))
      << run.out;
  EXPECT_TRUE(pathExists(dir.sub("journal.jsonl")));
}

// The value of `key=` in a unit or environment file ("" when absent).
std::string settingOf(const std::string& text, const std::string& key) {
  const size_t at = text.find("\n" + key + "=");
  if (at == std::string::npos) {
    return "";
  }
  const size_t from = at + key.size() + 2;
  return text.substr(from, text.find('\n', from) - from);
}

// The unit, its user, the package's script and the environment file agree:
// the agent runs as the user the package makes, its socket lies in the
// folder the unit makes for it, and the folders of the environment file are
// the ones the sandbox lets it write and the package makes.
TEST(FileAgent, TheServiceRunsAsItsOwnUserWithItsSocketFolderAndItsFoldersWritable) {
  const std::string here = __FILE__;
  const std::string top = here.substr(0, here.rfind("/tests/"));
  const std::string unit = readFile(top + "/tools/fileagent/velfileagent.service");
  const std::string env = readFile(top + "/tools/fileagent/velfileagent.env");
  const std::string sysusers = readFile(top + "/tools/fileagent/velfileagent.sysusers");
  const std::string postinst = readFile(top + "/cmake/debian/vel-tools/postinst");

  EXPECT_EQ("velfileagent", settingOf(unit, "User"));
  EXPECT_EQ("velfileagent", settingOf(unit, "Group"));
  EXPECT_NE(std::string::npos, sysusers.find("\nu velfileagent - ")) << sysusers;
  EXPECT_NE(std::string::npos, postinst.find("systemd-sysusers")) << postinst;
  EXPECT_EQ("", settingOf(unit, "CapabilityBoundingSet"));
  EXPECT_NE(std::string::npos, unit.find("\nCapabilityBoundingSet=\n"));
  EXPECT_EQ("strict", settingOf(unit, "ProtectSystem"));
  EXPECT_EQ("velfileagent", settingOf(unit, "StateDirectory"));

  // The socket: $UDS_ROOT_OSSUSER/velfileagent/velfileagent.sock, in the
  // runtime folder, which the group may enter.
  const std::string socketFolder = settingOf(env, "UDS_ROOT_OSSUSER") + "/velfileagent";
  EXPECT_EQ("/run/" + settingOf(unit, "RuntimeDirectory"), socketFolder);
  EXPECT_EQ("0770", settingOf(unit, "RuntimeDirectoryMode"));
  EXPECT_EQ("0007", settingOf(unit, "UMask"));

  // The store and the mirror lie below a writable path, and the package
  // makes them.
  std::vector<std::string> writable;
  const std::string paths = settingOf(unit, "ReadWritePaths");
  for (size_t start = 0; start < paths.size();) {
    size_t end = paths.find(' ', start);
    end = end == std::string::npos ? paths.size() : end;
    std::string path = paths.substr(start, end - start);
    writable.push_back(path[0] == '-' ? path.substr(1) : path);
    start = end + 1;
  }
  for (const char* key : {"VELFILEAGENT_STORE", "VELFILEAGENT_MIRROR"}) {
    const std::string folder = settingOf(env, key);
    ASSERT_FALSE(folder.empty()) << key;
    EXPECT_TRUE(std::any_of(writable.begin(), writable.end(),
                            [&](const std::string& path) {
                              return folder == path || folder.rfind(path + "/", 0) == 0;
                            }))
        << key << "=" << folder << " is not below ReadWritePaths=" << paths;
    EXPECT_NE(std::string::npos, postinst.find("mkdir -p " + folder)) << folder;
  }
}

}  // namespace
