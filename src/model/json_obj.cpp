// Typed readers and writers shared by the records.
//
// Every scalar reader clears its destination first, so a failure leaves it
// at 0, false or "". Conversions that jsoncpp may refuse with an exception
// (a real value outside the destination's range, and also an integer that
// does not fit the 32-bit readers) run inside a guard: the exception is
// logged as "exception occupied" and the reader returns -4.
#include "vel/json_obj.h"

#include <exception>
#include <new>

#include "vel/log.h"
#include "vel/records.h"

namespace VEL {

namespace {

constexpr int32_t kWrongType = -4;

int typeOf(const Json::Value& value) { return static_cast<int>(value.type()); }

// Runs `convert` and turns any exception into -4 with the reader's message.
template <typename Convert>
int32_t guarded(const char* reader, Convert convert) {
  try {
    convert();
    return 0;
  } catch (const std::exception& e) {
    const char* what = e.what();
    getLogger()->log(kLogError, "[VEL] [GetDataFromJson:%s] exception occupied: %s", reader,
                     what != nullptr ? what : "");
  } catch (...) {
    getLogger()->log(kLogError, "[VEL] [GetDataFromJson:%s] exception occupied: %s", reader, "");
  }
  return kWrongType;
}

// Appends one default-constructed record per array element, read by its
// fromJson; a failing element is destroyed and its status returned, the
// elements appended before it stay in the list.
template <typename Record>
int32_t readRecordList(const Json::Value& value, std::list<Record*>& out, const char* recordName) {
  if (!value.isArray()) {
    if (value.isNull()) {
      return 0;
    }
    getLogger()->log(kLogError,
                     "[VEL] [GetDataFromJson:std::list<%s*>] expect type:array, real type:%d",
                     recordName, typeOf(value));
    return kWrongType;
  }
  const Json::ArrayIndex count = value.size();
  for (Json::ArrayIndex i = 0; i < count; ++i) {
    Record* element = new (std::nothrow) Record();
    if (element == nullptr) {
      return kWrongType;
    }
    int32_t status = element->fromJson(value[i]);
    if (status != 0) {
      delete element;
      return status;
    }
    out.push_back(element);
  }
  return 0;
}

template <typename Record>
int32_t writeRecordList(Json::Value& target, const std::list<Record*>& list) {
  if (!target.isNull() && !target.isArray()) {
    return kWrongType;
  }
  for (const Record* element : list) {
    if (element == nullptr) {
      continue;
    }
    Json::Value& slot = target.append(Json::Value());
    int32_t status = element->toJson(slot);
    if (status != 0) {
      return status;
    }
  }
  return 0;
}

}  // namespace

int32_t GetDataFromJson(const Json::Value& value, int32_t& out) {
  out = 0;
  switch (value.type()) {
    case Json::intValue:
      return guarded("long", [&] { out = value.asInt(); });
    case Json::uintValue:
      // Kept in 32 bits: 4294967295 reads as -1.
      return guarded("long", [&] { out = static_cast<int32_t>(value.asUInt()); });
    case Json::realValue:
      return guarded("long", [&] { out = value.asInt(); });
    default:
      getLogger()->log(kLogError, "[VEL] [GetDataFromJson:long] expect type:Int, real type:%d",
                       typeOf(value));
      return kWrongType;
  }
}

int32_t GetDataFromJson(const Json::Value& value, uint32_t& out) {
  out = 0;
  switch (value.type()) {
    case Json::uintValue:
      return guarded("unsigned long", [&] { out = value.asUInt(); });
    case Json::intValue:
      return guarded("unsigned long", [&] { out = static_cast<uint32_t>(value.asInt()); });
    case Json::realValue:
      return guarded("unsigned long", [&] { out = value.asUInt(); });
    default:
      getLogger()->log(kLogError,
                       "[VEL] [GetDataFromJson:unsigned long] expect type:UInt, real type:%d",
                       typeOf(value));
      return kWrongType;
  }
}

int32_t GetDataFromJson(const Json::Value& value, int64_t& out) {
  out = 0;
  switch (value.type()) {
    case Json::intValue:
      return guarded("long long", [&] { out = value.asInt64(); });
    case Json::uintValue:
      return guarded("long long", [&] { out = static_cast<int64_t>(value.asUInt64()); });
    case Json::realValue:
      return guarded("long long", [&] { out = value.asInt64(); });
    default:
      getLogger()->log(kLogError, "[VEL] [GetDataFromJson:long long] expect type:Int, real type:%d",
                       typeOf(value));
      return kWrongType;
  }
}

int32_t GetDataFromJson(const Json::Value& value, bool& out) {
  out = false;
  if (value.isBool()) {
    out = value.asBool();
    return 0;
  }
  if (value.isInt()) {  // also an integral real within the int range
    out = value.asInt() != 0;
    return 0;
  }
  getLogger()->log(kLogError, "[VEL] [GetDataFromJson:bool] expect type:bool, real type:%d",
                   typeOf(value));
  return kWrongType;
}

int32_t GetDataFromJson(const Json::Value& value, std::string& out) {
  out.clear();
  if (value.isNull()) {
    return 0;
  }
  if (value.isString()) {
    out = value.asString();
    return 0;
  }
  getLogger()->log(kLogError,
                   "[VEL] [GetDataFromJson:std::string] expect type:string, real type:%d",
                   typeOf(value));
  return kWrongType;
}

int32_t GetDataFromJson(const Json::Value& value, std::list<VELFileLoc*>& out) {
  return readRecordList(value, out, "VELFileLoc");
}

int32_t GetDataFromJson(const Json::Value& value, std::list<VELFileInfo*>& out) {
  return readRecordList(value, out, "VELFileInfo");
}

int32_t GetDataFromJson(const Json::Value& value, std::map<std::string, std::string>& out) {
  if (!value.isObject()) {
    if (value.isNull()) {
      return 0;
    }
    getLogger()->log(
        kLogError,
        "[VEL] [GetDataFromJson] [map<std::string, std::string>] expect type:object, real type:%d",
        typeOf(value));
    return kWrongType;
  }
  for (const std::string& name : value.getMemberNames()) {
    const Json::Value& member = value[name];
    if (member.isString()) {
      out[name] = member.asString();
    }
  }
  return 0;
}

int32_t SetDataToJson(Json::Value& target, const std::list<VELFileLoc*>& list) {
  return writeRecordList(target, list);
}

int32_t SetDataToJson(Json::Value& target, const std::list<VELFileInfo*>& list) {
  return writeRecordList(target, list);
}

int32_t SetDataToJson(Json::Value& target, const std::map<std::string, std::string>& map) {
  if (!target.isNull() && !target.isObject()) {
    return kWrongType;
  }
  for (const auto& entry : map) {
    target[entry.first] = Json::Value(entry.second);
  }
  return 0;
}

}  // namespace VEL
