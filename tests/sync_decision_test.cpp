// The sync decision table, row by row, without files or a server: for each
// command, what it does for every way the mirror copy and the service's
// file can stand against the record; and the detection that turns a stat
// into those facts.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "sync/decision.h"
#include "sync/detect.h"

namespace {

using velagent::RecordEntry;
using velagent::StoreStat;
using namespace velagent::sync;

struct Row {
  bool recorded;
  Side mirror;
  Side service;
  Contents contents;
  Action expected;
  const char* why;
};

Facts factsOf(const Row& row) {
  Facts facts;
  facts.recorded = row.recorded;
  facts.mirror = row.mirror;
  facts.service = row.service;
  facts.contents = row.contents;
  return facts;
}

void checkRows(const char* table, Action (*decide)(const Facts&), const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    EXPECT_EQ(actionName(row.expected), actionName(decide(factsOf(row))))
        << table << ": " << row.why;
  }
}

constexpr Side kAbsent = Side::kAbsent;
constexpr Side kUnchanged = Side::kUnchanged;
constexpr Side kChanged = Side::kChanged;
constexpr Side kUnsure = Side::kUnsure;
constexpr Contents kUnknown = Contents::kUnknown;
constexpr Contents kSame = Contents::kSame;
constexpr Contents kDiffer = Contents::kDiffer;

TEST(SyncDecision, Download) {
  checkRows(
      "download", decideDownload,
      {
          {true, kUnchanged, kUnchanged, kUnknown, Action::kNothing, "nothing changed: no copy"},
          {true, kUnsure, kUnchanged, kUnknown, Action::kNothing,
           "the service is unchanged: whatever the mirror holds stays, unhashed"},
          {true, kUnchanged, kChanged, kUnknown, Action::kFetch, "only the service changed"},
          {true, kChanged, kUnchanged, kUnknown, Action::kKeepMirror,
           "only the mirror changed: its copy is the newer one"},
          {true, kChanged, kChanged, kUnknown, Action::kCompare, "both changed: compare first"},
          {true, kChanged, kChanged, kSame, Action::kRecordOnly,
           "both changed to the same bytes: no conflict"},
          {true, kChanged, kChanged, kDiffer, Action::kKeepAsideAndFetch,
           "both changed differently: the mirror copy is kept aside"},
          {true, kUnsure, kChanged, kUnknown, Action::kCheckMirror,
           "a mirror copy stamped anew may be unchanged: its hash tells"},
          {true, kUnchanged, kUnsure, kUnknown, Action::kCheckService,
           "an unsettled version: the service's content tells"},
          {true, kAbsent, kUnchanged, kUnknown, Action::kFetch,
           "a copy removed straight from the mirror comes back"},
          {true, kAbsent, kChanged, kUnknown, Action::kFetch, "gone here, changed there"},
          {false, kAbsent, kChanged, kUnknown, Action::kFetch, "a new file"},
          {false, kChanged, kChanged, kUnknown, Action::kCompare,
           "no record vouches for the mirror copy: compare first"},
          {false, kChanged, kChanged, kSame, Action::kRecordOnly,
           "no record and the same bytes: no conflict"},
          {false, kChanged, kChanged, kDiffer, Action::kKeepAsideAndFetch,
           "no record and other bytes: never overwritten"},
          {true, kUnchanged, kAbsent, kUnknown, Action::kNothing, "nothing to fetch"},
      });
}

TEST(SyncDecision, Upload) {
  checkRows(
      "upload", decideUpload,
      {
          {true, kUnchanged, kUnchanged, kUnknown, Action::kNothing, "nothing changed: no send"},
          {true, kUnchanged, kUnsure, kUnknown, Action::kNothing, "nothing to send either way"},
          {true, kUnchanged, kChanged, kUnknown, Action::kStale,
           "an unchanged copy never overwrites a newer service file"},
          {true, kUnsure, kUnchanged, kUnknown, Action::kCheckMirror, "hash the mirror copy"},
          {true, kChanged, kUnchanged, kUnknown, Action::kSend, "only the mirror changed"},
          {true, kChanged, kUnsure, kUnknown, Action::kCheckService,
           "an unsettled version: the service's content tells"},
          {true, kChanged, kChanged, kUnknown, Action::kCompare, "both changed: compare first"},
          {true, kChanged, kChanged, kSame, Action::kRecordOnly, "the same bytes: no conflict"},
          {true, kChanged, kChanged, kDiffer, Action::kConflict,
           "the service changed since: refused, nothing sent"},
          {false, kChanged, kAbsent, kUnknown, Action::kSendNew, "a new name"},
          {false, kChanged, kChanged, kUnknown, Action::kCompare,
           "the name was made elsewhere: compare first"},
          {false, kChanged, kChanged, kSame, Action::kRecordOnly,
           "made elsewhere with the same bytes"},
          {false, kChanged, kChanged, kDiffer, Action::kConflict,
           "made elsewhere with other bytes: refused"},
          {true, kUnchanged, kAbsent, kUnknown, Action::kRemoveMirror,
           "removed elsewhere, untouched here: the copy goes, nothing is resurrected"},
          {true, kChanged, kAbsent, kUnknown, Action::kSendNew,
           "removed elsewhere, edited here: the edit wins, as a new file"},
          {true, kUnsure, kAbsent, kUnknown, Action::kCheckMirror,
           "removed elsewhere: only an untouched copy may go"},
      });
}

