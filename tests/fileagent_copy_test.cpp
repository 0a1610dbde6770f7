// Copies through the file agent are whole or absent: an agent killed at any
// moment of an upload or a download, or one that runs out of disk, leaves
// the target with its old content or the new one, never a prefix.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/agent_fixture.h"
#include "support/temp_dir.h"

namespace {

using namespace veltest;

constexpr size_t kLarge = 64u << 20;

// `size` bytes that differ from those of any other `seed`.
std::string content(char seed, size_t size) {
  std::string out(size, seed);
  for (size_t i = 0; i < size; i += 4096) {
    out[i] = static_cast<char>(seed + i / 4096);
  }
  return out;
}

// Kills the agent at random moments of `command` on `name`, which copies
// `from` over `to`; after each kill `to` must hold `before` or `after`.
void killDuringCopies(AgentFixture& agent, const std::string& command, const std::string& to,
                      const std::string& before, const std::string& after) {
  AgentConnection timing(agent.socketPath());
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ("+OK", timing.ask({command, kSvc, "big"}, 60000));
  auto full = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  std::mt19937 random(std::random_device{}());
  std::uniform_int_distribution<long long> moment(0, full.count());
  int interrupted = 0;
  for (int round = 0; round < 6; ++round) {
    writeFile(to, before);
    ASSERT_TRUE(agent.restart());
    AgentConnection c(agent.socketPath());
    ASSERT_TRUE(c.send({command, kSvc, "big"}));
    std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
    agent.kill();
    const std::string now = readFile(to);
    interrupted += now == before;
    EXPECT_TRUE(now == before || now == after)
        << command << " round " << round << ": " << now.size() << " bytes, neither version";
  }
  ASSERT_TRUE(agent.restart());
  std::printf("%s: %d of 6 kills before the copy was in place (a full copy took %lld us)\n",
              command.c_str(), interrupted, static_cast<long long>(full.count()));
}

TEST(AgentCopies, KillingTheAgentDuringAnUploadOrADownloadLeavesTheOldOrTheNewContent) {
  AgentFixture agent(quiet());
  ASSERT_TRUE(agent.ready());
  const std::string oldContent = content('o', kLarge);
  const std::string newContent = content('n', kLarge + 12345);
  writeFile(agent.mirror() + "/big", newContent);
  killDuringCopies(agent, "tarn.uploadlocal", agent.store() + "/big", oldContent, newContent);

  writeFile(agent.store() + "/big", newContent);
  killDuringCopies(agent, "tarn.downloadlocal", agent.mirror() + "/big", oldContent, newContent);

  // What a killed copy leaves behind never shows in a listing, and does
  // not keep a folder that looks empty from being removed.
  plant(agent.store(), {{".big.velpart.k1ll3d", "partial"}, {"gone/.f.velpart.k1ll3d", "partial"}});
  AgentConnection c(agent.socketPath());
  EXPECT_EQ("*\nbig\ngone/", c.ask({"tarn.dir", kSvc, "", "false"}));
  EXPECT_EQ("*", c.ask({"tarn.dir", kSvc, "gone", "false"}));
  EXPECT_EQ("+OK", c.ask({"tarn.remove", kSvc, "gone", "false"}));
  EXPECT_FALSE(pathExists(agent.store() + "/gone"));
}

TEST(AgentCopies, AFullDiskKeepsTheOldContentAndNoTemporaryFile) {
  AgentOptions options = quiet();
  options.fileSizeLimit = 1 << 20;
  AgentFixture agent(options);
  ASSERT_TRUE(agent.ready());
  const std::string store = agent.store();
  const std::string mirror = agent.mirror();
  plant(store, {{"up", "old store copy"}, {"down", content('d', 3 << 20)}, {"tiny", "fits", 0604}});
  plant(mirror, {{"down", "old mirror copy"}, {"small", "fit", 0640}});
  AgentConnection c(agent.socketPath());
  // "up" synced, then edited in the mirror: the upload is due.
  ASSERT_EQ("+OK", c.ask({"tarn.downloadlocal", kSvc, "up"}));
  writeFile(mirror + "/up", content('u', 3 << 20));

  EXPECT_EQ("-ERR upload failed: File too large", c.ask({"tarn.uploadlocal", kSvc, "up"}));
  EXPECT_EQ("-ERR download failed: File too large", c.ask({"tarn.downloadlocal", kSvc, "down"}));
  EXPECT_EQ("old store copy", readFile(store + "/up"));
  EXPECT_EQ("old mirror copy", readFile(mirror + "/down"));
  // The copies that fit get the mode of their source.
  EXPECT_EQ("+OK", c.ask({"tarn.uploadlocal", kSvc, "small"}));
  EXPECT_EQ("+OK", c.ask({"tarn.downloadlocal", kSvc, "tiny"}));
  EXPECT_EQ(0640, permissionsOf(store + "/small"));
  EXPECT_EQ(0604, permissionsOf(mirror + "/tiny"));
  EXPECT_EQ((std::vector<std::string>{"down", "small", "tiny", "up"}), namesIn(store));
  EXPECT_EQ((std::vector<std::string>{"down", "small", "tiny", "up"}), namesIn(mirror));
}

}  // namespace
