// Typed JSON readers and writers, and the records built on them.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "vel/json_obj.h"
#include "vel/log.h"
#include "vel/records.h"

namespace {

using veltest::ScopedEnv;
using veltest::TempDir;

Json::Value parse(const std::string& text) {
  Json::Value root;
  Json::Reader reader;
  EXPECT_TRUE(reader.parse(text, root)) << text;
  return root;
}

// Each test logs into a fresh directory and reads back what was written.
class RecordsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VEL::releaseLogger();
    env_ = std::make_unique<ScopedEnv>("_APP_LOG_DIR", dir_.path().c_str());
  }
  void TearDown() override { VEL::releaseLogger(); }

  std::string log() {
    VEL::releaseLogger();  // flushes and closes the file
    return veltest::readFile(dir_.sub("velsdk.log"));
  }
  static int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
      ++n;
    }
    return n;
  }

  TempDir dir_;
  std::unique_ptr<ScopedEnv> env_;
};

template <typename T>
struct ReaderCase {
  const char* json;  // the member's value; "null" for an absent key
  int32_t status;
  T value;
  const char* message;  // "" when nothing is logged
};

// Runs a table of one reader: status, value and the logged message (or
// nothing logged) per JSON value.
class ReaderTest : public RecordsTest {
 protected:
  template <typename T>
  void check(const std::vector<ReaderCase<T>>& cases, T poison) {
    for (const auto& c : cases) {
      SCOPED_TRACE(c.json);
      T out = poison;  // readers clear the destination first
      Json::Value doc = parse(std::string("[") + c.json + "]");
      EXPECT_EQ(c.status, VEL::GetDataFromJson(doc[0], out));
      EXPECT_EQ(c.value, out);
      std::string text = log();
      veltest::removeTree(dir_.sub("velsdk.log"));
      if (*c.message != '\0') {
        EXPECT_NE(std::string::npos, text.find(std::string("ERROR ") + c.message)) << text;
      } else {
        EXPECT_EQ("", text);
      }
    }
  }
};

TEST_F(ReaderTest, LongReaderAcceptsIntUIntAndRealOnly) {
  check<int32_t>({{"-7", 0, -7, ""},
                  {"4294967295", 0, -1, ""},  // an unsigned JSON integer kept in 32 bits
                  {"12.9", 0, 12, ""},
                  {"null", -4, 0, "[VEL] [GetDataFromJson:long] expect type:Int, real type:0"},
                  {"\"5\"", -4, 0, "[VEL] [GetDataFromJson:long] expect type:Int, real type:4"},
                  {"true", -4, 0, "[VEL] [GetDataFromJson:long] expect type:Int, real type:5"},
                  {"1e300", -4, 0, "[VEL] [GetDataFromJson:long] exception occupied: "},
                  // An integer beyond 32 bits is refused by jsoncpp's asInt; the reader
                  // catches that too.
                  {"-3000000000", -4, 0, "[VEL] [GetDataFromJson:long] exception occupied: "}},
                 int32_t{99});
}

TEST_F(ReaderTest, UnsignedLongReader) {
  check<uint32_t>(
      {{"4294967295", 0, 4294967295u, ""},
       {"-1", 0, 4294967295u, ""},
       {"3.5", 0, 3u, ""},
       {"{}", -4, 0u, "[VEL] [GetDataFromJson:unsigned long] expect type:UInt, real type:7"},
       {"-2.5", -4, 0u, "[VEL] [GetDataFromJson:unsigned long] exception occupied: "},
       {"4294967296", -4, 0u, "[VEL] [GetDataFromJson:unsigned long] exception occupied: "}},
      uint32_t{99});
}

TEST_F(ReaderTest, LongLongReaderGuardsRealValues) {
  check<int64_t>({{"12.0", 0, 12, ""},
                  {"-5000000000", 0, -5000000000LL, ""},
                  {"18446744073709551615", 0, -1, ""},
                  {"[]", -4, 0, "[VEL] [GetDataFromJson:long long] expect type:Int, real type:6"},
                  {"1e300", -4, 0, "[VEL] [GetDataFromJson:long long] exception occupied: "}},
                 int64_t{99});
}

