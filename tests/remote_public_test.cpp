// Status queries, listings and namespace mutations through the public API
// in remote mode, against the reference agent: what the service answers
// and in which order the requests reach it.
#include <ace/OS_Memory.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "remote_e2e.h"
#include "vel/codeset.h"
#include "vel/listing.h"
#include "vel/mutations.h"
#include "vel/query.h"

namespace {

using veltest::makeDirs;
using veltest::pathExists;
using veltest::permissionsOf;
using veltest::readFile;
using veltest::RemoteE2E;

class RemotePublicTest : public RemoteE2E {};

TEST_F(RemotePublicTest, QueriesIgnoreTheMirrorAndUseTheDecimalMasks) {
  storeFile("f", "12345", 0644);  // 0x1A4
  storeDir("d", 0750);
  storeFile("owner", "", 0600);  // 0x180: no bit of 100 (0x64)
  mirrorFile("mirror-only", "local");

  struct stat st;
  std::memset(&st, 0, sizeof(st));
  ASSERT_EQ(VEL::stat("f", &st), 0);
  struct stat real;
  ASSERT_EQ(::stat(store("f").c_str(), &real), 0);
  EXPECT_NEAR(static_cast<double>(st.st_mtime), static_cast<double>(real.st_mtime), 1.0);
  ASSERT_EQ(VEL::stat("d", &st), 0);
  EXPECT_EQ(st.st_mode, static_cast<mode_t>(040750));
  EXPECT_EQ(VEL::stat("f", nullptr), -4);

  // A node only the mirror has does not exist for the queries.
  EXPECT_EQ(VEL::stat("mirror-only", &st), -1);
  EXPECT_EQ(VEL::exists("mirror-only"), 0);
  EXPECT_EQ(VEL::isFile("mirror-only"), 0);
  EXPECT_EQ(VEL::isDirectory("mirror-only"), 0);
  EXPECT_EQ(VEL::access("mirror-only", 0), -1);
  EXPECT_EQ(VEL::exists("d"), 1);
  EXPECT_EQ(VEL::isFile("d"), 0);
  EXPECT_EQ(VEL::getmod("d"), 0750);

  EXPECT_EQ(VEL::access("f", 2), 0);
  EXPECT_EQ(VEL::access("f", 1), 0);  // 0x1A4 & 0x64 = 0x24
  EXPECT_EQ(VEL::access("owner", 1), -1);
  EXPECT_EQ(VEL::access("owner", 2), 0);
  EXPECT_TRUE(logged("[VEL] VELClientTavora::getNodeInfoFromRemote()->f, "));
  EXPECT_EQ(countOf("tarn.downloadlocal"), 0u);
}

TEST_F(RemotePublicTest, ListingsSendOnlyDirectoryRequests) {
  storeFile("L/a", "1");
  storeDir("L/b", 0750);
  storeFile("L/b/x", "2");
  storeFile("L/c", "3");

  veltest::StdoutCapture capture1;
  VEL::VEL_DIR* dir = VEL::opendir("L");
  ASSERT_NE(dir, nullptr);
  std::vector<std::string> seen;
  struct dirent entry;
  std::memset(&entry, 0, sizeof(entry));
  struct dirent* result = nullptr;
  while (VEL::readdir_r(dir, &entry, &result) == 0) {
    seen.push_back(entry.d_name);
  }
  VEL::closedir(dir);
  EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "c"}));

  std::list<std::string> deep;
  EXPECT_EQ(VEL::readDir("L", deep, false, true), 1);
  std::set<std::string> deepSet(deep.begin(), deep.end());
  for (const char* expected : {"a", "b", "c", "b/x"}) {
    EXPECT_EQ(deepSet.count(expected), 1u) << expected;
  }
  std::string out = capture1.text();
  EXPECT_NE(out.find("====>L/a === 2 === L\n====>L/b === 2 === L\n====>L/c === 2 === L\n"),
            std::string::npos)
      << out;

  // Names only: no lookup, no download, nothing below L in the mirror.
  EXPECT_EQ(countOf("tarn.dir"), requests().size());
  EXPECT_GE(indexOf("tarn.dir TestService L/b/ false"), 0);
  EXPECT_FALSE(pathExists(mirror("L/a")));
  EXPECT_FALSE(pathExists(mirror("L/b")));
}

