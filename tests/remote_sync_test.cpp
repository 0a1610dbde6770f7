// Pulling from and pushing to the service through the public API against
// the reference agent: missing parents, conflicts with local objects,
// nodes the service lacks, whole trees, and the order of uploads.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "remote_e2e.h"
#include "vel/hooks.h"
#include "vel/paths.h"

namespace {

using veltest::makeDirs;
using veltest::pathExists;
using veltest::permissionsOf;
using veltest::readFile;
using veltest::RemoteE2E;

class RemoteSyncTest : public RemoteE2E {};

TEST_F(RemoteSyncTest, PullCreatesMissingParentsWithTheServiceModesThenDownloads) {
  storeDir("a", 0751);
  storeDir("a/b", 0705);
  storeFile("a/b/f", "service bytes", 0604);

  EXPECT_EQ(VEL::syncFromServer("/a//b/./f", false), 0);
  EXPECT_EQ(permissionsOf(mirror("a")), 0751);
  EXPECT_EQ(permissionsOf(mirror("a/b")), 0705);
  EXPECT_EQ(readFile(mirror("a/b/f")), "service bytes");

  // Lookups walk upwards to the first missing parent; the download comes last.
  long leaf = indexOf("tarn.metadata TestService a/b/f");
  long mid = indexOf("tarn.metadata TestService a/b");
  long top = indexOf("tarn.metadata TestService a");
  long download = indexOf("tarn.downloadlocal TestService a/b/f");
  ASSERT_GE(leaf, 0);
  EXPECT_LT(leaf, mid);
  EXPECT_LT(mid, top);
  EXPECT_LT(top, download);
  EXPECT_EQ(countOf("tarn.downloadlocal"), 1u);

  // Reading through fopen pulls the service's current copy first.
  storeFile("a/b/f", "newer service bytes", 0604);
  FILE* in = VEL::fopen("a/b/f", "r");
  ASSERT_NE(in, nullptr);
  char buffer[64] = {0};
  size_t got = std::fread(buffer, 1, sizeof(buffer) - 1, in);
  EXPECT_EQ(VEL::fclose(in), 0);
  EXPECT_EQ(std::string(buffer, got), "newer service bytes");
}

TEST_F(RemoteSyncTest, LocalFileWhereTheServiceHasADirectoryIsMovedAsideNotDeleted) {
  storeDir("a", 0750);
  storeFile("a/x", "x from service");
  mirrorFile("a", "local bytes of a");

  EXPECT_EQ(VEL::syncFromServer("a", true), 0);
  struct stat st;
  ASSERT_EQ(::stat(mirror("a").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(permissionsOf(mirror("a")), 0750);
  EXPECT_EQ(readFile(mirror("a/x")), "x from service");
  std::vector<std::string> kept = keptCopies("a");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(readFile(mirror(kept[0])), "local bytes of a");
  EXPECT_TRUE(
      logged("CALL [VEL] VELClientTavora::DealNotFile() Remove conflicting file: " + mirror("a")));

  // The same when the file stands where a parent of the pulled node belongs.
  storeFile("p/q/f", "deep");
  mirrorFile("p", "local bytes of p");
  EXPECT_EQ(VEL::syncFromServer("p/q/f", false), 0);
  EXPECT_EQ(readFile(mirror("p/q/f")), "deep");
  kept = keptCopies("p");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(readFile(mirror(kept[0])), "local bytes of p");
}

TEST_F(RemoteSyncTest, ExistingLocalDirectoryOnlyTakesTheServiceMode) {
  storeDir("d", 0710);
  makeDirs(mirror("d"), 0777);
  ::chmod(mirror("d").c_str(), 0777);
  mirrorFile("d/mine", "local content");

  EXPECT_EQ(VEL::syncFromServer("d", false), 0);
  EXPECT_EQ(permissionsOf(mirror("d")), 0710);
  EXPECT_EQ(readFile(mirror("d/mine")), "local content");
  EXPECT_TRUE(keptCopies("d").empty());
}

// The service not having a node is no reason to touch the mirror: the pull
// goes on with the parent, and at the top it is simply done. A file the
// application wrote but has not pushed yet is never moved away.
TEST_F(RemoteSyncTest, PathOnlyInTheMirrorStaysExactlyWhereItIs) {
  mirrorFile("only.txt", "precious unsent bytes");
  EXPECT_EQ(VEL::syncFromServer("only.txt", false), 0);
  EXPECT_EQ(readFile(mirror("only.txt")), "precious unsent bytes");
  EXPECT_TRUE(keptCopies("only.txt").empty());
  EXPECT_EQ(requests(), std::vector<std::string>{"tarn.metadata TestService only.txt"});

  // With the tree flag the listing of the missing node fails; still 0.
  veltest::StdoutCapture capture1;
  EXPECT_EQ(VEL::syncFromServer("only.txt", true), 0);
  capture1.text();
  EXPECT_EQ(readFile(mirror("only.txt")), "precious unsent bytes");

  // Below a directory the service has: the parent is synchronised instead.
  storeDir("d", 0700);
  mirrorFile("d/new/draft", "draft bytes");
  agent_->clearJournal();
  EXPECT_EQ(VEL::syncFromServer("d/new/draft", false), 0);
  EXPECT_EQ(readFile(mirror("d/new/draft")), "draft bytes");
  EXPECT_EQ(permissionsOf(mirror("d")), 0700);
  EXPECT_TRUE(keptCopies("d/new/draft").empty());
  EXPECT_TRUE(keptCopies("d/new").empty());
  EXPECT_LT(indexOf("tarn.metadata TestService d/new/draft"),
            indexOf("tarn.metadata TestService d/new"));
  EXPECT_LT(indexOf("tarn.metadata TestService d/new"), indexOf("tarn.metadata TestService d"));
  EXPECT_EQ(countOf("tarn.downloadlocal"), 0u);
}

TEST_F(RemoteSyncTest, PullOfATreeFetchesEveryNodeAndPrintsTheWalk) {
  storeFile("T/a", "A", 0640);
  storeDir("T/s", 0751);
  storeFile("T/s/t", "deep", 0600);
  storeDir("T/s/u", 0700);

  veltest::StdoutCapture capture2;
  EXPECT_EQ(VEL::syncFromServer("T", true), 0);
  std::string out = capture2.text();
  EXPECT_EQ(readFile(mirror("T/a")), "A");
  EXPECT_EQ(readFile(mirror("T/s/t")), "deep");
  EXPECT_EQ(permissionsOf(mirror("T/s")), 0751);
  EXPECT_EQ(permissionsOf(mirror("T/s/u")), 0700);
  EXPECT_EQ(permissionsOf(mirror("T/s/t")), 0600);
  // Only directories stay in the walk's list; each is printed with the
  // offset that makes it relative to the listed path.
  EXPECT_NE(out.find("====>T === 2 === T\n====>T/s === 2 === T\n====>T/s/u === 2 === T\n"),
            std::string::npos)
      << out;
}

TEST_F(RemoteSyncTest, MissingMirrorRootIsCreatedWith0750) {
  storeFile("top.txt", "top");
  veltest::removeTree(mirrorRoot());
  EXPECT_EQ(VEL::syncFromServer("top.txt", false), 0);
  EXPECT_EQ(permissionsOf(mirrorRoot()), 0750);
  EXPECT_EQ(readFile(mirror("top.txt")), "top");
}

TEST_F(RemoteSyncTest, PushCreatesDirectoriesBeforeTheirChildren) {
  makeDirs(mirror("t/s/e"), 0750);
  ::chmod(mirror("t/s").c_str(), 0705);
  mirrorFile("t/a.txt", "alpha");
  mirrorFile("t/s/b.txt", "beta");

  veltest::StdoutCapture capture3;
  EXPECT_EQ(VEL::syncToServer("t", true), 0);
  capture3.text();
  EXPECT_EQ(readFile(store("t/a.txt")), "alpha");
  EXPECT_EQ(readFile(store("t/s/b.txt")), "beta");
  EXPECT_EQ(permissionsOf(store("t/s")), 0705);
  EXPECT_TRUE(pathExists(store("t/s/e")));

  long makeT = indexOf("tarn.createinfo TestService t dir");
  long makeS = indexOf("tarn.createinfo TestService t/s dir");
  long makeE = indexOf("tarn.createinfo TestService t/s/e dir");
  ASSERT_GE(makeT, 0);
  EXPECT_LT(makeT, indexOf("tarn.uploadlocal TestService t/a.txt"));
  EXPECT_LT(makeT, makeS);
  EXPECT_LT(makeS, indexOf("tarn.uploadlocal TestService t/s/b.txt"));
  EXPECT_LT(makeS, makeE);
  // The mode of each directory is set on the service after its creation.
  EXPECT_LT(makeS, indexOf("tarn.chmod TestService 453 t/s"));
  // Nothing local changed.
  EXPECT_EQ(readFile(mirror("t/a.txt")), "alpha");
  EXPECT_EQ(permissionsOf(mirror("t/s")), 0705);
}

TEST_F(RemoteSyncTest, PushReportsTheLastEntryAndAMissingPath) {
  makeDirs(mirror("t/s"), 0750);
  mirrorFile("t/a.txt", "alpha");
  mirrorFile("t/s/z.txt", "zulu");  // the walk is breadth-first: always last

  agent_->setRules(R"([{"match": ["tarn.uploadlocal", "TestService", "t/a.txt"],
                        "reply": ["status", "NO"]}])");
  veltest::StdoutCapture capture4;
  EXPECT_EQ(VEL::syncToServer("t", true), 0);
  EXPECT_FALSE(pathExists(store("t/a.txt")));
  EXPECT_EQ(readFile(store("t/s/z.txt")), "zulu");
  EXPECT_TRUE(logged("[VEL] syncToServer() Failed to sync File t/a.txt, errCode=-6"));

  agent_->setRules(R"([{"match": ["tarn.uploadlocal", "TestService", "t/s/z.txt"],
                        "reply": ["error", "ERR disk full"]}])");
  EXPECT_EQ(VEL::syncToServer("t", true), -6);
  EXPECT_EQ(readFile(store("t/a.txt")), "alpha");
  capture4.text();

  EXPECT_EQ(VEL::syncToServer("not/here", true), -11);
  EXPECT_TRUE(
      logged("[VEL] syncToServer() Failed to sync not/here, File not exist:" + mirror("not/here")));
  EXPECT_EQ(readFile(mirror("t/a.txt")), "alpha");
  EXPECT_EQ(readFile(mirror("t/s/z.txt")), "zulu");
}

TEST_F(RemoteSyncTest, WrittenFileIsPushedOnCloseAndItsFolderPulledOnOpen) {
  storeDir("w", 0705);
  FILE* out = VEL::fopen("w/new.txt", "w");
  ASSERT_NE(out, nullptr);
  // Opening for writing pulls the folder only, never the file.
  EXPECT_EQ(permissionsOf(mirror("w")), 0705);
  EXPECT_EQ(countOf("tarn.downloadlocal"), 0u);
  ASSERT_GE(std::fputs("written here", out), 0);
  std::fflush(out);
  veltest::StdoutCapture capture5;
  EXPECT_EQ(VEL::fclose(out), 0);
  capture5.text();
  EXPECT_EQ(readFile(store("w/new.txt")), "written here");
}

}  // namespace
