// The public file API in remote mode against the reference agent: pulling
// and pushing, status queries and listings answered by the service, and the
// namespace mutations, checked in the agent's journal, its store and the
// mirror.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "vel/codeset.h"
#include "vel/hooks.h"
#include "vel/listing.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using namespace veltest;

using RemoteApiTest = RemoteFixture;

TEST_P(RemoteApiTest, PullMakesParentsMovesConflictsAsideAndKeepsLocalOnlyFiles) {
  storeDir("a", 0751);
  storeDir("a/b", 0705);
  storeFile("a/b/f", "service bytes", 0604);
  EXPECT_EQ(VEL::syncFromServer("/a//b/./f", false), 0);
  EXPECT_EQ(permissionsOf(mirror("a/b")), 0705);
  EXPECT_EQ(readFile(mirror("a/b/f")), "service bytes");
  EXPECT_TRUE(inOrder({"tarn.metadata TestService a/b/f", "tarn.metadata TestService a/b",
                       "tarn.metadata TestService a", "tarn.downloadlocal TestService a/b/f"}));

  // A local file where the service has a directory is moved aside, whole.
  storeDir("d", 0710);
  mirrorFile("d", "local bytes of d");
  EXPECT_EQ(VEL::syncFromServer("d", false), 0);
  struct stat st;
  ASSERT_EQ(::stat(mirror("d").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  std::vector<std::string> kept = keptCopies("d");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(readFile(kept[0]), "local bytes of d");

  // Nodes the service lacks: the parent is synchronised instead (it gets
  // its mode back), at the top nothing more is asked; local files stay.
  ::chmod(mirror("d").c_str(), 0700);
  mirrorFile("d/draft", "unsent draft");
  mirrorFile("solo", "unsent solo");
  agent_->clearJournal();
  EXPECT_EQ(VEL::syncFromServer("d/draft", false), 0);
  EXPECT_EQ(VEL::syncFromServer("solo", false), 0);
  EXPECT_EQ(requests(), (std::vector<std::string>{"tarn.metadata TestService d/draft",
                                                  "tarn.metadata TestService d",
                                                  "tarn.metadata TestService solo"}));
  EXPECT_EQ(permissionsOf(mirror("d")), 0710);
  EXPECT_EQ(readFile(mirror("d/draft")), "unsent draft");
  EXPECT_EQ(readFile(mirror("solo")), "unsent solo");
}

TEST_P(RemoteApiTest, QueriesAreAnsweredByTheServiceWithDecimalMasks) {
  storeDir("q", 0751);
  storeFile("q/f", "12345", 0644);  // 0x1A4
  storeFile("q/g", "", 0030);       // 0x18
  mirrorFile("q/mine", "only in the mirror");
  struct stat st;
  ASSERT_EQ(VEL::stat("q/f", &st), 0);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(0100644));
  ASSERT_EQ(VEL::stat("q", &st), 0);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(040751));
  EXPECT_EQ(VEL::getmod("q"), 0751);
  EXPECT_EQ(VEL::stat("q/mine", &st), -1);  // the mirror is not asked
  // The masks are the decimal numbers 400, 200 and 100, not octal ones.
  EXPECT_EQ(VEL::access("q/g", 4), 0);
  EXPECT_EQ(VEL::access("q/g", 1), -1);
}

// The service's time carries its UTC offset; the client's own time zone
// plays no part, whatever it is.
TEST_P(RemoteApiTest, ModificationTimesFollowTheServicesUtcOffset) {
  agent_->setRules(
      R"([{"match": ["tarn.metadata"], "reply": ["bulk", "{\"Name\":\"t\",\"Kind\":\"file\",)"
      R"(\"Size\":1,\"LastModifiedTime\":\"2024-01-01T02:00:00+0200\",\"AccessAllowRoles\":\"\"}"]}])");
  for (const char* zone : {"UTC0", "EST5", "JST-9"}) {
    ScopedEnv tz("TZ", zone);
    ::tzset();
    struct stat st;
    ASSERT_EQ(VEL::stat("t", &st), 0) << zone;
    EXPECT_EQ(st.st_mtime, 1704067200) << zone;  // 2024-01-01T00:00:00Z
  }
  ::tzset();
}

