// Two devices, one service: each case ends with every edit present, on the
// service or as a file in the mirror where it was made, and ordinary use
// raises no conflict and leaves no kept copy. Every case runs on a folder
// store, on a WebDAV server and on an S3 bucket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/process.h"
#include "sync_fixture.h"
#include "vel/fstream.h"

namespace {

using veltest::readFile;

class SyncDevicesTest : public ::testing::TestWithParam<StoreKind> {
 protected:
  void SetUp() override {
    std::string why;
    if (isWebDav(GetParam()) && !veltest::WebDavServer::available(why, serverKind())) {
      GTEST_SKIP() << "no WebDAV server here: " << why;
    }
    if (GetParam() == StoreKind::kS3) {
      VEL_REQUIRE_S3_SERVICE();
    }
    fleet_.reset(new Fleet(GetParam(), 2, args()));
    ASSERT_TRUE(fleet_->ready());
    fleet_->serviceWrite("d/f.txt", "original\n");
    fleet_->serviceWrite("d/g.txt", "neighbour\n");
    ASSERT_EQ(0, fleet_->update(kA, "d"));
    ASSERT_EQ(0, fleet_->update(kB, "d"));
  }
  void TearDown() override { fleet_.reset(); }
  virtual std::vector<std::string> args() const { return {}; }
  veltest::WebDavServerKind serverKind() const {
    return GetParam() == StoreKind::kWebDavNginx ? veltest::WebDavServerKind::kNginx
                                                 : veltest::WebDavServerKind::kApache;
  }