TEST_F(ReaderTest, BoolAndStringReaders) {
  check<bool>(
      {{"true", 0, true, ""},
       {"1", 0, true, ""},
       {"0", 0, false, ""},
       {"\"true\"", -4, false, "[VEL] [GetDataFromJson:bool] expect type:bool, real type:4"},
       {"null", -4, false, "[VEL] [GetDataFromJson:bool] expect type:bool, real type:0"}},
      true);
  check<std::string>(
      {{"\"abc\"", 0, "abc", ""},
       {"null", 0, "", ""},
       {"3", -4, "", "[VEL] [GetDataFromJson:std::string] expect type:string, real type:1"}},
      std::string("old"));
}

TEST_F(RecordsTest, ListAndMapReadersKeepExistingContentAndRefuseOtherTypes) {
  std::map<std::string, std::string> map{{"keep", "1"}, {"a", "old"}};
  EXPECT_EQ(0, VEL::GetDataFromJson(parse(R"({"a":"x","n":5,"b":"y"})"), map));
  EXPECT_EQ((std::map<std::string, std::string>{{"keep", "1"}, {"a", "x"}, {"b", "y"}}), map);
  EXPECT_EQ(0, VEL::GetDataFromJson(Json::Value(), map));
  EXPECT_EQ(3u, map.size());
  EXPECT_EQ(-4, VEL::GetDataFromJson(Json::Value("s"), map));

  std::list<VEL::VELFileLoc*> locs;
  EXPECT_EQ(-4, VEL::GetDataFromJson(Json::Value(1), locs));
  std::list<VEL::VELFileInfo*> infos;
  EXPECT_EQ(-4, VEL::GetDataFromJson(Json::Value(true), infos));
  EXPECT_EQ(0, VEL::GetDataFromJson(parse("[]"), infos));
  EXPECT_TRUE(infos.empty());

  std::string text = log();
  EXPECT_NE(std::string::npos,
            text.find("[VEL] [GetDataFromJson] [map<std::string, std::string>] expect "
                      "type:object, real type:4"));
  EXPECT_NE(std::string::npos,
            text.find("[VEL] [GetDataFromJson:std::list<VELFileLoc*>] expect type:array, real "
                      "type:1"));
  EXPECT_NE(std::string::npos,
            text.find("[VEL] [GetDataFromJson:std::list<VELFileInfo*>] expect type:array, real "
                      "type:5"))
      << text;
}

const char* const kNode =
    R"({"velPath":"a/b","isFile":true,"mode":420,"size":12,"lastModifyTime":1700000000,)"
    R"("errNo":0})";