TEST_P(RemoteApiTest, ListingsComeFromTheServiceWithoutDownloads) {
  storeFile("L/a", "1");
  storeDir("L/b", 0750);
  storeFile("L/b/c", "2");
  std::vector<std::string> seen;
  struct dirent** list = nullptr;
  int count = -2;
  std::list<std::string> names;
  std::string out = stdoutOf([&] {
    VEL::VEL_DIR* dir = VEL::opendir("L");
    ASSERT_NE(dir, nullptr);
    struct dirent entry;
    struct dirent* result = nullptr;
    int rc = 0;
    while ((rc = VEL::readdir_r(dir, &entry, &result)) == 0) seen.push_back(result->d_name);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(result, nullptr);
    VEL::closedir(dir);
    count = VEL::scandir("L", &list, nullptr, nullptr);
    EXPECT_EQ(VEL::readDir("L", names, false, false), 1);
  });
  // The first entry comes in full; readdir_r cuts it to its base name.
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b"}));
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(list[0]->d_name, "L/a");
  EXPECT_STREQ(list[1]->d_name, "b");
  std::free(list[0]);
  std::free(list[1]);
  std::free(list);
  EXPECT_EQ(names, (std::list<std::string>{"a", "b"}));
  EXPECT_NE(out.find("====>L/a === 2 === L\n====>L/b === 2 === L\n"), std::string::npos) << out;
  EXPECT_EQ(permissionsOf(mirror("L")), 0750);
  EXPECT_FALSE(pathExists(mirror("L/a")));
}

TEST_P(RemoteApiTest, MkdirAndChmodGoToTheServiceFirst) {
  EXPECT_EQ(VEL::mkdir("nd", 0705), 0);
  EXPECT_EQ(storeMode("nd"), 0705);
  EXPECT_EQ(permissionsOf(mirror("nd")), 0705);
  EXPECT_EQ(VEL::mkdir("nd", 0705), -1);

  storeFile("c/only", "x", 0600);
  std::string out = stdoutOf([] { EXPECT_EQ(VEL::chmod("c/only", 0640), -11); });
  EXPECT_EQ(out,
            "[TARN]chmod success[path=c/only, mod=416]!\n"
            "chmod remote success, c/only -> mod:416.\n"
            "chmod local fail, c/only do not exist on local.\n");
  EXPECT_FALSE(pathExists(mirror("c/only")));
}

TEST_P(RemoteApiTest, RenamesOfFilesAndDirectories) {
  storeFile("f", "content");
  mirrorFile("f", "content");
  EXPECT_EQ(VEL::rename("f", "g"), 0);
  EXPECT_EQ(readFile(mirror("g")), "content");
  EXPECT_EQ(requests(),
            (std::vector<std::string>{"tarn.metadata TestService f", "tarn.move TestService f g"}));

  // A directory is completed in the mirror, moved there, uploaded under its
  // new name, and only then removed under its old name on the service.
  storeFile("S/x", "1");
  storeFile("S/sub/y", "2");
  agent_->clearJournal();
  EXPECT_EQ(VEL::rename("S", "D"), 0);
  EXPECT_EQ(readFile(mirror("D/x")), "1");
  EXPECT_FALSE(pathExists(mirror("S")));
  ASSERT_TRUE(
      inOrder({"tarn.downloadlocal TestService S/x", "tarn.downloadlocal TestService S/sub/y",
               "tarn.createinfo TestService D dir", "tarn.uploadlocal TestService D/x",
               "tarn.uploadlocal TestService D/sub/y", "tarn.remove TestService S true"}));
  EXPECT_EQ(requests().back(), "tarn.remove TestService S true");

  // Onto a path the mirror has: success, and nothing changes anywhere.
  storeFile("S2/x", "service x");
  mirrorFile("busy/mine", "mine");
  agent_->clearJournal();
  EXPECT_EQ(VEL::rename("S2", "busy"), 0);
  EXPECT_EQ(requests(), std::vector<std::string>{"tarn.metadata TestService S2"});
  EXPECT_EQ(readFile(mirror("busy/mine")), "mine");
}

// The source leaves the service only when all of the tree reached the
// mirror and all of it the service under the new name.
TEST_P(RemoteApiTest, DirectoryRenameKeepsTheSourceUntilTheWholeTreeMoved) {
  storeFile("S/x", "x");
  storeFile("S/y", "y");
  storeFile("S/sub/z", "z");
  const auto sourceIntact = [this] {
    EXPECT_EQ(storeRead("S/x"), "x");
    EXPECT_EQ(storeRead("S/y"), "y");
    EXPECT_EQ(storeRead("S/sub/z"), "z");
    EXPECT_EQ(countOf("tarn.remove"), 0u);
  };

  // A download fails: nothing moves, the agent's status comes back.
  agent_->setRules(
      R"([{"match": ["tarn.downloadlocal", "TestService", "S/y"], "reply": ["error", "ERR io"]}])");
  std::string out = stdoutOf([] { EXPECT_EQ(VEL::rename("S", "D"), -6); });
  EXPECT_NE(out.find("syncFromServer failed in RenameDir!\n"), std::string::npos) << out;
  EXPECT_FALSE(pathExists(mirror("D")));
  sourceIntact();

  // The tree is deeper than the walks may go: stopped before anything moves.
  agent_->setRules("");
  {
    ScopedEnv depth("VEL_MAX_TREE_DEPTH", "1");
    EXPECT_EQ(VEL::rename("S", "D"), -1);
  }
  EXPECT_FALSE(pathExists(mirror("D")));
  sourceIntact();

  // An upload fails, and not as the last entry (D/sub/z is): no later
  // success hides it.
  agent_->setRules(
      R"([{"match": ["tarn.uploadlocal", "TestService", "D/x"], "reply": ["status", "NO"]}])");
  EXPECT_EQ(VEL::rename("S", "D"), -6);
  sourceIntact();
  EXPECT_EQ(readFile(mirror("D/x")), "x");
}

