// The file agent under load: a large copy does not hold up other clients,
// requests and replies above the caps are refused with the agent's memory
// bounded (read from /proc), and handles go with their connection.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace veltest;
using Clock = std::chrono::steady_clock;

constexpr long long kMiB = 1024;  // in the KiB of /proc

#if defined(__SANITIZE_ADDRESS__)
// The sanitizer keeps freed memory in quarantine and adds its shadow.
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#if defined(__SANITIZE_THREAD__)
// ThreadSanitizer's shadow costs several times every byte the agent touches:
// its memory figures then say nothing about the agent's own, and only the
// answers are checked.
constexpr bool kMemoryMeasured = false;
#else
constexpr bool kMemoryMeasured = true;
#endif

// A field of /proc/<pid>/status in KiB ("VmRSS", "VmHWM"), or -1.
long long statusKiB(pid_t pid, const std::string& field) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, field.size() + 1, field + ":") == 0) {
      return std::atoll(line.c_str() + field.size() + 1);
    }
  }
  return -1;
}

size_t openDescriptors(pid_t pid) { return namesIn("/proc/" + std::to_string(pid) + "/fd").size(); }

// Runs `client` on `count` threads at once.
template <typename F>
void onThreads(int count, F client) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back(client, i);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(AgentLoad, ASmallStatIsAnsweredWithinItsTimeOutWhileALargeCopyRuns) {
  AgentFixture agent(quiet());
  ASSERT_TRUE(agent.ready());
  writeFile(agent.store() + "/big", "");
  ASSERT_EQ(0, ::truncate((agent.store() + "/big").c_str(), 384LL << 20));
  writeFile(agent.store() + "/small", "s");

  std::atomic<bool> copied{false};
  std::thread copy([&] {
    AgentConnection c(agent.socketPath());
    EXPECT_EQ("+OK", c.ask({"tarn.downloadlocal", kSvc, "big"}, 60000));
    copied = true;
  });
  // Wait for the copy to have begun writing into the mirror.
  bool writing = false;
  for (auto until = Clock::now() + std::chrono::seconds(10); !writing && Clock::now() < until;) {
    for (const std::string& name : namesIn(agent.mirror())) {
      struct stat st;
      std::string path = agent.mirror() + "/" + name;
      writing |= ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
    }
  }
  ASSERT_TRUE(writing);
  AgentConnection c(agent.socketPath());
  auto asked = Clock::now();
  const std::string meta = c.ask({"tarn.metadata", kSvc, "small"}, 500);
  auto took = Clock::now() - asked;
  bool copyStillRunning = !copied;
  copy.join();
  EXPECT_NE(std::string::npos, meta.find("\"Size\":1")) << meta;
  EXPECT_LT(took, std::chrono::milliseconds(500));
  EXPECT_TRUE(copyStillRunning) << "the stat was answered only after the copy";
}