TEST_F(RecordsTest, FileInfoReadsEveryKeyAndStopsAtTheFirstFailure) {
  VEL::VELFileInfo info;
  Json::Value doc =
      parse(R"({"velPath":"d","isFile":0,"mode":4294967295,"size":12.0,"lastModifyTime":5,)"
            R"("hash":"h","locs":[{"httpBaseUrl":"u","process":"p","moduleType":"m"}],)"
            R"("additionalInfo":{"k":"v"},"errNo":3,"errMsg":"e"})");
  ASSERT_EQ(0, info.fromJson(doc));
  EXPECT_EQ("d", info.velPath);
  EXPECT_FALSE(info.isFile);
  EXPECT_EQ(-1, static_cast<int32_t>(info.mode));
  EXPECT_EQ(12, info.size);
  EXPECT_EQ(5, info.lastModifyTime);
  ASSERT_EQ(1u, info.locs.size());
  EXPECT_EQ("m", info.locs.front()->moduleType);
  EXPECT_EQ("v", info.additionalInfo["k"]);
  EXPECT_EQ(3, info.errNo);
  EXPECT_EQ("e", info.errMsg);

  // A missing required key fails with -4, and later keys stay untouched.
  for (const std::string drop : {"\"isFile\":true,", "\"errNo\":0"}) {
    std::string text = kNode;
    text.erase(text.find(drop), drop.size());
    if (text[text.size() - 2] == ',') {
      text.erase(text.size() - 2, 1);
    }
    VEL::VELFileInfo partial;
    EXPECT_EQ(-4, partial.fromJson(parse(text))) << text;
  }
  VEL::VELFileInfo big;
  EXPECT_EQ(
      -4,
      big.fromJson(parse(R"({"isFile":true,"mode":1,"size":1e300,"lastModifyTime":5,"errNo":0})")));
  EXPECT_EQ(0, big.size);
  EXPECT_EQ(0, big.lastModifyTime);  // never reached
  std::string logged = log();
  EXPECT_NE(std::string::npos, logged.find("[VEL] [FETCH_MAP_DATA] Failed to fetch \"isFile\"!"));
  EXPECT_NE(std::string::npos, logged.find("[VEL] [FETCH_MAP_DATA] Failed to fetch \"errNo\"!"));
  EXPECT_NE(std::string::npos,
            logged.find("[VEL] [GetDataFromJson:long long] exception occupied: "));
  EXPECT_NE(std::string::npos, logged.find("[VEL] [FETCH_MAP_DATA] Failed to fetch \"size\"!"));
}

TEST_F(RecordsTest, NestedSubObjectsDecodeToDepthAndReportEveryLevel) {
  constexpr int kDepth = 40;
  std::string good = kNode;
  std::string bad = kNode;
  for (int i = 0; i < kDepth; ++i) {
    good = std::string(kNode).insert(1, "\"subObjs\":[" + good + "],");
    bad = std::string(kNode).insert(1, "\"subObjs\":[" + bad + "],");
  }
  VEL::VELFileInfo root;
  ASSERT_EQ(0, root.fromJson(parse(good)));
  int depth = 0;
  for (const VEL::VELFileInfo* node = &root; !node->subObjs.empty(); node = node->subObjs.front()) {
    ++depth;
  }
  EXPECT_EQ(kDepth, depth);
  EXPECT_EQ("", log());

  // The innermost node lacks "isFile": every level on the way out reports.
  bad.replace(bad.find("\"isFile\":true,"), 14, "");  // the innermost node's
  VEL::VELFileInfo broken;
  EXPECT_EQ(-4, broken.fromJson(parse(bad)));
  std::string text = log();
  EXPECT_EQ(kDepth, count(text, "[VEL] [FETCH_MAP_DATA] Failed to fetch \"subObjs\"!"));
  EXPECT_EQ(1, count(text, "Failed to fetch \"isFile\"!"));
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
  EXPECT_EQ(1, count(log(), "[VEL] [FETCH_MAP_DATA] Failed to fetch \"body\"!"));
}