// A mirror link standing for a service directory is not pushed, so the
// service lacks that directory under the new name: the source stays.
TEST_P(RemoteApiTest, DirectoryRenameThroughALinkedFolderKeepsTheSource) {
  storeFile("proj/a.txt", "a");
  storeFile("proj/big/f.txt", "big f");
  makeDirs(mirror("proj"), 0750);
  makeDirs(mirror("other"), 0750);
  ASSERT_EQ(::symlink("../other", mirror("proj/big").c_str()), 0);

  EXPECT_EQ(VEL::rename("proj", "proj2"), -1);
  EXPECT_EQ(storeRead("proj/big/f.txt"), "big f");
  EXPECT_EQ(storeRead("proj/a.txt"), "a");
  EXPECT_EQ(countOf("tarn.remove"), 0u);
  EXPECT_TRUE(
      logged("ERROR [TARN] VELClientTavora::RenameDir() proj/big/ is not on the service "
             "under proj2, proj is kept there\n"));

  // The mirror moved as a whole, the link with it.
  struct stat st;
  ASSERT_EQ(::lstat(mirror("proj2/big").c_str(), &st), 0);
  EXPECT_TRUE(S_ISLNK(st.st_mode));
}

// A folder that the mirror holds as a link to a folder elsewhere keeps its
// target's mode when the service's folder gets one.
TEST_P(RemoteApiTest, MkdirAllAndChmodThroughALinkKeepTheTargetsMode) {
  TempDir outside;
  ::chmod(outside.path().c_str(), 0755);
  ASSERT_EQ(::symlink(outside.path().c_str(), mirror("d").c_str()), 0);
  EXPECT_EQ(VEL::mkdir_all("d", 0700), 0);
  EXPECT_EQ(permissionsOf(outside.path()), 0755);
  EXPECT_EQ(storeMode("d"), 0700);

  std::string out = stdoutOf([] { EXPECT_EQ(VEL::chmod("d", 0711), 0); });
  EXPECT_EQ(permissionsOf(outside.path()), 0755);
  EXPECT_EQ(storeMode("d"), 0711);
  EXPECT_EQ(out.find("chmod local success"), std::string::npos) << out;
  EXPECT_TRUE(logged("ERROR [TARN] VELClientTavora::chmod(d, 457) Kept the mode of " + mirror("d") +
                     ", a symbolic link\n"));
}

