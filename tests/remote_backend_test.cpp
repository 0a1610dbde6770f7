// The remote back-end against the reference file agent: node lookup and
// synchronisation into the mirror, listings with their progress lines, the
// mutating operations, and what happens when the agent is gone, refuses or
// drops the connection. Each case runs its own agent, store, mirror and log.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <dirent.h>

#include <algorithm>
#include <list>
#include <string>
#include <vector>

#include "remote_fixture.h"
#include "vel/client_tavora.h"

namespace {

using veltest::makeDirs;
using veltest::pathExists;
using veltest::permissionsOf;
using veltest::readFile;
using veltest::writeFile;

class RemoteBackendTest : public RemoteFixture {};

TEST_F(RemoteBackendTest, SyncCreatesMissingParentsWithServiceModesThenDownloads) {
  storeDir("a", 0751);
  storeDir("a/b", 0705);
  storeFile("a/b/f", "service bytes", 0640);
  EXPECT_EQ(client_->syncNodeFromRemote("a/b/f", nullptr), 0);
  EXPECT_EQ(permissionsOf(mirror("a")), 0751);
  EXPECT_EQ(permissionsOf(mirror("a/b")), 0705);
  EXPECT_EQ(readFile(mirror("a/b/f")), "service bytes");
  std::vector<std::string> j = requests();
  size_t leaf = indexOf(j, "tarn.metadata TestService a/b/f");
  size_t mid = indexOf(j, "tarn.metadata TestService a/b");
  size_t top = indexOf(j, "tarn.metadata TestService a");
  size_t download = indexOf(j, "tarn.downloadlocal TestService a/b/f");
  ASSERT_LT(download, j.size());
  EXPECT_LT(leaf, mid);
  EXPECT_LT(mid, top);
  EXPECT_LT(top, download);
}

TEST_F(RemoteBackendTest, DirectoryNodesAgainstWhatTheMirrorHolds) {
  // A local regular file where the service has a directory is moved aside.
  storeDir("d", 0750);
  writeFile(mirror("d"), "local only bytes");
  EXPECT_EQ(client_->syncNodeFromRemote("d", nullptr), 0);
  struct stat st;
  ASSERT_EQ(::stat(mirror("d").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  std::vector<std::string> kept = keptCopies("", "d");
  ASSERT_EQ(kept.size(), 1u);
  EXPECT_EQ(readFile(mirror(kept[0])), "local only bytes");
  EXPECT_NE(logText().find("CALL [VEL] VELClientTavora::DealNotFile() Remove conflicting file: " +
                           mirror("d")),
            std::string::npos);

  // A local directory only gets the service's mode; its content stays.
  storeDir("e", 0755);
  makeDirs(mirror("e"), 0700);
  writeFile(mirror("e/inside"), "keep me");
  EXPECT_EQ(client_->syncNodeFromRemote("e", nullptr), 0);
  EXPECT_EQ(permissionsOf(mirror("e")), 0755);
  EXPECT_EQ(readFile(mirror("e/inside")), "keep me");
  EXPECT_TRUE(keptCopies("", "e").empty());
}

TEST_F(RemoteBackendTest, NodeTheServiceLacksLeadsToItsParent) {
  storeDir("p", 0710);
  EXPECT_EQ(client_->syncNodeFromRemote("p/ghost", nullptr), 0);
  EXPECT_EQ(permissionsOf(mirror("p")), 0710);
  std::vector<std::string> j = requests();
  EXPECT_LT(indexOf(j, "tarn.metadata TestService p/ghost"),
            indexOf(j, "tarn.metadata TestService p"));
  EXPECT_EQ(indexOf(j, "tarn.metadata TestService p"), j.size() - 1);

  // Top level: nothing further is asked and nothing local is touched.
  writeFile(mirror("solo"), "mine");
  clearRequests();
  EXPECT_EQ(client_->syncNodeFromRemote("solo", nullptr), 0);
  EXPECT_EQ(requests(), std::vector<std::string>{"tarn.metadata TestService solo"});
  EXPECT_EQ(readFile(mirror("solo")), "mine");
}

TEST_F(RemoteBackendTest, MissingMirrorRootIsCreatedWith0750) {
  storeFile("top.txt", "t", 0644);
  veltest::removeTree(mirrorRoot());
  EXPECT_EQ(client_->syncNodeFromRemote("top.txt", nullptr), 0);
  EXPECT_EQ(permissionsOf(mirrorRoot()), 0750);
  EXPECT_EQ(readFile(mirror("top.txt")), "t");
}

TEST_F(RemoteBackendTest, TreeSyncFetchesEveryNode) {
  storeFile("T/a", "A", 0640);
  storeDir("T/s", 0751);
  storeFile("T/s/t", "deep", 0600);
  storeDir("T/s/u", 0700);
  EXPECT_EQ(client_->syncTreeFromRemote("T"), 0);
  EXPECT_EQ(readFile(mirror("T/a")), "A");
  EXPECT_EQ(readFile(mirror("T/s/t")), "deep");
  EXPECT_EQ(permissionsOf(mirror("T/s")), 0751);
  EXPECT_EQ(permissionsOf(mirror("T/s/u")), 0700);
}

TEST_F(RemoteBackendTest, ListingsPrintTheirLinesAndDownloadNothing) {
  storeFile("L/a", "1", 0640);
  storeDir("L/s", 0750);
  storeFile("L/s/t", "2", 0640);

  std::list<std::string> names;
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->listDir("L", 1, false, names), 0);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(names, (std::list<std::string>{"L/a", "s"}));
  EXPECT_NE(out.find("====>L/a === 2 === L\n====>L/s === 2 === L\n"), std::string::npos) << out;

  EXPECT_EQ(client_->listDir("L", 1, true, names), 0);
  EXPECT_EQ(names, std::list<std::string>{"L/a"});

  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->listDir("/L/", -1, false, names), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(names, (std::list<std::string>{"L", "a", "s", "s/t"}));

  EXPECT_FALSE(pathExists(mirror("L")));
  for (const std::string& request : requests()) {
    EXPECT_EQ(request.rfind("tarn.dir ", 0), 0u) << request;
  }
}

TEST_F(RemoteBackendTest, StatSlotHandsOutTheServiceRecord) {
  EXPECT_EQ(client_->stat("x", nullptr), -4);

  storeFile("s/f", "12345", 0604);
  VEL::VELFileInfoWrap* wrap = nullptr;
  ASSERT_EQ(client_->stat("s/f", &wrap), 0);
  std::unique_ptr<VEL::VELFileInfoWrap> owner(wrap);
  ASSERT_NE(wrap, nullptr);
  ASSERT_NE(wrap->get(), nullptr);
  EXPECT_EQ(wrap->get()->velPath, "s/f");
  EXPECT_TRUE(wrap->get()->isFile);
  EXPECT_EQ(wrap->get()->size, 5);
  EXPECT_EQ(wrap->get()->mode, 0604u);
  EXPECT_EQ(wrap->get()->errNo, 0);
  struct stat st;
  ASSERT_EQ(::stat(store("s/f").c_str(), &st), 0);
  EXPECT_NEAR(static_cast<double>(wrap->get()->lastModifyTime), static_cast<double>(st.st_mtime),
              1.0);

  EXPECT_EQ(client_->stat("s/none", &wrap), -19);
  EXPECT_EQ(wrap->get(), nullptr);
}

TEST_F(RemoteBackendTest, MissingModeKeyFallsBackByKind) {
  setRules(R"([
    {"match": ["tarn.metadata", "TestService", "dir1"], "reply": ["bulk",
      "{\"Name\":\"dir1\",\"Kind\":\"dir\",\"LastModifiedTime\":\"2024-01-02T03:04:05+0000\",\"AccessAllowRoles\":\"\"}"]},
    {"match": ["tarn.metadata", "TestService", "file1"], "reply": ["bulk",
      "{\"Name\":\"file1\",\"Kind\":\"file\",\"Size\":77,\"LastModifiedTime\":\"2024-01-02T03:04:05+0000\",\"AccessAllowRoles\":\"\"}"]}
  ])");
  VEL::VELFileInfoWrap dir;
  ASSERT_EQ(client_->getNodeInfoFromRemote("dir1", &dir), 0);
  EXPECT_FALSE(dir.get()->isFile);
  EXPECT_EQ(dir.get()->mode, 0750u);
  struct tm parts = {};
  strptime("2024-01-02T03:04:05+0000", "%Y-%m-%dT%H:%M:%S%z", &parts);
  parts.tm_isdst = -1;
  EXPECT_EQ(dir.get()->lastModifyTime, static_cast<int64_t>(mktime(&parts)));
  VEL::VELFileInfoWrap file;
  ASSERT_EQ(client_->getNodeInfoFromRemote("file1", &file), 0);
  EXPECT_TRUE(file.get()->isFile);
  EXPECT_EQ(file.get()->mode, 0640u);
  EXPECT_EQ(file.get()->size, 77);
}

TEST_F(RemoteBackendTest, NoAgentAnswersMinus18AndMinus6ForRenameAndChmod) {
  writeFile(mirror("kept"), "local");
  makeDirs(mirror("kd"), 0750);
  stopAgent();
  VEL::VELFileInfoWrap wrap;
  EXPECT_EQ(client_->getNodeInfoFromRemote("kept", &wrap), -18);
  EXPECT_EQ(client_->syncNodeFromRemote("kept", nullptr), -18);
  EXPECT_EQ(client_->putFileToRemote("kept"), -18);
  EXPECT_EQ(client_->removeObjectOnRemote("kept"), -18);
  EXPECT_EQ(client_->delDir("kd", true), -18);
  EXPECT_EQ(client_->newDir("nd", 0750, false), -18);
  EXPECT_EQ(client_->rename("kept", "other"), -6);
  EXPECT_EQ(client_->renameCache("kept", "other"), -6);
  EXPECT_EQ(client_->chmod("kept", 0600), -6);
  VEL::VELFileInfoWrap* out = nullptr;
  EXPECT_EQ(client_->stat("kept", &out), -18);
  delete out;
  std::list<std::string> names{"stale"};
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->listDir("kd", 1, false, names), 0);
  EXPECT_EQ(client_->syncTreeFromRemote("kd"), 0);
  testing::internal::GetCapturedStdout();
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->RenameDir("kd", "kd2"), -18);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("syncFromServer failed in RenameDir!\n"),
            std::string::npos);
  EXPECT_TRUE(names.empty());

  EXPECT_EQ(readFile(mirror("kept")), "local");
  EXPECT_EQ(permissionsOf(mirror("kept")) & 0777, permissionsOf(mirror("kept")));
  EXPECT_TRUE(pathExists(mirror("kd")));
  EXPECT_FALSE(pathExists(mirror("kd2")));
  EXPECT_NE(logText().find("[VEL] TarnGetClient() Begin report status, request is " + udsRoot() +
                           "/velfileagent/velfileagent.sock."),
            std::string::npos);
  EXPECT_NE(logText().find("[TARN] VELClientTavora::rename() Failed to get client :kept->other, "
                           "errCode=-6"),
            std::string::npos);
}

