// The agent's sync record on its own: what it keeps and finds, how whole
// trees are forgotten and renamed, which names a folder has records for,
// that two mirrors or services in one state folder never mix, and that a
// missing, corrupt or unwritable database never stops it.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "sync/record.h"

namespace {

using velagent::ContentHash;
using velagent::RecordEntry;
using velagent::SyncRecord;
using veltest::TempDir;

RecordEntry entry(const std::string& path, const std::string& version, uint64_t hash = 1) {
  RecordEntry e;
  e.path = path;
  e.version = version;
  e.settled = true;
  e.identity = true;
  e.mirrorInode = 7;
  e.mirrorSize = 11;
  e.mirrorMtimeNs = 1234567890123456789LL;
  e.mirrorSettled = true;
  e.hash.high = hash;
  e.hash.low = ~hash;
  return e;
}

std::vector<std::string> pathsOf(const std::vector<RecordEntry>& entries) {
  std::vector<std::string> paths;
  for (const RecordEntry& e : entries) {
    paths.push_back(e.path);
  }
  return paths;
}

std::string childrenOf(SyncRecord& record, const std::string& folder) {
  std::string out;
  for (const SyncRecord::Child& child : record.children(folder)) {
    out += child.name + (child.file ? "" : "") + (child.folder ? "/" : "") + " ";
  }
  return out;
}

TEST(SyncRecord, KeepsEntriesAcrossReopeningAndFindsThemByPathVersionAndHash) {
  TempDir state;
  std::string note;
  {
    auto record = SyncRecord::open(state.path(), "/m", "folder:/s", note);
    ASSERT_TRUE(record);
    EXPECT_NE(std::string::npos, note.find("created")) << note;
    EXPECT_FALSE(record->file().empty());
    ASSERT_TRUE(record->put(entry("d/f", "v1", 5)));
    RecordEntry other = entry("d/g", "v2", 5);
    other.identity = false;  // a version that does not name the content
    ASSERT_TRUE(record->put(other));
    ASSERT_TRUE(record->put(entry("d/f", "v3", 6)));  // replaces
  }
  auto record = SyncRecord::open(state.path(), "/m", "folder:/s", note);
  EXPECT_EQ("", note) << "an existing record opens without a word";
  RecordEntry got;
  ASSERT_TRUE(record->get("d/f", got));
  const RecordEntry want = entry("d/f", "v3", 6);
  EXPECT_EQ(want.version, got.version);
  EXPECT_EQ(want.settled, got.settled);
  EXPECT_EQ(want.identity, got.identity);
  EXPECT_EQ(want.mirrorInode, got.mirrorInode);
  EXPECT_EQ(want.mirrorSize, got.mirrorSize);
  EXPECT_EQ(want.mirrorMtimeNs, got.mirrorMtimeNs);
  EXPECT_EQ(want.mirrorSettled, got.mirrorSettled);
  EXPECT_EQ(want.hash, got.hash);
  EXPECT_FALSE(record->get("d", got));
  EXPECT_FALSE(record->get("d/f/x", got));

  EXPECT_EQ((std::vector<std::string>{"d/f"}), pathsOf(record->withVersion("v3")));
  EXPECT_TRUE(record->withVersion("v2").empty()) << "only versions that name their content";
  EXPECT_EQ((std::vector<std::string>{"d/g"}), pathsOf(record->withHash(entry("", "", 5).hash)));
}

TEST(SyncRecord, TreesAreForgottenAndRenamedWhole) {
  auto record = SyncRecord::inMemory("/m", "folder:/s");
  ASSERT_TRUE(record);
  for (const char* path : {"a", "a/x", "a/y/z", "a!", "ab", "a0", "b/c"}) {
    ASSERT_TRUE(record->put(entry(path, path)));
  }
  EXPECT_EQ((std::vector<std::string>{"a/x", "a/y/z"}), pathsOf(record->below("a", false)));
  EXPECT_EQ((std::vector<std::string>{"a/x"}), pathsOf(record->below("a", true)));
  EXPECT_EQ(7u, record->below("", false).size());

  // The names of a folder: "a" is both a file and a folder; "a!" sorts
  // between "a" and "a/..." and is a name of its own.
  EXPECT_EQ("a/ a! a0 ab b/ ", childrenOf(*record, ""));
  EXPECT_EQ("x y/ ", childrenOf(*record, "a"));
  EXPECT_EQ("", childrenOf(*record, "a/x"));

  // A rename takes everything below along and replaces what was there.
  ASSERT_TRUE(record->put(entry("n/old", "replaced")));
  ASSERT_TRUE(record->move("a", "n"));
  EXPECT_EQ((std::vector<std::string>{"a!", "a0", "ab", "b/c", "n", "n/x", "n/y/z"}),
            pathsOf(record->below("", false)));
  RecordEntry got;
  ASSERT_TRUE(record->get("n/y/z", got));
  EXPECT_EQ("a/y/z", got.version);

  ASSERT_TRUE(record->drop("n", true));
  ASSERT_TRUE(record->drop("a!", false));
  EXPECT_EQ((std::vector<std::string>{"a0", "ab", "b/c"}), pathsOf(record->below("", false)));
}

TEST(SyncRecord, MirrorsAndServicesSharingAStateFolderNeverMix) {
  TempDir state;
  std::string note;
  auto one = SyncRecord::open(state.path(), "/mirror/one", "folder:/store", note);
  auto two = SyncRecord::open(state.path(), "/mirror/two", "folder:/store", note);
  auto three = SyncRecord::open(state.path(), "/mirror/one", "webdav:@http://h/dav/", note);
  ASSERT_TRUE(one && two && three);
  EXPECT_NE(one->file(), two->file());
  EXPECT_NE(one->file(), three->file());
  ASSERT_TRUE(one->put(entry("f", "v1")));
  RecordEntry got;
  EXPECT_FALSE(two->get("f", got));
  EXPECT_FALSE(three->get("f", got));
  EXPECT_TRUE(one->get("f", got));
}

TEST(SyncRecord, ACorruptOrUnwritableDatabaseNeverStopsIt) {
  TempDir state;
  std::string note;
  std::string file;
  {
    auto record = SyncRecord::open(state.path(), "/m", "folder:/s", note);
    ASSERT_TRUE(record->put(entry("f", "v1")));
    file = record->file();
  }
  // Garbage where the database was: rebuilt empty, said once.
  veltest::writeFile(file, std::string(8192, 'x'));
  for (const char* suffix : {"-wal", "-shm"}) {
    ::unlink((file + suffix).c_str());
  }
  auto rebuilt = SyncRecord::open(state.path(), "/m", "folder:/s", note);
  ASSERT_TRUE(rebuilt);
  EXPECT_NE(std::string::npos, note.find("rebuilt empty")) << note;
  RecordEntry got;
  EXPECT_FALSE(rebuilt->get("f", got));
  EXPECT_TRUE(rebuilt->put(entry("f", "v2")));
  EXPECT_TRUE(rebuilt->get("f", got));
  rebuilt.reset();

  // A state "folder" that is a file: the record lives in memory.
  veltest::writeFile(state.sub("plain"), "not a folder");
  auto inMemory = SyncRecord::open(state.sub("plain"), "/m", "folder:/s", note);
  ASSERT_TRUE(inMemory);
  EXPECT_TRUE(inMemory->file().empty());
  EXPECT_NE(std::string::npos, note.find("kept in memory")) << note;
  EXPECT_TRUE(inMemory->put(entry("f", "v3")));
  EXPECT_TRUE(inMemory->get("f", got));
  EXPECT_EQ("v3", got.version);
}

}  // namespace
