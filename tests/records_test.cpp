// Typed JSON readers and writers, and the records built on them.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/fake_client.h"
#include "vel/json_obj.h"
#include "vel/records.h"

namespace {

Json::Value parse(const std::string& text) {
  Json::Value root;
  EXPECT_TRUE(Json::Reader().parse(text, root)) << text;
  return root;
}

template <typename T>
struct ReaderCase {
  const char* json;  // the member's value; "null" for an absent key
  int32_t status;
  T value;
  const char* message;  // "" when nothing is logged
};

class RecordsTest : public ::testing::Test {
 protected:
  // Status, value and logged message (or nothing logged) of one reader per
  // JSON value; `poison` shows that the destination is cleared first.
  template <typename T>
  void check(const std::vector<ReaderCase<T>>& cases, T poison) {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.json);
      log_.clear();
      T out = poison;
      EXPECT_EQ(c.status, VEL::GetDataFromJson(parse(std::string("[") + c.json + "]")[0], out));
      EXPECT_EQ(c.value, out);
      if (*c.message != '\0') {
        EXPECT_TRUE(log_.contains(std::string("ERROR [VEL] [GetDataFromJson") + c.message))
            << log_.text();
      } else {
        EXPECT_EQ("", log_.text());
      }
    }
  }

  veltest::LogCapture log_;
};

TEST_F(RecordsTest, ReadersAcceptTheirTypesAndRefuseOthers) {
  check<int32_t>({{"4294967295", 0, -1, ""},  // an unsigned integer kept in 32 bits
                  {"null", -4, 0, ":long] expect type:Int, real type:0"},
                  {"true", -4, 0, ":long] expect type:Int, real type:5"},
                  {"1e300", -4, 0, ":long] exception occupied: "}},
                 int32_t{99});
  check<uint32_t>({{"-1", 0, 4294967295u, ""},
                   {"{}", -4, 0u, ":unsigned long] expect type:UInt, real type:7"},
                   {"-2.5", -4, 0u, ":unsigned long] exception occupied: "}},
                  uint32_t{99});
  check<int64_t>({{"12.0", 0, 12, ""},
                  {"18446744073709551615", 0, -1, ""},
                  {"[]", -4, 0, ":long long] expect type:Int, real type:6"},
                  {"1e300", -4, 0, ":long long] exception occupied: "}},
                 int64_t{99});
  check<bool>({{"1", 0, true, ""}, {"\"true\"", -4, false, ":bool] expect type:bool, real type:4"}},
              true);
  check<std::string>(
      {{"null", 0, "", ""}, {"3", -4, "", ":std::string] expect type:string, real type:1"}},
      std::string("old"));

  log_.clear();
  std::map<std::string, std::string> map{{"keep", "1"}};
  EXPECT_EQ(0, VEL::GetDataFromJson(parse(R"({"a":"x","n":5})"), map));
  EXPECT_EQ((std::map<std::string, std::string>{{"keep", "1"}, {"a", "x"}}), map);
  EXPECT_EQ(-4, VEL::GetDataFromJson(Json::Value("s"), map));
  std::list<VEL::VELFileLoc*> locs;
  EXPECT_EQ(0, VEL::GetDataFromJson(Json::Value(), locs));
  EXPECT_EQ(-4, VEL::GetDataFromJson(Json::Value(1), locs));
  EXPECT_TRUE(locs.empty());
}

const char* const kNode =
    R"({"velPath":"a/b","isFile":true,"mode":420,"size":12,"lastModifyTime":1700000000,)"
    R"("errNo":0})";

