// The five records: their keys, reading order, writing and ownership.
//
// fromJson reads the keys in order and stops at the first failure, logging
// "[VEL] [FETCH_MAP_DATA] Failed to fetch \"<key>\"!". toJson creates the
// member of a list or map as null before its writer runs, so an empty list
// or map is written as null (read back as empty). A value that is neither an
// object nor null cannot be a record: fromJson and toJson refuse it with -4
// instead of letting jsoncpp throw on member access.
#include "vel/records.h"

#include <new>

#include "vel/log.h"

namespace VEL {

namespace {

constexpr int32_t kWrongType = -4;

const Json::Value& memberOf(const Json::Value& json, const char* key) {
  static const Json::Value kNull;
  return json.isObject() ? json[key] : kNull;
}

template <typename Field>
int32_t fetch(const Json::Value& json, const char* key, Field& field) {
  int32_t status = GetDataFromJson(memberOf(json, key), field);
  if (status != 0) {
    getLogger()->log(kLogError, "[VEL] [FETCH_MAP_DATA] Failed to fetch \"%s\"!", key);
  }
  return status;
}

// Writes a list or map field: the member is created as null first.
template <typename Field>
int32_t store(Json::Value& json, const char* key, const Field& field) {
  Json::Value& member = json[key];
  member = Json::Value();
  int32_t status = SetDataToJson(member, field);
  if (status != 0) {
    getLogger()->log(kLogError, "[VEL] [SET_MAP_DATA] Failed to set \"%s\"!", key);
  }
  return status;
}

bool acceptsRecord(const Json::Value& json, const char* className, const char* operation) {
  if (json.isNull() || json.isObject()) {
    return true;
  }
  getLogger()->log(kLogError, "[VEL] [%s::%s] expect type:object, real type:%d", className,
                   operation, static_cast<int>(json.type()));
  return false;
}

template <typename Record>
void deleteAll(std::list<Record*>& list) {
  for (Record* element : list) {
    delete element;
  }
  list.clear();
}

}  // namespace

// ---- VELModuleInfo ----

VELJsonObjIF* VELModuleInfo::newInstance() const { return new (std::nothrow) VELModuleInfo(); }

std::string VELModuleInfo::getClassName() const { return "VELModuleInfo"; }

int32_t VELModuleInfo::toJson(Json::Value& value) const {
  if (!acceptsRecord(value, "VELModuleInfo", "toJson")) {
    return kWrongType;
  }
  value["httpBaseUrl"] = Json::Value(httpBaseUrl);
  value["process"] = Json::Value(process);
  value["moduleType"] = Json::Value(moduleType);
  value["area"] = Json::Value(area);
  return 0;
}

int32_t VELModuleInfo::fromJson(const Json::Value& value) {
  if (!acceptsRecord(value, "VELModuleInfo", "fromJson")) {
    return kWrongType;
  }
  int32_t status = 0;
  if ((status = fetch(value, "httpBaseUrl", httpBaseUrl)) != 0 ||
      (status = fetch(value, "process", process)) != 0 ||
      (status = fetch(value, "moduleType", moduleType)) != 0 ||
      (status = fetch(value, "area", area)) != 0) {
    return status;
  }
  return 0;
}

// ---- VELFileLoc ----

VELJsonObjIF* VELFileLoc::newInstance() const { return new (std::nothrow) VELFileLoc(); }

std::string VELFileLoc::getClassName() const { return "VELFileLoc"; }

int32_t VELFileLoc::toJson(Json::Value& value) const {
  if (!acceptsRecord(value, "VELFileLoc", "toJson")) {
    return kWrongType;
  }
  value["httpBaseUrl"] = Json::Value(httpBaseUrl);
  value["process"] = Json::Value(process);
  value["moduleType"] = Json::Value(moduleType);
  return 0;
}

int32_t VELFileLoc::fromJson(const Json::Value& value) {
  if (!acceptsRecord(value, "VELFileLoc", "fromJson")) {
    return kWrongType;
  }
  int32_t status = 0;
  if ((status = fetch(value, "httpBaseUrl", httpBaseUrl)) != 0 ||
      (status = fetch(value, "process", process)) != 0 ||
      (status = fetch(value, "moduleType", moduleType)) != 0) {
    return status;
  }
  return 0;
}

// ---- VELFileInfo ----

VELFileInfo::~VELFileInfo() {
  deleteAll(locs);
  deleteAll(subObjs);
}

VELJsonObjIF* VELFileInfo::newInstance() const { return new (std::nothrow) VELFileInfo(); }

std::string VELFileInfo::getClassName() const { return "VELFileInfo"; }

int32_t VELFileInfo::toJson(Json::Value& value) const {
  if (!acceptsRecord(value, "VELFileInfo", "toJson")) {
    return kWrongType;
  }
  value["velPath"] = Json::Value(velPath);
  value["isFile"] = Json::Value(isFile);
  value["mode"] = Json::Value(static_cast<int>(static_cast<int32_t>(mode)));
  value["size"] = Json::Value(static_cast<Json::Int64>(size));
  value["lastModifyTime"] = Json::Value(static_cast<Json::Int64>(lastModifyTime));
  value["hash"] = Json::Value(hash);
  int32_t status = 0;
  if ((status = store(value, "locs", locs)) != 0 ||
      (status = store(value, "subObjs", subObjs)) != 0 ||
      (status = store(value, "additionalInfo", additionalInfo)) != 0) {
    return status;
  }
  value["errNo"] = Json::Value(static_cast<int>(errNo));
  value["errMsg"] = Json::Value(errMsg);
  return 0;
}

int32_t VELFileInfo::fromJson(const Json::Value& value) {
  if (!acceptsRecord(value, "VELFileInfo", "fromJson")) {
    return kWrongType;
  }
  // "mode" goes through the signed 32-bit reader: 4294967295 becomes the
  // bit pattern of -1.
  int32_t signedMode = 0;
  int32_t status = 0;
  if ((status = fetch(value, "velPath", velPath)) != 0 ||
      (status = fetch(value, "isFile", isFile)) != 0) {
    return status;
  }
  status = fetch(value, "mode", signedMode);
  mode = static_cast<uint32_t>(signedMode);
  if (status != 0 || (status = fetch(value, "size", size)) != 0 ||
      (status = fetch(value, "lastModifyTime", lastModifyTime)) != 0 ||
      (status = fetch(value, "hash", hash)) != 0 || (status = fetch(value, "locs", locs)) != 0 ||
      (status = fetch(value, "subObjs", subObjs)) != 0 ||
      (status = fetch(value, "additionalInfo", additionalInfo)) != 0 ||
      (status = fetch(value, "errNo", errNo)) != 0 ||
      (status = fetch(value, "errMsg", errMsg)) != 0) {
    return status;
  }
  return 0;
}

// ---- VELAction ----

VELAction::~VELAction() { deleteAll(body); }

VELJsonObjIF* VELAction::newInstance() const { return new (std::nothrow) VELAction(); }

std::string VELAction::getClassName() const { return "VELAction"; }

int32_t VELAction::toJson(Json::Value& value) const {
  if (!acceptsRecord(value, "VELAction", "toJson")) {
    return kWrongType;
  }
  value["action"] = Json::Value(action);
  return store(value, "body", body);
}

int32_t VELAction::fromJson(const Json::Value& value) {
  if (!acceptsRecord(value, "VELAction", "fromJson")) {
    return kWrongType;
  }
  int32_t status = 0;
  if ((status = fetch(value, "action", action)) != 0 ||
      (status = fetch(value, "body", body)) != 0) {
    return status;
  }
  return 0;
}

// ---- TarnMetaData ----

VELJsonObjIF* TarnMetaData::newInstance() const { return new (std::nothrow) TarnMetaData(); }

std::string TarnMetaData::getClassName() const { return "TarnMetaData"; }

int32_t TarnMetaData::toJson(Json::Value& value) const {
  if (!acceptsRecord(value, "TarnMetaData", "toJson")) {
    return kWrongType;
  }
  value["AccessAllowRoles"] = Json::Value(AccessAllowRoles);
  value["Kind"] = Json::Value(Kind);
  value["LastModifiedTime"] = Json::Value(LastModifiedTime);
  value["Name"] = Json::Value(Name);
  value["Size"] = Json::Value(static_cast<Json::Int64>(Size));
  return 0;
}

int32_t TarnMetaData::fromJson(const Json::Value& value) {
  Size = 0;
  if (!acceptsRecord(value, "TarnMetaData", "fromJson")) {
    return kWrongType;
  }
  int32_t status = 0;
  if ((status = fetch(value, "AccessAllowRoles", AccessAllowRoles)) != 0 ||
      (status = fetch(value, "Kind", Kind)) != 0 ||
      (status = fetch(value, "LastModifiedTime", LastModifiedTime)) != 0 ||
      (status = fetch(value, "Name", Name)) != 0) {
    return status;
  }
  // Only a file carries a size; a directory's "Size" is neither read nor required.
  if (Kind == "file") {
    return fetch(value, "Size", Size);
  }
  return 0;
}

// ---- Shared empty instances ----

const VELModuleInfo& emptyModuleInfo() {
  static const VELModuleInfo instance;
  return instance;
}

const VELFileLoc& emptyFileLoc() {
  static const VELFileLoc instance;
  return instance;
}

const VELFileInfo& emptyFileInfo() {
  static const VELFileInfo instance;
  return instance;
}

const VELAction& emptyAction() {
  static const VELAction instance;
  return instance;
}

const TarnMetaData& emptyTarnMetaData() {
  static const TarnMetaData instance;
  return instance;
}

namespace {
// Creates the five shared instances during static initialisation; each
// accessor also creates its own on first use, whatever the order of
// initialisation across files.
[[maybe_unused]] const bool kEmptyRecordsCreated =
    (emptyModuleInfo(), emptyFileLoc(), emptyFileInfo(), emptyAction(), emptyTarnMetaData(), true);
}  // namespace

}  // namespace VEL