TEST_F(RemoteBackendTest, RefusedOrDroppedDownloadsKeepTheLocalCopy) {
  storeFile("r/f", "service", 0640);
  makeDirs(mirror("r"), 0750);
  writeFile(mirror("r/f"), "local copy");
  setRules(R"([{"match": ["tarn.downloadlocal"], "reply": ["status", "NO"]}])");
  EXPECT_EQ(client_->syncNodeFromRemote("r/f", nullptr), -6);
  EXPECT_EQ(readFile(mirror("r/f")), "local copy");
  EXPECT_NE(logText().find("[VEL] VELClientTavora::doSyncNodeFromRemote() Failed to download: r/f, "
                           "416, -6"),
            std::string::npos);

  setRules(R"([{"match": ["tarn.downloadlocal"], "reply": ["close", ""]}])");
  EXPECT_EQ(client_->syncNodeFromRemote("r/f", nullptr), -6);
  EXPECT_EQ(readFile(mirror("r/f")), "local copy");

  // A listing that drops the connection ends the walk; nothing local goes.
  setRules(R"([{"match": ["tarn.dir"], "reply": ["close", ""]}])");
  EXPECT_EQ(client_->syncTreeFromRemote("r"), 0);
  EXPECT_EQ(readFile(mirror("r/f")), "local copy");
  // A metadata lookup that fails during the walk stops that directory.
  setRules(R"([{"match": ["tarn.metadata"], "reply": ["error", "ERR broken"]}])");
  EXPECT_EQ(client_->syncTreeFromRemote("r"), 0);
  EXPECT_EQ(readFile(mirror("r/f")), "local copy");
  EXPECT_NE(logText().find("[VEL] VELClientTavora::syncCurrentPath() Failed to get noder/f, -1"),
            std::string::npos);
}