TEST_F(RecordsTest, FileInfoReadsEveryKeyAndStopsAtTheFirstFailure) {
  VEL::VELFileInfo info;
  ASSERT_EQ(0, info.fromJson(parse(
                   R"({"velPath":"d","isFile":0,"mode":4294967295,"size":12.0,)"
                   R"("lastModifyTime":5,"locs":[{"process":"p"}],"additionalInfo":{"k":"v"},)"
                   R"("errNo":3,"errMsg":"e"})")));
  EXPECT_EQ(-1, static_cast<int32_t>(info.mode));
  EXPECT_EQ(12, info.size);
  ASSERT_EQ(1u, info.locs.size());
  EXPECT_EQ("p", info.locs.front()->process);
  EXPECT_EQ("v", info.additionalInfo["k"]);

  VEL::VELFileInfo big;
  EXPECT_EQ(
      -4,
      big.fromJson(parse(R"({"isFile":true,"mode":1,"size":1e300,"lastModifyTime":5,"errNo":0})")));
  EXPECT_EQ(0, big.lastModifyTime);  // never reached

  VEL::TarnMetaData meta;  // the size is read for files only
  EXPECT_EQ(0, meta.fromJson(parse(R"({"Kind":"dir","Size":"not a number"})")));
  EXPECT_EQ(-4, meta.fromJson(parse(R"({"Kind":"file"})")));
}

TEST_F(RecordsTest, NestedSubObjectsDecodeToDepthAndReportEveryLevel) {
  constexpr int kDepth = 40;
  std::string good = kNode;
  for (int i = 0; i < kDepth; ++i) {
    good = std::string(kNode).insert(1, "\"subObjs\":[" + good + "],");
  }
  VEL::VELFileInfo root;
  ASSERT_EQ(0, root.fromJson(parse(good)));
  const VEL::VELFileInfo* n = &root;
  for (int depth = 0; depth < kDepth; ++depth, n = n->subObjs.front()) {
    ASSERT_EQ(1u, n->subObjs.size());
  }
  EXPECT_TRUE(n->subObjs.empty());

  // The innermost node lacks "isFile": every level on the way out reports.
  std::string bad = good;
  bad.erase(bad.find("\"isFile\":true,"), 14);
  VEL::VELFileInfo broken;
  EXPECT_EQ(-4, broken.fromJson(parse(bad)));
  EXPECT_EQ(size_t{kDepth}, log_.lines("[VEL] [FETCH_MAP_DATA] Failed to fetch \"subObjs\"!"));
}

TEST_F(RecordsTest, ThirdElementFailureLeavesTwoElements) {
  std::string array = std::string("[") + kNode + "," + kNode + ",{\"isFile\":1}," + kNode + "]";
  std::list<VEL::VELFileInfo*> list;
  EXPECT_EQ(-4, VEL::GetDataFromJson(parse(array), list));
  EXPECT_EQ(2u, list.size());
  for (VEL::VELFileInfo* info : list) {
    EXPECT_EQ("a/b", info->velPath);
    delete info;
  }
  VEL::VELAction action;
  EXPECT_EQ(-4, action.fromJson(parse("{\"action\":\"x\",\"body\":" + array + "}")));
  EXPECT_EQ(2u, action.body.size());  // owned and freed by the action
}

TEST_F(RecordsTest, EmptyListsAreWrittenAsNullAndRoundTrip) {
  VEL::VELFileInfo info;
  info.mode = 0xFFFFFFFFu;
  Json::Value out;
  ASSERT_EQ(0, info.toJson(out));
  EXPECT_TRUE(out.isMember("locs") && out["locs"].isNull());
  EXPECT_TRUE(out.isMember("subObjs") && out["subObjs"].isNull());
  VEL::VELFileInfo empty;
  ASSERT_EQ(0, empty.fromJson(parse(Json::FastWriter().write(out))));
  EXPECT_TRUE(empty.locs.empty() && empty.subObjs.empty());

  info.locs.push_back(new VEL::VELFileLoc());
  info.locs.back()->process = "proc";
  ASSERT_EQ(0, info.toJson(out));
  VEL::VELFileInfo back;
  ASSERT_EQ(0, back.fromJson(parse(Json::FastWriter().write(out))));
  ASSERT_EQ(1u, back.locs.size());
  EXPECT_EQ("proc", back.locs.front()->process);
  EXPECT_EQ(0xFFFFFFFFu, back.mode);

  Json::Value action;
  ASSERT_EQ(0, VEL::VELAction().toJson(action));
  EXPECT_TRUE(action.isMember("body") && action["body"].isNull());
}

}  // namespace