  static constexpr int kA = 0;
  static constexpr int kB = 1;
  std::unique_ptr<Fleet> fleet_;
};

// A edits and commits; B edits its own copy and commits: B's version must
// not silently replace A's. B is refused, keeps its edit, and an update
// puts A's version in place with B's edit kept beside it.
TEST_P(SyncDevicesTest, ALostUpdateIsRefusedAndBothEditsSurvive) {
  Fleet& f = *fleet_;
  f.edit(kA, "d/f.txt", "A's edit\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  EXPECT_EQ("A's edit\n", f.service("d/f.txt"));

  f.edit(kB, "d/f.txt", "B's edit\n");
  EXPECT_NE(0, f.commit(kB, "d/f.txt"));
  EXPECT_EQ("A's edit\n", f.service("d/f.txt"));
  EXPECT_EQ("B's edit\n", f.mirror(kB, "d/f.txt"));
  EXPECT_TRUE(f.device(kB).agentLog().find("ERR conflict") == std::string::npos)
      << "a refusal is the client's to log, not a refused request";

  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("A's edit\n", f.mirror(kB, "d/f.txt"));
  std::vector<std::string> kept = f.kept(kB, "d/f.txt");
  ASSERT_EQ(1u, kept.size());
  EXPECT_EQ("B's edit\n", readFile(kept[0]));
  EXPECT_TRUE(f.allKept(kA).empty());
}

// The tool says what went wrong and how to get out of it.
TEST_P(SyncDevicesTest, TheToolNamesTheConflictAndTheWayOut) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/f.txt", "changed by another program\n");
  f.edit(kA, "d/f.txt", "edited on A\n");
  veltest::AgentFixture& a = f.device(kA);
  veltest::ProcessResult result =
      veltest::runProcess({VEL_TOOL_BIN, "commit", "d/f.txt"}, {{"UDS_ROOT_OSSUSER", a.udsRoot()},
                                                                {"TARN_ROOT_DIR", a.mirror()},
                                                                {"_APP_LOG_DIR", a.logDir()}});
  EXPECT_NE(std::string::npos,
            result.out.find("resp = ERR conflict: 'd/f.txt' changed on the service since this "
                            "mirror last synced it; nothing was sent. Run 'vel update d/f.txt'"))
      << result.out;
  EXPECT_NE(std::string::npos, result.out.find("commit fialed : d/f.txt")) << result.out;
  EXPECT_EQ("changed by another program\n", f.service("d/f.txt"));
  EXPECT_EQ("edited on A\n", f.mirror(kA, "d/f.txt"));
}

// An edit in the mirror that never reached the service (the application
// wrote the mirror file directly) survives an update and a read-open: kept
// in place while the service is unchanged, kept aside when it changed.
TEST_P(SyncDevicesTest, AnUnpushedEditIsNeverOverwritten) {
  Fleet& f = *fleet_;
  f.edit(kA, "d/f.txt", "unpushed\n");
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_EQ("unpushed\n", f.mirror(kA, "d/f.txt"));
  std::string read;
  f.as(kA, [&] {
    VEL::ifstream in("d/f.txt");
    std::getline(in, read);
  });
  EXPECT_EQ("unpushed", read);
  EXPECT_TRUE(f.allKept(kA).empty());

  f.edit(kB, "d/f.txt", "B's change\n");
  ASSERT_EQ(0, f.commit(kB, "d/f.txt"));
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_EQ("B's change\n", f.mirror(kA, "d/f.txt"));
  std::vector<std::string> kept = f.kept(kA, "d/f.txt");
  ASSERT_EQ(1u, kept.size());
  EXPECT_EQ("unpushed\n", readFile(kept[0]));
}

// Both devices make the same new name: the second is refused, keeps its
// file, and gets the first one's with its own kept beside it. The same
// bytes on both are no conflict at all.
TEST_P(SyncDevicesTest, TheSameNewNameOnTwoDevices) {
  Fleet& f = *fleet_;
  f.edit(kA, "d/new.txt", "made on A\n");
  f.edit(kB, "d/new.txt", "made on B\n");
  f.edit(kA, "d/same.txt", "the same bytes\n");
  f.edit(kB, "d/same.txt", "the same bytes\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  EXPECT_NE(0, f.commit(kB, "d/new.txt"));
  EXPECT_EQ(0, f.commit(kB, "d/same.txt"));
  EXPECT_EQ("made on A\n", f.service("d/new.txt"));
  EXPECT_EQ("made on B\n", f.mirror(kB, "d/new.txt"));

  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("made on A\n", f.mirror(kB, "d/new.txt"));
  std::vector<std::string> kept = f.kept(kB, "d/new.txt");
  ASSERT_EQ(1u, kept.size());
  EXPECT_EQ("made on B\n", readFile(kept[0]));
  EXPECT_TRUE(f.kept(kB, "d/same.txt").empty());
}

// A version first read within a second of its change (a weak tag on a
// WebDAV server, an unsettled time) is the same version once it settles:
// an edit committed later is no conflict.
TEST_P(SyncDevicesTest, AVersionReadWhileFreshIsTheSameOnceSettled) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/fresh.txt", "fresh\n");
  ASSERT_EQ(0, f.update(kA, "d"));
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  f.edit(kA, "d/fresh.txt", "edited a second later\n");
  EXPECT_EQ(0, f.commit(kA, "d/fresh.txt"));
  EXPECT_EQ("edited a second later\n", f.service("d/fresh.txt"));
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_TRUE(f.allKept(kA).empty());
}

// Ordinary use: one device commits again and again; the other fetches and
// commits after it. No conflict, no kept copy, every mirror as the service.
TEST_P(SyncDevicesTest, OrdinaryUseRaisesNoConflict) {
  Fleet& f = *fleet_;
  for (int round = 0; round < 3; ++round) {
    f.edit(kA, "d/f.txt", "A, round " + std::to_string(round) + "\n");
    ASSERT_EQ(0, f.commit(kA, "d")) << round;
  }
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("A, round 2\n", f.mirror(kB, "d/f.txt"));
  f.edit(kB, "d/f.txt", "B after A\n");
  ASSERT_EQ(0, f.commit(kB, "d"));
  ASSERT_EQ(0, f.update(kA, "d"));
  f.edit(kA, "d/g.txt", "A after B\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  ASSERT_EQ(0, f.update(kB, "d"));
  for (int device : {kA, kB}) {
    EXPECT_EQ("B after A\n", f.mirror(device, "d/f.txt")) << device;
    EXPECT_EQ("A after B\n", f.mirror(device, "d/g.txt")) << device;
    EXPECT_TRUE(f.allKept(device).empty()) << device;
  }
  EXPECT_EQ("B after A\n", f.service("d/f.txt"));
}

// Nothing unchanged is copied again: a second update leaves every mirror
// file as it was (a copy is a new file in place), a second commit every
// service file, and a read-open an unchanged copy.
TEST_P(SyncDevicesTest, NothingUnchangedIsCopiedTwice) {
  Fleet& f = *fleet_;
  const std::string before = f.fileAt(kA, "d/f.txt");
  ASSERT_NE("", before);
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_EQ(before, f.fileAt(kA, "d/f.txt"));
  f.as(kA, [] {
    std::string line;
    VEL::ifstream in("d/f.txt");
    std::getline(in, line);
  });
  const std::string afterRead = f.fileAt(kA, "d/f.txt");
  EXPECT_EQ(before.substr(0, before.find('@')), afterRead.substr(0, afterRead.find('@')))
      << "a read stamps the copy anew but never copies it";

  // A neighbour sent again would be a new file in a folder, and a new
  // object without this metadata in a bucket.
  struct stat first;
  if (f.s3()) {
    ASSERT_EQ(200, f.device(kA).s3()->put("d/g.txt", "neighbour\n", {{"probe", "left"}}).status);
  } else {
    ASSERT_EQ(0, ::stat(f.storePath("d/g.txt").c_str(), &first));
  }
  f.edit(kA, "d/f.txt", "one edit\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  ASSERT_EQ(0, f.commit(kA, "d"));
  if (f.s3()) {
    EXPECT_EQ("left", f.device(kA).s3()->head("d/g.txt").meta["probe"])
        << "the unchanged neighbour was sent again";
  } else {
    struct stat after;
    ASSERT_EQ(0, ::stat(f.storePath("d/g.txt").c_str(), &after));
    EXPECT_EQ(first.st_ino, after.st_ino) << "the unchanged neighbour was sent again";
    EXPECT_EQ(first.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
  }
  EXPECT_EQ("one edit\n", f.service("d/f.txt"));
}

// A removal reaches the other device at its next update; the neighbours
// stay, and a stale device's commit does not bring the file back.
TEST_P(SyncDevicesTest, ARemovalTravelsAndIsNotUndoneByAStaleCommit) {
  Fleet& f = *fleet_;
  ASSERT_EQ(0, f.as(kA, [] { return VEL::unlink("d/f.txt"); }));
  ASSERT_FALSE(f.onService("d/f.txt"));

  // B commits before it updates: nothing is resurrected, and its copy goes.
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_FALSE(f.onService("d/f.txt"));
  EXPECT_FALSE(f.inMirror(kB, "d/f.txt"));
  EXPECT_EQ("neighbour\n", f.mirror(kB, "d/g.txt"));

  // A third file removed on A reaches B through an update.
  f.edit(kA, "d/h.txt", "short-lived\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("short-lived\n", f.mirror(kB, "d/h.txt"));
  ASSERT_EQ(0, f.as(kA, [] { return VEL::unlink("d/h.txt"); }));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_FALSE(f.inMirror(kB, "d/h.txt"));
  EXPECT_EQ("neighbour\n", f.mirror(kB, "d/g.txt"));
  EXPECT_TRUE(f.allKept(kB).empty());
}

// One device removes a file the other edited: the edit wins. It stays in
// its mirror through an update and comes back to the service on commit.
TEST_P(SyncDevicesTest, AnEditWinsOverARemoval) {
  Fleet& f = *fleet_;
  f.edit(kB, "d/f.txt", "edited on B\n");
  ASSERT_EQ(0, f.as(kA, [] { return VEL::unlink("d/f.txt"); }));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("edited on B\n", f.mirror(kB, "d/f.txt"));
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_EQ("edited on B\n", f.service("d/f.txt"));
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_EQ("edited on B\n", f.mirror(kA, "d/f.txt"));
}

// A folder removal reaches the other device; a file made there and never
// pushed stays, with its folder, and a folder of only synced files goes.
TEST_P(SyncDevicesTest, AFolderRemovalTravelsAndKeepsWhatWasNeverPushed) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/s/x.txt", "x\n");
  f.serviceWrite("d/s/deep/y.txt", "y\n");
  f.serviceWrite("d/t/z.txt", "z\n");
  ASSERT_EQ(0, f.update(kB, "d"));
  ASSERT_TRUE(f.inMirror(kB, "d/s/deep/y.txt"));
  f.edit(kB, "d/s/mine.txt", "never pushed\n");

  ASSERT_EQ(0, f.as(kA, [] { return VEL::delTree("d/s"); }));
  ASSERT_EQ(0, f.as(kA, [] { return VEL::delTree("d/t"); }));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_FALSE(f.inMirror(kB, "d/s/x.txt"));
  EXPECT_FALSE(f.inMirror(kB, "d/s/deep"));
  EXPECT_EQ("never pushed\n", f.mirror(kB, "d/s/mine.txt"));
  EXPECT_FALSE(f.inMirror(kB, "d/t"));
  EXPECT_EQ("neighbour\n", f.mirror(kB, "d/g.txt"));

  // Its commit brings back what was never pushed, and nothing else.
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_EQ("never pushed\n", f.service("d/s/mine.txt"));
  EXPECT_FALSE(f.onService("d/s/x.txt"));
  EXPECT_FALSE(f.onService("d/t"));
}

// A rename arrives as a rename: the old name leaves, and the new one is
// the same local file, moved, not fetched again.
TEST_P(SyncDevicesTest, ARenameArrivesAsARename) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/f.bin", std::string(100000, 'b'));
  if (isWebDav(GetParam())) {
    // Within the second of a change the server's tag is weak, and a weak
    // tag does not identify a file: B must have seen a strong one.
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  }
  ASSERT_EQ(0, f.update(kB, "d"));
  const std::string before = f.fileAt(kB, "d/f.bin");
  ASSERT_NE("", before);
  ASSERT_EQ(0, f.as(kA, [] { return VEL::rename("d/f.bin", "d/h.bin"); }));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_FALSE(f.inMirror(kB, "d/f.bin"));
  if (GetParam() != StoreKind::kWebDavNginx) {
    EXPECT_EQ(before, f.fileAt(kB, "d/h.bin")) << "fetched again instead of moved";
  }
  // nginx's tag (seconds and size) may be another file's: the rename is
  // taken as a removal and a new file, fetched.
  EXPECT_EQ(std::string(100000, 'b'), f.mirror(kB, "d/h.bin"));

  // B's next commit does not bring the old name back.
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_FALSE(f.onService("d/f.bin"));
}

// A file removed or renamed straight in the mirror (not through the
// library or the tool) is no removal on the service: the next update
// brings the old name back, and the new name is a new file.
TEST_P(SyncDevicesTest, AFileRemovedOrRenamedStraightInTheMirrorComesBack) {
  Fleet& f = *fleet_;
  ASSERT_EQ(0, ::unlink(f.mirrorPath(kB, "d/f.txt").c_str()));
  ASSERT_EQ(0, ::rename(f.mirrorPath(kB, "d/g.txt").c_str(), f.mirrorPath(kB, "d/h.txt").c_str()));
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_EQ("original\n", f.service("d/f.txt"));
  EXPECT_EQ("neighbour\n", f.service("d/g.txt"));
  EXPECT_EQ("neighbour\n", f.service("d/h.txt"));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("original\n", f.mirror(kB, "d/f.txt"));
  EXPECT_EQ("neighbour\n", f.mirror(kB, "d/g.txt"));
}

// A folder renamed with VEL::rename on one device (a pull, a push under the
// new name and a removal of the old) arrives at the other as a rename where
// the store notes each file's content beside it (a folder store) or keeps
// the content's tag through a copy (S3): the same mirror files, moved.
// Elsewhere (WebDAV) the old names go and the new ones are fetched: the
// same content, nothing kept aside.
TEST_P(SyncDevicesTest, AFolderRenameArrivesAsARename) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/s/one.bin", std::string(50000, '1'));
  f.serviceWrite("d/s/deep/two.bin", std::string(60000, '2'));
  ASSERT_EQ(0, f.update(kA, "d"));
  ASSERT_EQ(0, f.update(kB, "d"));
  const std::string one = f.fileAt(kB, "d/s/one.bin");
  const std::string two = f.fileAt(kB, "d/s/deep/two.bin");
  ASSERT_EQ(0, f.as(kA, [] { return VEL::rename("d/s", "d/t"); }));
  ASSERT_FALSE(f.onService("d/s"));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_FALSE(f.inMirror(kB, "d/s"));
  EXPECT_EQ(std::string(50000, '1'), f.mirror(kB, "d/t/one.bin"));
  EXPECT_EQ(std::string(60000, '2'), f.mirror(kB, "d/t/deep/two.bin"));
  if (!isWebDav(GetParam())) {
    EXPECT_EQ(one, f.fileAt(kB, "d/t/one.bin")) << "fetched again instead of moved";
    EXPECT_EQ(two, f.fileAt(kB, "d/t/deep/two.bin")) << "fetched again instead of moved";
  }
  EXPECT_TRUE(f.allKept(kB).empty());
}

// A listing by any means lets a removal reach the mirror: `vel ls` too.
TEST_P(SyncDevicesTest, ARemovalReachesTheMirrorAtAListing) {
  Fleet& f = *fleet_;
  ASSERT_EQ(0, f.as(kA, [] { return VEL::unlink("d/f.txt"); }));
  veltest::AgentFixture& b = f.device(kB);
  veltest::ProcessResult result =
      veltest::runProcess({VEL_TOOL_BIN, "ls", "d"}, {{"UDS_ROOT_OSSUSER", b.udsRoot()},
                                                      {"TARN_ROOT_DIR", b.mirror()},
                                                      {"_APP_LOG_DIR", b.logDir()}});
  EXPECT_EQ(0, result.status);
  EXPECT_FALSE(f.inMirror(kB, "d/f.txt"));
  EXPECT_EQ("neighbour\n", f.mirror(kB, "d/g.txt"));
}

// A removal of what another device changed since is refused, for a file and
// for a folder that holds it; nothing is removed.
TEST_P(SyncDevicesTest, ARemovalOfAChangeNotSeenHereIsRefused) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/s/x.txt", "x\n");
  ASSERT_EQ(0, f.update(kA, "d"));
  ASSERT_EQ(0, f.update(kB, "d"));
  f.edit(kB, "d/f.txt", "B's edit\n");
  f.edit(kB, "d/s/x.txt", "B's x\n");
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_NE(0, f.as(kA, [] { return VEL::unlink("d/f.txt"); }));
  EXPECT_NE(0, f.as(kA, [] { return VEL::delTree("d/s"); }));
  EXPECT_EQ("B's edit\n", f.service("d/f.txt"));
  EXPECT_EQ("B's x\n", f.service("d/s/x.txt"));
  // Once A has seen the change, the removal goes through.
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_EQ(0, f.as(kA, [] { return VEL::unlink("d/f.txt"); }));
  EXPECT_FALSE(f.onService("d/f.txt"));
}

// The way out of a conflict the README gives: update, merge, remove the
// kept copy, commit.
TEST_P(SyncDevicesTest, AConflictIsResolvedAsTheReadmeSays) {
  Fleet& f = *fleet_;
  f.edit(kA, "d/f.txt", "A's line\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  f.edit(kB, "d/f.txt", "B's line\n");
  ASSERT_NE(0, f.commit(kB, "d/f.txt"));
  ASSERT_EQ(0, f.update(kB, "d/f.txt"));
  std::vector<std::string> kept = f.kept(kB, "d/f.txt");
  ASSERT_EQ(1u, kept.size());
  f.edit(kB, "d/f.txt", f.mirror(kB, "d/f.txt") + readFile(kept[0]));
  ASSERT_EQ(0, ::unlink(kept[0].c_str()));
  ASSERT_EQ(0, f.commit(kB, "d/f.txt"));
  EXPECT_EQ("A's line\nB's line\n", f.service("d/f.txt"));
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_EQ("A's line\nB's line\n", f.mirror(kA, "d/f.txt"));
}

// A downloaded copy carries the service's modification time when that lies
// in the past.
TEST_P(SyncDevicesTest, ACopyCarriesTheServicesTime) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/old.txt", "old\n");
  struct timespec past[2] = {{1700000000, 0}, {1700000000, 0}};
  if (f.s3()) {
    ASSERT_EQ(200, f.device(kA).s3()->put("d/old.txt", "old\n", {{"mtime", "1700000000"}}).status);
  } else {
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, f.storePath("d/old.txt").c_str(), past, 0));
  }
  if (isWebDav(GetParam())) {
    f.device(kA).server()->adopt();
  }
  ASSERT_EQ(0, f.update(kA, "d"));
  struct stat st;
  ASSERT_EQ(0, ::stat(f.mirrorPath(kA, "d/old.txt").c_str(), &st));
  EXPECT_EQ(1700000000, st.st_mtim.tv_sec);
}

