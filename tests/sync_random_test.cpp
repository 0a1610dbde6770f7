// Three devices and one service, driven by a seeded random schedule of
// edits, commits, updates, renames and removals on a few files, then every
// device updates. The oracle is fair to both kinds of error:
//  - no edit lost: every version ever written still exists at the end,
//    under some name, on the service or in some mirror (kept copies
//    included), unless a device that held it replaced or removed it
//    knowingly (edited its copy, or removed or renamed over the path);
//  - no false conflict: a schedule in which no two devices write between
//    syncs ends with no kept copy and every mirror equal to the service.
// Every write is unique bytes naming its version. A failure names the seed
// (VEL_SYNC_SEED sets it) and the step; VEL_SYNC_STEPS sets the length.
// With VEL_SYNC_KILLS=1 about one step in four of the first schedule may
// also kill the device's agent (SIGKILL) in the middle of a download or an
// upload of one file, after the copy's rename or after its record, and
// starts it again after the step (long runs; the suite's own run leaves it
// out). The no-conflict schedule runs without kills: an upload killed after
// its rename leaves the service with the edit and the record without it, so
// once another device changed the file again the edit is kept aside, a
// copy no knowledge lost could have avoided.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "sync_fixture.h"

namespace {

using veltest::Tree;

constexpr int kDevices = 3;
const char* const kFiles[] = {"d/f0", "d/f1", "d/f2", "d/s/g0", "d/s/g1", "d/t/h0"};

unsigned seedFromEnv() {
  const char* text = std::getenv("VEL_SYNC_SEED");
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : 20261125u;
}

bool killsFromEnv() {
  const char* text = std::getenv("VEL_SYNC_KILLS");
  return text != nullptr && std::string(text) == "1";
}

int stepsFromEnv(int fallback) {
  const char* text = std::getenv("VEL_SYNC_STEPS");
  return text != nullptr ? std::atoi(text) : fallback;
}

// The S3 store runs half the schedule: a step costs it about twice the
// requests it costs the WebDAV store (folders are keys, and a folder's
// stat is two HEADs), and the rules the schedule checks are the same.
int defaultSteps(StoreKind kind) { return kind == StoreKind::kS3 ? 120 : 240; }

class SyncRandomTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  void SetUp() override {
    std::string why;
    if (GetParam() == StoreKind::kWebDav && !veltest::WebDavServer::available(why)) {
      GTEST_SKIP() << "no WebDAV server here: " << why;
    }
    if (GetParam() == StoreKind::kS3) {
      VEL_REQUIRE_S3_SERVICE();
    }
    fleet_.reset(new Fleet(GetParam(), kDevices));
    ASSERT_TRUE(fleet_->ready());
    fleet_->serviceWrite("d/f0", "v0\n");
    written_.insert("v0\n");
  }
  void TearDown() override { fleet_.reset(); }

  // The files below a folder, by path, kept copies included (not the
  // WebDAV server's own property folders).
  static std::map<std::string, std::string> filesBelow(const std::string& root) {
    std::map<std::string, std::string> out;
    for (const auto& entry : veltest::snapshot(root)) {
      const std::string& path = entry.first;
      if (entry.second.type == 'f' && path.find(".velpart.") == std::string::npos &&
          path.compare(0, 5, ".DAV/") != 0 && path.find("/.DAV/") == std::string::npos) {
        out[entry.first] = entry.second.content;
      }
    }
    return out;
  }

  // The service's files below `rel`, by path below it.
  std::map<std::string, std::string> serviceBelow(const std::string& rel) const {
    return fleet_->s3() ? fleet_->bucketFiles(rel) : filesBelow(fleet_->storePath(rel));
  }

  std::string fresh(int device) {
    std::string version = "v" + std::to_string(++count_) + " by " + std::to_string(device) + "\n";
    written_.insert(version);
    return version;
  }
  void retire(const std::string& content) {
    if (!content.empty()) {
      retired_.insert(content);
    }
  }

