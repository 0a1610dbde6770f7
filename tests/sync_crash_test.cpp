// The agent killed (SIGKILL) in the middle of a download or an upload:
// after the copy was renamed into place and before its record was written,
// and after the record and before the reply. Started again on the same
// state, the next commands lose no edit, raise no false conflict and
// never take a stale copy for the current one.
#include <gtest/gtest.h>

#include <string>

#include "sync_fixture.h"

namespace {

struct Case {
  const char* command;
  const char* point;
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.command << " killed " << c.point; }

class SyncCrashTest : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    fleet_.reset(new Fleet(StoreKind::kFolder, 2));
    ASSERT_TRUE(fleet_->ready());
    fleet_->serviceWrite("d/f.txt", "v0\n");
    ASSERT_EQ(0, fleet_->update(kA, "d"));
    ASSERT_EQ(0, fleet_->update(kB, "d"));
  }
  void TearDown() override { fleet_.reset(); }

  // The next request `command` of device A for d/f.txt kills its agent at
  // `point`; the agent is then started again on the same folders.
  template <typename Run>
  void killDuring(const Run& run) {
    veltest::AgentFixture& a = fleet_->device(kA);
    a.setRules(std::string(R"([{"match": [")") + GetParam().command +
               R"(", "TestService", "d/f.txt"], "crash": ")" + GetParam().point +
               R"(", "times": 1}])");
    run();
    a.setRules("");
    ASSERT_TRUE(a.restart());
  }

  static constexpr int kA = 0;
  static constexpr int kB = 1;
  std::unique_ptr<Fleet> fleet_;
};

TEST_P(SyncCrashTest, TheNextCommandsLoseNothingAndTakeNothingStaleForCurrent) {
  Fleet& f = *fleet_;
  const bool download = std::string(GetParam().command) == "tarn.downloadlocal";
  if (download) {
    // The service moved on; A's update dies while it fetches.
    f.serviceWrite("d/f.txt", "v1\n");
    killDuring([&] { f.update(kA, "d"); });
    // A later change of the service is not hidden by the half-done one.
    f.serviceWrite("d/f.txt", "v2\n");
    ASSERT_EQ(0, f.update(kA, "d"));
    EXPECT_EQ("v2\n", f.mirror(kA, "d/f.txt"));
  } else {
    // A's commit dies while it sends its edit.
    f.edit(kA, "d/f.txt", "A's edit\n");
    killDuring([&] { f.commit(kA, "d/f.txt"); });
    // Whether or not the edit reached the service, it is not lost, and
    // committing again is no conflict with itself.
    ASSERT_EQ(0, f.commit(kA, "d/f.txt"));
    EXPECT_EQ("A's edit\n", f.service("d/f.txt"));
    ASSERT_EQ(0, f.update(kA, "d"));
    EXPECT_EQ("A's edit\n", f.mirror(kA, "d/f.txt"));
  }
  EXPECT_TRUE(f.allKept(kA).empty()) << "a false conflict after the crash";

  // Both devices go on as usual: edits travel, nothing is refused.
  f.edit(kA, "d/f.txt", "after the crash\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("after the crash\n", f.mirror(kB, "d/f.txt"));
  EXPECT_TRUE(f.allKept(kB).empty());
}

INSTANTIATE_TEST_SUITE_P(Points, SyncCrashTest,
                         ::testing::Values(Case{"tarn.downloadlocal", "after-rename"},
                                           Case{"tarn.downloadlocal", "after-record"},
                                           Case{"tarn.uploadlocal", "after-rename"},
                                           Case{"tarn.uploadlocal", "after-record"}),
                         [](const ::testing::TestParamInfo<Case>& param) {
                           std::string name =
                               std::string(param.param.command + 5) + "_" + param.param.point;
                           for (char& c : name) {
                             c = c == '-' ? '_' : c;
                           }
                           return name;
                         });

}  // namespace