// A copy of a version changed just now is stamped two seconds back: an
// edit made right after it, in place and of the same size, stamps it anew
// and is told from the copy by its time alone, so a removal made elsewhere
// never takes it.
TEST_P(SyncDevicesTest, AFreshCopyIsStampedInThePastAndAnEditRightAfterItCounts) {
  Fleet& f = *fleet_;
  f.serviceWrite("d/new.txt", "fresh copy\n");
  ASSERT_EQ(0, f.update(kA, "d"));
  ASSERT_EQ(0, f.update(kB, "d"));
  const time_t after = ::time(nullptr);
  struct stat st;
  ASSERT_EQ(0, ::stat(f.mirrorPath(kB, "d/new.txt").c_str(), &st));
  EXPECT_LE(st.st_mtim.tv_sec, after - 2);
  const int fd = ::open(f.mirrorPath(kB, "d/new.txt").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_LE(0, fd);
  const ssize_t wrote = ::pwrite(fd, "FRESH COPY\n", 11, 0);
  ::close(fd);
  ASSERT_EQ(11, wrote);
  struct stat edited;
  ASSERT_EQ(0, ::stat(f.mirrorPath(kB, "d/new.txt").c_str(), &edited));
  ASSERT_EQ(st.st_ino, edited.st_ino);
  ASSERT_EQ(st.st_size, edited.st_size);
  ASSERT_EQ(0, f.as(kA, [] { return VEL::unlink("d/new.txt"); }));
  ASSERT_EQ(0, f.update(kB, "d"));
  EXPECT_EQ("FRESH COPY\n", f.mirror(kB, "d/new.txt"));
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_EQ("FRESH COPY\n", f.service("d/new.txt"));
}

INSTANTIATE_TEST_SUITE_P(Stores, SyncDevicesTest, allStores(), storeKindName);
// nginx ignores If-Match and If-None-Match on PUT and DELETE: the agent's
// own check just before each change is what keeps the edits there.
INSTANTIATE_TEST_SUITE_P(IgnoringServer, SyncDevicesTest,
                         ::testing::Values(StoreKind::kWebDavNginx), storeKindName);

// With --last-writer-wins the old behaviour is back for conflicts: a stale
// commit replaces, an update overwrites an edit, nothing is kept aside.
class LastWriterWinsTest : public SyncDevicesTest {
 protected:
  std::vector<std::string> args() const override { return {"--last-writer-wins"}; }
};

TEST_P(LastWriterWinsTest, TheLastCommandWins) {
  Fleet& f = *fleet_;
  f.edit(kA, "d/f.txt", "A's edit\n");
  ASSERT_EQ(0, f.commit(kA, "d"));
  f.edit(kB, "d/f.txt", "B's edit\n");
  ASSERT_EQ(0, f.commit(kB, "d"));
  EXPECT_EQ("B's edit\n", f.service("d/f.txt"));
  f.edit(kA, "d/f.txt", "A again\n");
  f.serviceWrite("d/f.txt", "another program\n");
  ASSERT_EQ(0, f.update(kA, "d"));
  EXPECT_EQ("another program\n", f.mirror(kA, "d/f.txt"));
  EXPECT_TRUE(f.allKept(kA).empty());
}

INSTANTIATE_TEST_SUITE_P(Stores, LastWriterWinsTest, allStores(), storeKindName);

}  // namespace