// The root has no separator to skip: its names come out whole.
TEST_F(RemotePublicTest, RootListingKeepsWholeNames) {
  storeDir("empty", 0750);
  storeFile("top", "t");
  veltest::StdoutCapture capture2;
  std::list<std::string> rootNames;
  EXPECT_EQ(VEL::readDir("/", rootNames, false, false), 1);
  struct dirent** names = nullptr;
  int count = VEL::scandir(".", &names, nullptr, nullptr);
  std::string out = capture2.text();
  EXPECT_EQ(rootNames, (std::list<std::string>{"empty", "top"}));
  EXPECT_NE(out.find("====>top === 0 === \n"), std::string::npos) << out;
  ASSERT_EQ(count, 2);
  EXPECT_STREQ(names[0]->d_name, "empty");
  EXPECT_STREQ(names[1]->d_name, "top");
  for (int i = 0; i < count; ++i) {
    ACE_OS::free(names[i]);
  }
  ACE_OS::free(names);
}

TEST_F(RemotePublicTest, DirectoryCreationSetsTheModeOnBothSides) {
  // The root is never asked for.
  EXPECT_EQ(VEL::mkdir("/", 0750), 0);
  EXPECT_TRUE(requests().empty());

  veltest::StdoutCapture capture3;
  EXPECT_EQ(VEL::mkdir("nd", 0705), 0);
  EXPECT_EQ(permissionsOf(store("nd")), 0705);
  EXPECT_EQ(permissionsOf(mirror("nd")), 0705);
  // The service already has it: an error for mkdir, none for mkdir_all.
  EXPECT_EQ(VEL::mkdir("nd", 0705), -1);
  EXPECT_EQ(VEL::mkdir_all("m/n/o", 0751), 0);
  EXPECT_EQ(VEL::mkdir_all("m/n/o", 0751), 0);
  std::string out = capture3.text();
  EXPECT_TRUE(pathExists(store("m/n/o")));
  EXPECT_EQ(permissionsOf(mirror("m/n/o")), 0751);
  EXPECT_NE(out.find("chmod remote success, m/n/o -> mod:489.\n"), std::string::npos) << out;
  EXPECT_NE(out.find("chmod local success, m/n/o -> mod:489.\n"), std::string::npos) << out;
}

TEST_F(RemotePublicTest, RemovalsGoToTheServiceFirst) {
  // A non-empty directory the service refuses to remove: success, and the
  // mirror directory stays.
  storeFile("r/x", "x");
  makeDirs(mirror("r"), 0750);
  EXPECT_EQ(VEL::rmdir("r"), 0);
  EXPECT_TRUE(pathExists(mirror("r")));
  EXPECT_TRUE(pathExists(store("r/x")));
  EXPECT_TRUE(logged("[VEL] rmdir: Failed to remove dir on VEL server. r, -6"));

  storeDir("e", 0750);
  makeDirs(mirror("e"), 0750);
  EXPECT_EQ(VEL::rmdir("e"), 0);
  EXPECT_FALSE(pathExists(store("e")));
  EXPECT_FALSE(pathExists(mirror("e")));

  storeFile("u", "service");
  mirrorFile("u", "mirror");
  EXPECT_EQ(VEL::unlink("u"), 0);
  EXPECT_FALSE(pathExists(store("u")));
  EXPECT_FALSE(pathExists(mirror("u")));
  EXPECT_GE(indexOf("tarn.remove TestService u false"), 0);
  mirrorFile("local-only", "bytes");
  EXPECT_EQ(VEL::unlink("local-only"), 0);
  EXPECT_FALSE(pathExists(mirror("local-only")));

  storeFile("T/a", "a");
  storeFile("T/s/b", "b");
  mirrorFile("T/s/b", "b");
  EXPECT_EQ(VEL::delTree("T"), 0);
  EXPECT_FALSE(pathExists(store("T")));
  EXPECT_FALSE(pathExists(mirror("T")));
  EXPECT_GE(indexOf("tarn.remove TestService T true"), 0);
}