TEST_F(RemoteBackendTest, UploadRenameAndRemovalOnTheWire) {
  makeDirs(mirror("u"), 0750);
  writeFile(mirror("u/f"), "up");
  EXPECT_EQ(client_->putFileToRemote("u/f"), 0);
  EXPECT_EQ(readFile(store("u/f")), "up");

  EXPECT_EQ(client_->rename("u/f", "u/g"), 0);
  EXPECT_EQ(client_->renameCache("u/g", "u/h"), 0);
  EXPECT_EQ(readFile(store("u/h")), "up");
  storeDir("gone/sub", 0750);
  EXPECT_EQ(client_->removeObjectOnRemote("u/h"), 0);
  EXPECT_EQ(client_->delDir("gone", true), 0);
  EXPECT_FALSE(pathExists(store("gone")));
  std::vector<std::string> j = requests();
  for (const char* expected :
       {"tarn.uploadlocal TestService u/f", "tarn.move TestService u/f u/g",
        "tarn.move_cache TestService u/g u/h", "tarn.remove TestService u/h false",
        "tarn.remove TestService gone true"}) {
    EXPECT_LT(indexOf(j, expected), j.size()) << expected;
  }

  setRules(R"([{"match": ["tarn.uploadlocal"], "reply": ["status", "NO"]},
               {"match": ["tarn.move"], "reply": ["status", "ok"]},
               {"match": ["tarn.remove"], "reply": ["error", "ERR no"]}])");
  EXPECT_EQ(client_->putFileToRemote("u/f"), -6);
  EXPECT_EQ(client_->rename("u/f", "u/z"), -6);
  EXPECT_EQ(client_->removeObjectOnRemote("u/f"), -6);
  EXPECT_EQ(client_->delDir("u", true), -6);
  EXPECT_EQ(readFile(mirror("u/f")), "up");
  std::string log = logText();
  EXPECT_NE(log.find("[VEL] VELClientTavora::putFileToRemote() Failed to uploadloacal:u/f, "
                     "errCode:-6"),
            std::string::npos);
  EXPECT_NE(log.find("[TARN] VELClientTavora::rename() Failed to move:u/f->u/z, errCode=-6"),
            std::string::npos);
  EXPECT_NE(log.find("[VEL] VELClientTavora::removeObjectOnRemote() Failed to do action "
                     "\"delNode\":u/f, errCode=-6"),
            std::string::npos);
  EXPECT_NE(
      log.find("[VEL] VELClientTavora::delDir() Failed to do action \"delTree\":u, errCode=-6"),
      std::string::npos);
}