TEST(AgentLoad, RequestsAboveTheCapsAreRefusedWithBoundedMemory) {
  AgentFixture agent(quiet());
  ASSERT_TRUE(agent.ready());
  const pid_t pid = agent.pid();
  const long long baseRss = statusKiB(pid, "VmRSS");

  // Eight clients at once send `head` and then `body` `rounds` times:
  // every one gets `refusal`.
  const auto flood = [&](const std::string& head, const std::string& body, int rounds,
                         int timeoutMs, const std::string& refusal) {
    std::vector<std::string> answers(8);
    onThreads(8, [&](int i) {
      AgentConnection c(agent.socketPath());
      bool sending = c.sendRaw(head);
      for (int round = 0; sending && round < rounds; ++round) sending = c.sendRaw(body);
      answers[i] = c.reply(timeoutMs);
    });
    EXPECT_EQ(std::vector<std::string>(8, refusal), answers);
  };

  // 8 multibulks announcing a million elements each, and sending them.
  std::string tiny;
  for (int i = 0; i < 100000; ++i) {
    tiny += "$1\r\nx\r\n";
  }
  flood("*1000000\r\n", tiny, 10, 5000, "-ERR Protocol error: too many arguments");
  const long long countHwm = statusKiB(pid, "VmHWM");
  std::printf("agent RSS %lld KiB; peak after 8 million-element requests %lld KiB\n", baseRss,
              countHwm);
  if (kMemoryMeasured) {
    EXPECT_LT(countHwm - baseRss, (kSanitized ? 96 : 32) * kMiB);
  }

  // 8 requests of 1 MiB arguments, each going past 64 MiB in all: every
  // one is refused at the argument that crosses the cap.
  const std::string mib(1 << 20, 'm');
  flood("*1000\r\n$10\r\ntarn.write\r\n", "$" + std::to_string(mib.size()) + "\r\n" + mib + "\r\n",
        160, 10000, "-ERR Protocol error: request too large");
  const long long bytesHwm = statusKiB(pid, "VmHWM");
  std::printf("peak after 8 requests past 64 MiB %lld KiB\n", bytesHwm);
  if (kMemoryMeasured) {
    EXPECT_LT(bytesHwm - baseRss, (8 * 64 + (kSanitized ? 192 : 32)) * kMiB);
  }
  // Freed memory goes back to the system once the requests are gone. On a
  // loaded machine, and under an emulator, the agent may still be closing the
  // refused connections for a few seconds after the clients had their answers.
  if (!kSanitized && kMemoryMeasured) {
    for (auto until = Clock::now() + std::chrono::seconds(30);
         statusKiB(pid, "VmRSS") - baseRss > 32 * kMiB && Clock::now() < until;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    EXPECT_LT(statusKiB(pid, "VmRSS") - baseRss, 32 * kMiB);
    std::printf("RSS afterwards %lld KiB\n", statusKiB(pid, "VmRSS"));
  }
  AgentConnection after(agent.socketPath());
  EXPECT_EQ("$file not found", after.ask({"tarn.metadata", kSvc, "nothing"}));
  EXPECT_NE(std::string::npos, agent.agentLog().find("Protocol error: request too large"));
}

TEST(AgentLoad, ClientsThatDoNotReadLargeRepliesHoldLittleMemory) {
  AgentFixture agent(quiet());
  ASSERT_TRUE(agent.ready());
  writeFile(agent.store() + "/big", "");
  ASSERT_EQ(0, ::truncate((agent.store() + "/big").c_str(), 64LL << 20));
  const pid_t pid = agent.pid();
  const long long baseRss = statusKiB(pid, "VmRSS");
  std::vector<std::unique_ptr<AgentConnection>> idle;
  for (int i = 0; i < 8; ++i) {
    idle.emplace_back(new AgentConnection(agent.socketPath()));
    const std::string handle = idle.back()->ask({"tarn.create", kSvc, "big", "r"});
    ASSERT_EQ("$fh", handle.substr(0, 3));
    for (int request = 0; request < 4; ++request) {
      ASSERT_TRUE(idle.back()->send({"tarn.read", handle.substr(1), "0", "67108864", kSvc}));
    }
  }
  long long peak = 0;
  for (int sample = 0; sample < 20; ++sample) {
    peak = std::max(peak, statusKiB(pid, "VmRSS"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (kMemoryMeasured) {
    EXPECT_LT(peak - baseRss, (kSanitized ? 64 : 32) * kMiB);
  }
  std::printf("agent RSS %lld KiB; with 8 clients not reading 4 x 64 MiB %lld KiB\n", baseRss,
              peak);
  AgentConnection other(agent.socketPath());
  EXPECT_EQ("$file not found", other.ask({"tarn.metadata", kSvc, "nothing"}, 2000));
  // A reader that takes its time still gets every byte.
  const std::string first = idle[0]->reply(20000);
  EXPECT_EQ(static_cast<size_t>(1 + (64 << 20)), first.size());
  EXPECT_EQ(std::string::npos, first.find_first_not_of('\0', 1));
}

TEST(AgentLoad, AReplyAboveTheCapIsRefusedAndAStreamedReadIsNot) {
  AgentFixture agent(quiet({"--max-reply-bytes", "4096"}));
  ASSERT_TRUE(agent.ready());
  makeDirs(agent.store() + "/many");
  for (int i = 0; i < 300; ++i) {
    writeFile(agent.store() + "/many/file-with-a-longer-name-" + std::to_string(i), "");
  }
  std::string data;
  for (int i = 0; data.size() < (3u << 20); ++i) {
    data += std::to_string(i) + ",";
  }
  writeFile(agent.store() + "/data", data);

  AgentConnection listing(agent.socketPath());
  EXPECT_EQ("-ERR reply too large", listing.ask({"tarn.dir", kSvc, "many", "false"}));
  EXPECT_TRUE(listing.closedByPeer(5000));

  AgentConnection reader(agent.socketPath());
  EXPECT_EQ("*\ndata\nmany/", reader.ask({"tarn.dir", kSvc, "", "false"}));
  const std::string handle = reader.ask({"tarn.create", kSvc, "data", "r"}).substr(1);
  // Above the cap, but sent from the file piece by piece.
  EXPECT_EQ("$" + data.substr(12345, 2 << 20),
            reader.ask({"tarn.read", handle, "12345", std::to_string(2 << 20), kSvc}));
  EXPECT_EQ("$" + data.substr(7, 5000), reader.ask({"tarn.read", handle, "7", "5000", kSvc}));
  EXPECT_EQ("$" + data.substr(data.size() - 100),
            reader.ask({"tarn.read", handle, std::to_string(data.size() - 100),
                        std::to_string(2 << 20), kSvc}));
  EXPECT_NE(std::string::npos, agent.agentLog().find("above the cap of 4096"));
}

TEST(AgentLoad, HandlesBelongToTheirConnectionAndCloseWithIt) {
  AgentFixture agent(quiet());
  ASSERT_TRUE(agent.ready());
  const pid_t pid = agent.pid();
  const size_t baseFds = openDescriptors(pid);
  std::string foreign;
  {
    std::vector<std::unique_ptr<AgentConnection>> clients;
    for (int client = 0; client < 3; ++client) {
      clients.emplace_back(new AgentConnection(agent.socketPath()));
      for (int i = 0; i < 256; ++i) {
        const std::string name = "c" + std::to_string(client) + "-" + std::to_string(i);
        std::string handle = clients.back()->ask({"tarn.create", kSvc, name, "w"});
        ASSERT_EQ("$fh", handle.substr(0, 3)) << name;
        foreign = handle.substr(1);
      }
    }
    EXPECT_EQ("-ERR too many open handles", clients[0]->ask({"tarn.create", kSvc, "more", "w"}));
    EXPECT_EQ("-ERR unknown handle '" + foreign + "'",
              clients[0]->ask({"tarn.write", foreign, "x", kSvc}));
    EXPECT_GE(openDescriptors(pid), baseFds + 3 * 256);
  }
  for (auto until = Clock::now() + std::chrono::seconds(5);
       openDescriptors(pid) > baseFds && Clock::now() < until;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(baseFds, openDescriptors(pid));
  AgentConnection fresh(agent.socketPath());
  EXPECT_EQ("$fh", fresh.ask({"tarn.create", kSvc, "again", "w"}).substr(0, 3));
}

}  // namespace