TEST_F(RemotePublicTest, RenameOfAFileMovesItOnTheServiceThenInTheMirror) {
  storeFile("f", "content");
  mirrorFile("f", "content");
  EXPECT_EQ(VEL::rename("f", "g"), 0);
  EXPECT_EQ(readFile(store("g")), "content");
  EXPECT_EQ(readFile(mirror("g")), "content");
  EXPECT_FALSE(pathExists(store("f")));
  EXPECT_FALSE(pathExists(mirror("f")));
  EXPECT_EQ(requests(),
            (std::vector<std::string>{"tarn.metadata TestService f", "tarn.move TestService f g"}));
}

// A directory is completed in the mirror, moved there, uploaded under its
// new name, and only then removed under its old name on the service.
TEST_F(RemotePublicTest, RenameOfADirectoryGoesThroughTheMirrorInItsOrder) {
  storeFile("S/x", "1");
  storeFile("S/sub/y", "2");
  mirrorFile("S/x", "1");

  veltest::StdoutCapture capture4;
  EXPECT_EQ(VEL::rename("S", "D"), 0);
  capture4.text();
  EXPECT_EQ(readFile(store("D/x")), "1");
  EXPECT_EQ(readFile(store("D/sub/y")), "2");
  EXPECT_FALSE(pathExists(store("S")));
  EXPECT_EQ(readFile(mirror("D/sub/y")), "2");
  EXPECT_FALSE(pathExists(mirror("S")));

  std::vector<std::string> j = requests();
  long lastDownload = -1;
  long firstCreate = -1;
  long lastUpload = -1;
  for (size_t i = 0; i < j.size(); ++i) {
    long at = static_cast<long>(i);
    if (j[i].rfind("tarn.downloadlocal TestService S/", 0) == 0) lastDownload = at;
    if (firstCreate < 0 && j[i].rfind("tarn.createinfo TestService D", 0) == 0) firstCreate = at;
    if (j[i].rfind("tarn.uploadlocal TestService D/", 0) == 0) lastUpload = at;
  }
  long removal = indexOf("tarn.remove TestService S true");
  ASSERT_GE(lastDownload, 0);
  EXPECT_LT(lastDownload, firstCreate);
  EXPECT_LT(firstCreate, lastUpload);
  EXPECT_LT(lastUpload, removal);
  EXPECT_EQ(removal, static_cast<long>(j.size()) - 1);
  EXPECT_TRUE(logged("[TARN] VELClientTavora::RenameDir() move success:S->D"));
}

TEST_F(RemotePublicTest, RenameOfADirectoryOntoAnOccupiedMirrorPathChangesNothing) {
  storeFile("S/x", "service x");
  mirrorFile("busy/mine", "mine");
  auto before = snapshot(mirrorRoot());
  EXPECT_EQ(VEL::rename("S", "busy"), 0);
  EXPECT_EQ(snapshot(mirrorRoot()), before);
  EXPECT_EQ(readFile(store("S/x")), "service x");
  EXPECT_FALSE(pathExists(store("busy")));
  // Only the question whether S is a directory reached the agent.
  EXPECT_EQ(requests(), std::vector<std::string>{"tarn.metadata TestService S"});
  EXPECT_TRUE(logged("[TARN] VELClientTavora::RenameDir() stat: [" + mirror("busy") +
                     "] exist, dest directory not empty"));
}

TEST_F(RemotePublicTest, ChmodChangesTheServiceThenTheMirror) {
  storeFile("c/only", "x", 0600);
  veltest::StdoutCapture capture5;
  EXPECT_EQ(VEL::chmod("c/only", 0640), -11);
  std::string out = capture5.text();
  EXPECT_EQ(permissionsOf(store("c/only")), 0640);
  EXPECT_EQ(out,
            "[TARN]chmod success[path=c/only, mod=416]!\n"
            "chmod remote success, c/only -> mod:416.\n"
            "chmod local fail, c/only do not exist on local.\n");
  EXPECT_GE(indexOf("tarn.chmod TestService 416 c/only"), 0);

  mirrorFile("c/only", "x");
  veltest::StdoutCapture capture6;
  EXPECT_EQ(VEL::chmod("c/only", 0604), 0);
  out = capture6.text();
  EXPECT_NE(out.find("chmod local success, c/only -> mod:388.\n"), std::string::npos) << out;
  EXPECT_EQ(permissionsOf(mirror("c/only")), 0604);
  EXPECT_EQ(permissionsOf(store("c/only")), 0604);
}

}  // namespace