TEST_F(RemoteBackendTest, ChmodChangesTheServiceFirstThenTheMirror) {
  storeFile("c/only", "x", 0600);
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->chmod("c/only", 0640), -11);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("chmod remote success, c/only -> mod:416.\n"), std::string::npos) << out;
  EXPECT_NE(out.find("chmod local fail, "), std::string::npos) << out;
  EXPECT_NE(out.find(" do not exist on local.\n"), std::string::npos) << out;
  EXPECT_EQ(permissionsOf(store("c/only")), 0640);
  EXPECT_LT(indexOf(requests(), "tarn.chmod TestService 416 c/only"), requests().size());

  makeDirs(mirror("c"), 0750);
  writeFile(mirror("c/only"), "x");
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->chmod("c/only", 0604), 0);
  out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("chmod local success, "), std::string::npos) << out;
  EXPECT_EQ(permissionsOf(mirror("c/only")), 0604);

  setRules(R"([{"match": ["tarn.chmod"], "reply": ["status", "DENIED"]}])");
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->chmod("c/only", 0600), -6);
  out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("chmod remote fail, c/only -> mod:384.\n"), std::string::npos) << out;
  EXPECT_EQ(permissionsOf(mirror("c/only")), 0604);
}

TEST_F(RemoteBackendTest, NewDirCreatesOnTheServiceAndInTheMirror) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(client_->newDir("nd/deep", 0705, false), 0);
  EXPECT_TRUE(pathExists(store("nd/deep")));
  EXPECT_EQ(permissionsOf(mirror("nd/deep")), 0705);
  std::vector<std::string> j = requests();
  EXPECT_LT(indexOf(j, "tarn.createinfo TestService nd/deep dir"),
            indexOf(j, "tarn.chmod TestService 453 nd/deep"));
  EXPECT_LT(indexOf(j, "tarn.chmod TestService 453 nd/deep"), j.size());

  // An existing directory: reported as "already exists", mirror and mode
  // brought in step all the same.
  storeDir("have", 0750);
  EXPECT_EQ(client_->newDir("have", 0711, true), -12);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(permissionsOf(mirror("have")), 0711);
  EXPECT_EQ(permissionsOf(store("have")), 0711);

  setRules(R"([{"match": ["tarn.createinfo"], "reply": ["status", "EXISTS"]}])");
  EXPECT_EQ(client_->newDir("refused", 0750, false), -6);
  EXPECT_FALSE(pathExists(mirror("refused")));
  EXPECT_NE(logText().find("[VEL] VELClientTavora::newDir() Failed to newDir:refused, errCode=-6"),
            std::string::npos);
}