// The service's folder gets its mode even when the mirror's cannot be made
// (something that is neither file nor folder holds the name).
TEST_P(RemoteApiTest, NewDirSetsTheServiceModeWhenTheMirrorFolderFails) {
  ASSERT_EQ(::mkfifo(mirror("pipe").c_str(), 0600), 0);
  EXPECT_EQ(VEL::mkdir("pipe", 0701), -1);
  EXPECT_EQ(storeMode("pipe"), 0701);
  EXPECT_TRUE(inOrder({"tarn.createinfo TestService pipe dir", "tarn.chmod TestService 449 pipe"}));
  struct stat st;
  ASSERT_EQ(::lstat(mirror("pipe").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
}

// Set-user-ID, set-group-ID and sticky bits of the service stay out of the
// mirror; the queries still report what the service said.
TEST_P(RemoteApiTest, ServiceModesReachTheMirrorAsPermissionBitsOnly) {
  storeDir("m", 01751);
  storeDir("m/s", 06705);
  EXPECT_EQ(VEL::syncFromServer("m/s", false), 0);
  EXPECT_EQ(permissionsOf(mirror("m")), 0751);
  EXPECT_EQ(permissionsOf(mirror("m/s")), 0705);

  ::chmod(mirror("m").c_str(), 0700);  // an existing directory only gets its mode updated
  EXPECT_EQ(VEL::syncFromServer("m", true), 0);
  EXPECT_EQ(permissionsOf(mirror("m")), 0751);
  EXPECT_EQ(permissionsOf(mirror("m/s")), 0705);
  EXPECT_EQ(VEL::getmod("m"), 01751);

  // A mirror link standing for a service directory keeps its target's mode.
  TempDir outside;
  ::chmod(outside.path().c_str(), 0700);
  ASSERT_EQ(::symlink(outside.path().c_str(), mirror("m/s/l").c_str()), 0);
  storeDir("m/s/l", 0755);
  EXPECT_EQ(VEL::syncFromServer("m/s/l", false), 0);
  EXPECT_EQ(permissionsOf(outside.path()), 0700);
}

// The push walk sends what lies in the mirror tree, each directory before
// its children, and nothing a link leads to, and goes no deeper than the
// bound.
TEST_P(RemoteApiTest, PushSkipsSymbolicLinksAndStopsAtTheDepthBound) {
  TempDir outside;
  writeFile(outside.sub("secret"), "not for the service");
  mirrorFile("t/file", "mine");
  mirrorFile("t/s/z.txt", "zulu");  // the walk is breadth-first: always last
  ::chmod(mirror("t/s").c_str(), 0705);
  ASSERT_EQ(::symlink(outside.path().c_str(), mirror("t/out").c_str()), 0);
  ASSERT_EQ(::symlink(outside.sub("secret").c_str(), mirror("t/alias").c_str()), 0);
  EXPECT_EQ(VEL::syncToServer("t", true), 0);
  EXPECT_EQ(storeRead("t/file"), "mine");
  EXPECT_EQ(storeMode("t/s"), 0705);
  EXPECT_TRUE(
      inOrder({"tarn.createinfo TestService t dir", "tarn.uploadlocal TestService t/file"}));
  EXPECT_TRUE(inOrder({"tarn.createinfo TestService t dir", "tarn.createinfo TestService t/s dir",
                       "tarn.uploadlocal TestService t/s/z.txt"}));
  ASSERT_FALSE(storeHas("t/out"));
  ASSERT_FALSE(storeHas("t/alias"));
  EXPECT_EQ(countOf("tarn.uploadlocal"), 2u);
  const size_t withoutLoop = requests().size();
  EXPECT_TRUE(logged("ERROR [VEL] syncToServer() Skipped symbolic link " + mirror("t/out") + "\n"));

  // A loop back into the tree ends at once.
  ASSERT_EQ(::symlink(".", mirror("t/loop").c_str()), 0);
  agent_->clearJournal();
  EXPECT_EQ(VEL::syncToServer("t", true), 0);
  EXPECT_EQ(requests().size(), withoutLoop);

  mirrorFile("d/1/2/3/f", "deep");
  ScopedEnv depth("VEL_MAX_TREE_DEPTH", "2");
  EXPECT_EQ(VEL::syncToServer("d", true), 0);
  EXPECT_TRUE(storeHas("d/1/2"));
  EXPECT_FALSE(storeHas("d/1/2/3"));
  EXPECT_TRUE(logged("ERROR [VEL] syncToServer() Stopped at the depth bound 2, not sent below " +
                     mirror("d/1/2") + "\n"));
}

// Within the depth bound a listing may still branch: a walk visits a bounded
// number of entries, pulling and pushing alike.
TEST_P(RemoteApiTest, TreeWalksStopAtTheEntryBound) {
  for (int a = 0; a < 4; ++a) {
    for (int b = 0; b < 4; ++b) {
      storeFile("wide/" + std::to_string(a) + "/" + std::to_string(b) + "/f", "x");
      mirrorFile("up/" + std::to_string(a) + "/" + std::to_string(b) + "/f", "y");
    }
  }
  ScopedEnv entries("VEL_MAX_TREE_ENTRIES", "10");
  EXPECT_EQ(VEL::syncFromServer("wide", true), 0);
  EXPECT_EQ(countOf("tarn.downloadlocal"), 0u);  // ten directories, no file reached
  EXPECT_TRUE(
      logged("ERROR [VEL] VELClientTavora::getSubDirOrFileList() Stopped at the entry "
             "bound 10, in: wide/1/\n"));
  std::list<std::string> names;
  EXPECT_EQ(VEL::readDir("wide", names, false, true), 1);
  EXPECT_EQ(names.size(), 11u);  // the listed directory and ten entries

  agent_->clearJournal();
  EXPECT_EQ(VEL::syncToServer("up", true), 0);
  EXPECT_EQ(requests().size(), 10u * 3u);  // per directory: lookup, createinfo, chmod
  EXPECT_TRUE(logged("ERROR [VEL] syncToServer() Stopped at the entry bound 10, not sent: " +
                     mirror("up/")));  // which one depends on the mirror's directory order
}

INSTANTIATE_TEST_SUITE_P(Stores, RemoteApiTest, allStores(), storeKindName);

}  // namespace