TEST(SyncDecision, Remove) {
  checkRows(
      "remove", decideRemove,
      {
          {false, kAbsent, kChanged, kUnknown, Action::kRemove, "no record: as before"},
          {true, kAbsent, kUnchanged, kUnknown, Action::kRemove, "the version this mirror saw"},
          {true, kAbsent, kChanged, kUnknown, Action::kConflict,
           "someone else changed what is being removed"},
          {true, kAbsent, kUnsure, kUnknown, Action::kCheckService,
           "an unsettled version: the content tells"},
          {true, kAbsent, kAbsent, kUnknown, Action::kForget, "gone already"},
      });
}

TEST(SyncDecision, GoneFromTheService) {
  const std::vector<Row> rows = {
      {true, kUnchanged, kAbsent, kUnknown, Action::kRemoveMirror,
       "removed elsewhere, untouched here: the copy goes"},
      {true, kChanged, kAbsent, kUnknown, Action::kForget,
       "an edit wins over a removal: the copy stays, unrecorded"},
      {true, kAbsent, kAbsent, kUnknown, Action::kForget, "no copy: only the record goes"},
      {true, kUnsure, kAbsent, kUnknown, Action::kCheckMirror, "hash before removing"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(actionName(row.expected), actionName(decideGone(factsOf(row), false))) << row.why;
  }
  Row moved = {true, kUnchanged, kAbsent, kUnknown, Action::kMoveMirror, ""};
  EXPECT_EQ(actionName(Action::kMoveMirror), actionName(decideGone(factsOf(moved), true)))
      << "renamed elsewhere, untouched here: the copy follows";
  Row editedThenMoved = {true, kChanged, kAbsent, kUnknown, Action::kForget, ""};
  EXPECT_EQ(actionName(Action::kForget), actionName(decideGone(factsOf(editedThenMoved), true)))
      << "renamed elsewhere, edited here: the edit stays where it was made";
}

// What a stat says against a record.
TEST(SyncDetect, MirrorAndServiceAgainstTheRecord) {
  RecordEntry record;
  record.version = "v1";
  record.settled = true;
  record.mirrorInode = 42;
  record.mirrorSize = 5;
  record.mirrorMtimeNs = 1700000000LL * 1000000000LL + 123;
  record.mirrorSettled = true;

  struct stat st = {};
  st.st_ino = 42;
  st.st_size = 5;
  st.st_mtim.tv_sec = 1700000000;
  st.st_mtim.tv_nsec = 123;
  EXPECT_EQ(Side::kUnchanged, mirrorAgainst(record, st));
  st.st_mtim.tv_nsec = 124;  // a read stamps the copy anew
  EXPECT_EQ(Side::kUnsure, mirrorAgainst(record, st));
  st.st_mtim.tv_nsec = 123;
  st.st_ino = 43;  // an editor's rename of the same bytes
  EXPECT_EQ(Side::kUnsure, mirrorAgainst(record, st));
  st.st_size = 6;
  EXPECT_EQ(Side::kChanged, mirrorAgainst(record, st));
  st.st_ino = 42;
  st.st_size = 5;
  record.mirrorSettled = false;  // stamped in the tick of its copy: only the hash vouches
  EXPECT_EQ(Side::kUnsure, mirrorAgainst(record, st));

  StoreStat service;
  service.version = "v1";
  service.settled = true;
  EXPECT_EQ(Side::kUnchanged, serviceAgainst(record, service));
  service.settled = false;
  EXPECT_EQ(Side::kUnsure, serviceAgainst(record, service));
  service.settled = true;
  record.settled = false;
  EXPECT_EQ(Side::kUnsure, serviceAgainst(record, service));
  service.version = "v2";
  EXPECT_EQ(Side::kChanged, serviceAgainst(record, service));
  service.version = "";
  EXPECT_EQ(Side::kUnsure, serviceAgainst(record, service)) << "no version: never trusted";

  // A stamp settles once a clock tick has passed: milliseconds where the
  // file system keeps nanoseconds, seconds where it keeps whole seconds.
  struct stat fine = {};
  fine.st_mtim.tv_sec = 100;
  fine.st_mtim.tv_nsec = 5;
  const long long stamp = 100LL * 1000000000LL + 5;
  EXPECT_FALSE(mirrorStampSettled(fine, stamp + 1000000));
  EXPECT_TRUE(mirrorStampSettled(fine, stamp + 1000000000LL));
  struct stat coarse = {};
  coarse.st_mtim.tv_sec = 100;
  EXPECT_FALSE(mirrorStampSettled(coarse, 100LL * 1000000000LL + 1000000000LL));
  EXPECT_TRUE(mirrorStampSettled(coarse, 103LL * 1000000000LL));
}

}  // namespace