TEST_F(RemoteBackendTest, RenameDirMirrorsMovesUploadsThenRemoves) {
  storeFile("S/x", "1", 0640);
  storeFile("S/sub/y", "2", 0640);
  EXPECT_EQ(client_->RenameDir("S", "D"), 0);
  EXPECT_EQ(readFile(store("D/x")), "1");
  EXPECT_EQ(readFile(store("D/sub/y")), "2");
  EXPECT_FALSE(pathExists(store("S")));
  EXPECT_EQ(readFile(mirror("D/sub/y")), "2");
  EXPECT_FALSE(pathExists(mirror("S")));
  std::vector<std::string> j = requests();
  size_t lastDownload = 0;
  size_t firstUpload = j.size();
  size_t lastUpload = 0;
  for (size_t i = 0; i < j.size(); ++i) {
    if (j[i].rfind("tarn.downloadlocal", 0) == 0) lastDownload = i;
    if (j[i].rfind("tarn.uploadlocal", 0) == 0) {
      firstUpload = std::min(firstUpload, i);
      lastUpload = i;
    }
  }
  size_t removal = indexOf(j, "tarn.remove TestService S true");
  ASSERT_LT(removal, j.size());
  EXPECT_LT(lastDownload, firstUpload);
  EXPECT_LT(lastUpload, removal);

  // An occupied destination: success, and nothing moves anywhere.
  storeFile("S2/x", "3", 0640);
  makeDirs(mirror("busy"), 0750);
  clearRequests();
  EXPECT_EQ(client_->RenameDir("S2", "busy"), 0);
  EXPECT_TRUE(requests().empty());
  EXPECT_EQ(readFile(store("S2/x")), "3");
  EXPECT_NE(logText().find("dest directory not empty"), std::string::npos);
}

}  // namespace
