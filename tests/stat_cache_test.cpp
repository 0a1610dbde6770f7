// The short-lived memory of a network store's answers: what a listing and
// a lookup answer again, what a change or the end of a walk forgets, an
// answer that raced with a change, and the window.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "stores/stat_cache.h"

namespace {

using velagent::StatCache;
using velagent::StoreEntry;
using velagent::StoreStat;

StoreStat file(long long size, const std::string& version) {
  StoreStat st;
  st.size = size;
  st.version = version;
  return st;
}

StoreStat folder(unsigned mode = 0750) {
  StoreStat st;
  st.isDir = true;
  st.mode = mode;
  return st;
}

StoreEntry entry(const std::string& name, const StoreStat& st) {
  StoreEntry e;
  e.name = name;
  e.isDir = st.isDir;
  e.described = true;
  e.stat = st;
  return e;
}

bool known(const StatCache& cache, const std::string& path, StoreStat* out = nullptr) {
  StoreStat st;
  bool found = cache.get(path, st);
  if (out != nullptr) {
    *out = st;
  }
  return found;
}

// A listing answers for its entries and itself, a lookup for its path;
// nothing is ever said to be absent.
TEST(StatCacheTest, AListingAnswersForItsEntriesALookupForItsPath) {
  StatCache cache(std::chrono::minutes(1));
  cache.putListing(cache.ticket(), "d", folder(),
                   {entry("a", file(3, "\"a1\"")), entry("sub", folder(0711))});
  StoreStat st;
  ASSERT_TRUE(known(cache, "d/a", &st));
  EXPECT_EQ(st.size, 3);
  EXPECT_EQ(st.version, "\"a1\"");
  ASSERT_TRUE(known(cache, "d/sub", &st));
  EXPECT_TRUE(st.isDir);
  EXPECT_EQ(st.mode, 0711u);
  EXPECT_TRUE(known(cache, "d"));
  EXPECT_FALSE(known(cache, "d/missing"));
  EXPECT_FALSE(known(cache, "d/sub/x"));

  // A later listing forgets the names it no longer shows, and what lay
  // below them; what it shows stays known below.
  cache.putListing(cache.ticket(), "d/sub", folder(), {entry("x", file(1, "\"x\""))});
  cache.putListing(cache.ticket(), "d", folder(), {entry("sub", folder())});
  EXPECT_FALSE(known(cache, "d/a"));
  EXPECT_TRUE(known(cache, "d/sub/x"));
  cache.putListing(cache.ticket(), "d", folder(), {entry("a", file(2, "\"a2\""))});
  EXPECT_FALSE(known(cache, "d/sub"));
  EXPECT_FALSE(known(cache, "d/sub/x"));
  EXPECT_TRUE(known(cache, "d/a"));
  cache.putListing(cache.ticket(), "d", folder(), {entry("a", file(2, "\"a2\""))});

  cache.put(cache.ticket(), "e/f", file(1, "\"f\""));
  ASSERT_TRUE(known(cache, "e/f", &st));
  EXPECT_EQ(st.version, "\"f\"");
  EXPECT_FALSE(known(cache, "e"));
}

TEST(StatCacheTest, AChangeForgetsThePathAndWhatIsBelow) {
  StatCache cache(std::chrono::minutes(1));
  cache.putListing(cache.ticket(), "d", folder(),
                   {entry("a", file(3, "\"a1\"")), entry("b", file(4, "\"b1\""))});
  cache.putListing(cache.ticket(), "d/deep", folder(), {entry("x", file(5, "\"x\""))});
  cache.put(cache.ticket(), "dd", folder());  // a neighbour whose name starts alike

  StoreStat st;
  cache.changeMode("d/b", 0600);
  ASSERT_TRUE(known(cache, "d/b", &st));
  EXPECT_EQ(st.mode, 0600u);
  EXPECT_EQ(st.version, "\"b1\"");
  // A walk done with a file, or a folder whose mode may have changed:
  // only that path goes.
  cache.forgetNode("d/a");
  cache.forgetNode("d/deep");
  EXPECT_FALSE(known(cache, "d/a"));
  EXPECT_FALSE(known(cache, "d/deep"));
  EXPECT_TRUE(known(cache, "d/deep/x"));
  EXPECT_TRUE(known(cache, "d/b"));

  cache.forget("d");
  for (const char* path : {"d", "d/b", "d/deep/x"}) {
    EXPECT_FALSE(known(cache, path)) << path;
  }
  EXPECT_TRUE(known(cache, "dd"));
  cache.forget("");
  EXPECT_FALSE(known(cache, "dd"));
}

// An answer asked for before a change and received after it may describe
// the path as it was: it is not kept.
TEST(StatCacheTest, AnAnswerThatCrossedAChangeIsNotKept) {
  StatCache cache(std::chrono::minutes(1));
  StatCache::Ticket before = cache.ticket();
  cache.forget("d/a");
  cache.putListing(before, "d", folder(), {entry("a", file(3, "\"old\""))});
  cache.put(before, "e", folder());
  EXPECT_FALSE(known(cache, "d/a"));
  EXPECT_FALSE(known(cache, "e"));
  cache.put(cache.ticket(), "e", folder());
  EXPECT_TRUE(known(cache, "e"));
}

TEST(StatCacheTest, AnswersLastTheirWindowFromWhenTheyWereAskedFor) {
  StatCache cache(std::chrono::milliseconds(50));
  // Asked for longer ago than the window: out of date as soon as it comes.
  StatCache::Ticket asked = cache.ticket();
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  cache.putListing(asked, "d", folder(), {entry("a", file(3, "\"a1\""))});
  EXPECT_FALSE(known(cache, "d/a"));
  EXPECT_FALSE(known(cache, "d"));
  // Asked for now, it answers until the window has passed.
  cache.putListing(cache.ticket(), "d", folder(), {entry("a", file(3, "\"a1\""))});
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_FALSE(known(cache, "d/a"));
}

}  // namespace
