// The short-lived memory of a network store's answers: what a listing and
// a stat answer again, what a change forgets, an answer that raced with a
// change, and the window.
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
using Found = StatCache::Found;

StoreStat file(long long size, const std::string& version) {
  StoreStat st;
  st.size = size;
  st.version = version;
  return st;
}

StoreStat folder() {
  StoreStat st;
  st.isDir = true;
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

Found lookup(const StatCache& cache, const std::string& path, StoreStat* out = nullptr) {
  StoreStat st;
  Found found = cache.get(path, st);
  if (out != nullptr) {
    *out = st;
  }
  return found;
}

TEST(StatCacheTest, AListingAnswersForItsEntriesAndItsGaps) {
  StatCache cache(std::chrono::minutes(1));
  cache.putListing(cache.ticket(), "d", folder(),
                   {entry("a", file(3, "\"a1\"")), entry("sub", folder())});
  StoreStat st;
  EXPECT_EQ(lookup(cache, "d/a", &st), Found::kPresent);
  EXPECT_EQ(st.size, 3);
  EXPECT_EQ(st.version, "\"a1\"");
  EXPECT_EQ(lookup(cache, "d/sub", &st), Found::kPresent);
  EXPECT_TRUE(st.isDir);
  EXPECT_EQ(lookup(cache, "d", &st), Found::kPresent);
  EXPECT_EQ(lookup(cache, "d/missing"), Found::kAbsent);
  EXPECT_EQ(lookup(cache, "d/sub/x"), Found::kUnknown);  // not listed
  EXPECT_EQ(lookup(cache, "e"), Found::kUnknown);
  EXPECT_EQ(lookup(cache, ""), Found::kUnknown);

  // A stat of a name the listing lacked, made later, wins over the gap; a
  // later listing without a name that a stat found makes it absent again.
  cache.put(cache.ticket(), "d/late", file(1, "\"l\""));
  EXPECT_EQ(lookup(cache, "d/late"), Found::kPresent);
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  cache.putListing(cache.ticket(), "d", folder(), {entry("a", file(3, "\"a2\""))});
  EXPECT_EQ(lookup(cache, "d/late"), Found::kAbsent);
  EXPECT_EQ(lookup(cache, "d/a", &st), Found::kPresent);
  EXPECT_EQ(st.version, "\"a2\"");
}

TEST(StatCacheTest, AChangeForgetsThePathWhatIsBelowAndTheListingAbove) {
  StatCache cache(std::chrono::minutes(1));
  cache.putListing(cache.ticket(), "", folder(), {entry("d", folder()), entry("f", file(1, "1"))});
  cache.putListing(cache.ticket(), "d", folder(),
                   {entry("a", file(3, "\"a1\"")), entry("b", file(4, "\"b1\""))});
  cache.putListing(cache.ticket(), "d/deep", folder(), {entry("x", file(5, "\"x\""))});

  cache.forget("d/a");
  EXPECT_EQ(lookup(cache, "d/a"), Found::kUnknown);
  EXPECT_EQ(lookup(cache, "d/new"), Found::kUnknown);  // the listing of d is gone
  EXPECT_EQ(lookup(cache, "d/b"), Found::kPresent);    // the neighbour is not
  EXPECT_EQ(lookup(cache, "f"), Found::kPresent);

  StoreStat st;
  cache.changeMode("d/b", 0600);
  EXPECT_EQ(lookup(cache, "d/b", &st), Found::kPresent);
  EXPECT_EQ(st.mode, 0600u);
  EXPECT_EQ(st.version, "\"b1\"");
  cache.forgetNode("d/deep");  // its mode may have changed: nothing else did
  EXPECT_EQ(lookup(cache, "d/deep"), Found::kUnknown);
  EXPECT_EQ(lookup(cache, "d/deep/x"), Found::kPresent);
  EXPECT_EQ(lookup(cache, "d/deep/y"), Found::kAbsent);
  EXPECT_EQ(lookup(cache, "d/b"), Found::kPresent);

  cache.forget("d");
  for (const char* path : {"d", "d/b", "d/deep", "d/deep/x", "d/deep/y"}) {
    EXPECT_EQ(lookup(cache, path), Found::kUnknown) << path;
  }
  EXPECT_EQ(lookup(cache, "f"), Found::kPresent);
  EXPECT_EQ(lookup(cache, "other"), Found::kUnknown);  // the top's listing is gone too
  cache.put(cache.ticket(), "dd", file(1, "1"));       // a sibling whose name starts alike
  cache.forget("d");
  EXPECT_EQ(lookup(cache, "dd"), Found::kPresent);
  cache.forget("");
  EXPECT_EQ(lookup(cache, "dd"), Found::kUnknown);
}

TEST(StatCacheTest, ANameFoundMissingStaysMissingUntilAChangeOrALaterAnswer) {
  StatCache cache(std::chrono::minutes(1));
  cache.putAbsent(cache.ticket(), "d/gone");
  EXPECT_EQ(lookup(cache, "d/gone"), Found::kAbsent);
  EXPECT_EQ(lookup(cache, "d/other"), Found::kUnknown);
  cache.forget("d/gone");
  EXPECT_EQ(lookup(cache, "d/gone"), Found::kUnknown);
  cache.putAbsent(cache.ticket(), "d/gone");
  cache.put(cache.ticket(), "d/gone", file(2, "\"g\""));
  EXPECT_EQ(lookup(cache, "d/gone"), Found::kPresent);
  cache.forget("d");
  cache.putAbsent(cache.ticket(), "d/gone");
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  cache.putListing(cache.ticket(), "d", folder(), {entry("gone", file(3, "\"h\""))});
  EXPECT_EQ(lookup(cache, "d/gone"), Found::kPresent);
}

// An answer asked for before a change and received after it may describe
// the path as it was: it is not kept.
TEST(StatCacheTest, AnAnswerThatCrossedAChangeIsNotKept) {
  StatCache cache(std::chrono::minutes(1));
  StatCache::Ticket before = cache.ticket();
  cache.forget("d/a");
  cache.put(before, "d/a", file(3, "\"old\""));
  cache.putListing(before, "d", folder(), {entry("a", file(3, "\"old\""))});
  EXPECT_EQ(lookup(cache, "d/a"), Found::kUnknown);
  EXPECT_EQ(lookup(cache, "d/b"), Found::kUnknown);
  cache.put(cache.ticket(), "d/a", file(4, "\"new\""));
  EXPECT_EQ(lookup(cache, "d/a"), Found::kPresent);
}

TEST(StatCacheTest, AnswersLastTheirWindowFromWhenTheyWereAskedFor) {
  StatCache cache(std::chrono::milliseconds(50));
  // Asked for longer ago than the window: out of date as soon as it comes.
  StatCache::Ticket asked = cache.ticket();
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  cache.putListing(asked, "d", folder(), {entry("a", file(3, "\"a1\""))});
  EXPECT_EQ(lookup(cache, "d/a"), Found::kUnknown);
  EXPECT_EQ(lookup(cache, "d/b"), Found::kUnknown);
  // Asked for now, it answers until the window has passed.
  cache.putListing(cache.ticket(), "d", folder(), {entry("a", file(3, "\"a1\""))});
  cache.putAbsent(cache.ticket(), "e");
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(lookup(cache, "d/a"), Found::kUnknown);
  EXPECT_EQ(lookup(cache, "d/b"), Found::kUnknown);
  EXPECT_EQ(lookup(cache, "e"), Found::kUnknown);
}

}  // namespace