TEST_F(RecordsTest, EmptyListsAndMapsAreWrittenAsNullAndReadBack) {
  VEL::VELFileInfo info;
  info.velPath = "p";
  info.mode = 0xFFFFFFFFu;
  info.size = 5000000000LL;
  Json::Value out;
  ASSERT_EQ(0, info.toJson(out));
  EXPECT_TRUE(out.isMember("locs"));
  EXPECT_TRUE(out["locs"].isNull());
  EXPECT_TRUE(out["subObjs"].isNull());
  EXPECT_TRUE(out["additionalInfo"].isNull());
  EXPECT_EQ(Json::intValue, out["mode"].type());
  EXPECT_EQ(-1, out["mode"].asInt());
  EXPECT_EQ(5000000000LL, out["size"].asInt64());
  EXPECT_EQ(11u, out.size());

  // A full record, with a null element that is skipped, survives a round
  // trip through text.
  info.locs.push_back(nullptr);
  info.locs.push_back(new VEL::VELFileLoc());
  info.locs.back()->process = "proc";
  info.subObjs.push_back(new VEL::VELFileInfo());
  info.subObjs.back()->velPath = "p/c";
  info.additionalInfo["k"] = "v";
  Json::Value full;
  ASSERT_EQ(0, info.toJson(full));
  VEL::VELFileInfo back;
  ASSERT_EQ(0, back.fromJson(parse(Json::FastWriter().write(full))));
  ASSERT_EQ(1u, back.locs.size());
  EXPECT_EQ("proc", back.locs.front()->process);
  ASSERT_EQ(1u, back.subObjs.size());
  EXPECT_EQ("p/c", back.subObjs.front()->velPath);
  EXPECT_EQ("v", back.additionalInfo["k"]);
  EXPECT_EQ(0xFFFFFFFFu, back.mode);

  VEL::VELAction action;
  Json::Value a;
  ASSERT_EQ(0, action.toJson(a));
  EXPECT_TRUE(a.isMember("body"));
  EXPECT_TRUE(a["body"].isNull());
  VEL::VELAction actionBack;
  EXPECT_EQ(0, actionBack.fromJson(a));
  EXPECT_TRUE(actionBack.body.empty());

  // A target that is not an object cannot take a record.
  Json::Value number(5);
  EXPECT_EQ(-4, info.toJson(number));
}

TEST_F(RecordsTest, MetaDataReadsSizeOnlyForFiles) {
  struct Case {
    const char* json;
    int32_t status;
    int64_t size;
  } cases[] = {
      {R"({"Kind":"dir","Name":"d"})", 0, 0},
      {R"({"Kind":"dir","Size":"not a number"})", 0, 0},
      {R"({"Kind":"File","Size":9})", 0, 0},
      {R"({"Kind":"file","Size":9})", 0, 9},
      {R"({"Kind":"file"})", -4, 0},
      {R"({"Kind":5})", -4, 0},
      {R"([1,2])", -4, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.json);
    VEL::TarnMetaData meta;
    meta.Size = 77;
    EXPECT_EQ(c.status, meta.fromJson(parse(c.json)));
    EXPECT_EQ(c.size, meta.Size);
  }
  std::string text = log();
  EXPECT_EQ(1, count(text, "[VEL] [FETCH_MAP_DATA] Failed to fetch \"Size\"!"));
  EXPECT_EQ(1, count(text, "[VEL] [FETCH_MAP_DATA] Failed to fetch \"Kind\"!"));

  VEL::TarnMetaData dir;
  dir.Kind = "dir";
  Json::Value out;
  ASSERT_EQ(0, dir.toJson(out));
  EXPECT_TRUE(out.isMember("Size"));
  EXPECT_EQ(5u, out.size());
}

TEST(RecordsIdentity, NamesInstancesAndSharedEmptyRecords) {
  const VEL::VELJsonObjIF* records[] = {&VEL::emptyModuleInfo(), &VEL::emptyFileLoc(),
                                        &VEL::emptyFileInfo(), &VEL::emptyAction(),
                                        &VEL::emptyTarnMetaData()};
  const char* names[] = {"VELModuleInfo", "VELFileLoc", "VELFileInfo", "VELAction", "TarnMetaData"};
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(names[i], records[i]->getClassName());
    std::unique_ptr<VEL::VELJsonObjIF> fresh(records[i]->newInstance());
    ASSERT_NE(nullptr, fresh);
    EXPECT_NE(records[i], fresh.get());
    EXPECT_EQ(names[i], fresh->getClassName());
  }
  EXPECT_EQ(&VEL::emptyFileInfo(), &VEL::emptyFileInfo());
  EXPECT_TRUE(VEL::emptyFileInfo().velPath.empty());
  EXPECT_TRUE(VEL::emptyAction().body.empty());

  // newInstance gives an empty object, not a copy.
  VEL::VELFileInfo filled;
  filled.velPath = "x";
  std::unique_ptr<VEL::VELJsonObjIF> made(filled.newInstance());
  EXPECT_TRUE(static_cast<VEL::VELFileInfo*>(made.get())->velPath.empty());
}

}  // namespace