  // One step of the schedule on device `x`; `calm` keeps to update, change,
  // commit cycles, so that no two devices ever write between syncs.
  void step(std::mt19937& random, bool calm) {
    Fleet& f = *fleet_;
    const int x = static_cast<int>(random() % kDevices);
    const std::string file = kFiles[random() % (sizeof kFiles / sizeof kFiles[0])];
    const int what = static_cast<int>(random() % 10);
    const bool kill = kills_ && random() % 4 == 0;
    if (kill) {
      const char* command = random() % 2 == 0 ? "tarn.downloadlocal" : "tarn.uploadlocal";
      const char* point = random() % 2 == 0 ? "after-rename" : "after-record";
      f.device(x).setRules(std::string(R"([{"match": [")") + command + R"(", "TestService", ")" +
                           file + R"("], "crash": ")" + point + R"(", "times": 1}])");
    }
    if (calm) {
      f.update(x, "d");
    }
    if (what < 4) {
      // An edit of the mirror copy (or a new file), by the application.
      retire(f.mirror(x, file));
      f.edit(x, file, fresh(x));
      if (calm || random() % 2 == 0) {
        f.commit(x, "d");
      }
    } else if (what < 6) {
      if (!calm) {
        f.commit(x, random() % 2 == 0 ? "d" : file);
      }
    } else if (what < 8) {
      if (!calm) {
        f.update(x, "d");
      }
    } else if (what == 8) {
      // A rename to a name that is free on the service and in the mirror.
      const std::string to = kFiles[random() % (sizeof kFiles / sizeof kFiles[0])];
      if (to != file && f.inMirror(x, file) && !f.onService(to) && !f.inMirror(x, to)) {
        f.as(x, [&] { return VEL::rename(file.c_str(), to.c_str()); });
      }
    } else {
      // A removal of a file, or of the folder that holds it.
      const bool folder = file.rfind('/') > 1 && random() % 3 == 0;
      const std::string path = folder ? file.substr(0, file.rfind('/')) : file;
      std::map<std::string, std::string> mine = filesBelow(f.mirrorPath(x, path));
      std::map<std::string, std::string> theirs = serviceBelow(path);
      std::string single = f.mirror(x, path);
      std::string service = f.service(path);
      int status =
          f.as(x, [&] { return folder ? VEL::delTree(path.c_str()) : VEL::unlink(path.c_str()); });
      if (status == 0) {
        for (const auto& entry : mine) {
          retire(entry.second);
        }
        for (const auto& entry : theirs) {
          retire(entry.second);
        }
        retire(single);
        retire(service);
      }
    }
    if (calm) {
      f.commit(x, "d");
    }
    if (kill) {
      // Whether the rule struck: the agent exited (not reaped yet).
      siginfo_t info = {};
      if (::waitid(P_PID, static_cast<id_t>(f.device(x).pid()), &info,
                   WEXITED | WNOHANG | WNOWAIT) == 0 &&
          info.si_pid != 0) {
        ++killed_;
      }
      f.device(x).setRules("");
      ASSERT_TRUE(f.device(x).restart());
    }
  }

  // Every device updates twice (the first may bring what the others'
  // last commits changed, the second what the first one moved aside).
  void settle() {
    for (int round = 0; round < 2; ++round) {
      for (int x = 0; x < kDevices; ++x) {
        fleet_->update(x, "d");
      }
    }
  }

  std::unique_ptr<Fleet> fleet_;
  std::set<std::string> written_;
  std::set<std::string> retired_;
  int count_ = 0;
  bool kills_ = false;
  int killed_ = 0;
};

TEST_P(SyncRandomTest, EveryVersionSurvivesUnlessKnowinglyReplaced) {
  kills_ = killsFromEnv();
  const unsigned seed = seedFromEnv();
  const int steps = stepsFromEnv(defaultSteps(GetParam()));
  std::mt19937 random(seed);
  for (int i = 0; i < steps; ++i) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(i));
    step(random, false);
    if (HasFatalFailure()) {
      return;
    }
  }
  settle();
  if (kills_) {
    std::printf("seed %u: %d agents killed in a copy\n", seed, killed_);
  }
  std::set<std::string> present;
  for (const auto& entry : serviceBelow("")) {
    present.insert(entry.second);
  }
  for (int x = 0; x < kDevices; ++x) {
    for (const auto& entry : filesBelow(fleet_->device(x).mirror())) {
      present.insert(entry.second);
    }
  }
  for (const std::string& version : written_) {
    if (retired_.count(version) == 0) {
      EXPECT_EQ(1u, present.count(version))
          << "seed " << seed << ": the version \"" << version.substr(0, version.size() - 1)
          << "\" was lost (" << steps << " steps)";
    }
  }
}

TEST_P(SyncRandomTest, NoTwoWritersBetweenSyncsMeansNoConflicts) {
  const unsigned seed = seedFromEnv() + 1;
  const int steps = stepsFromEnv(defaultSteps(GetParam())) / 3;
  std::mt19937 random(seed);
  for (int i = 0; i < steps; ++i) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(i));
    step(random, true);
  }
  settle();
  const std::map<std::string, std::string> service = serviceBelow("d");
  for (int x = 0; x < kDevices; ++x) {
    std::vector<std::string> kept = fleet_->allKept(x);
    EXPECT_TRUE(kept.empty()) << "seed " << seed << ": device " << x << " kept "
                              << (kept.empty()
                                      ? ""
                                      : kept[0] + " \"" +
                                            veltest::readFile(fleet_->mirrorPath(x, kept[0])) +
                                            "\"");
    EXPECT_EQ(service, filesBelow(fleet_->mirrorPath(x, "d")))
        << "seed " << seed << ": device " << x;
  }
}

INSTANTIATE_TEST_SUITE_P(Stores, SyncRandomTest, allStores(), storeKindName);

}  // namespace
