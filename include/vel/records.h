// The records exchanged with the file agent and the service. Their JSON keys
// are a wire format. String fields are optional on reading; numbers and
// booleans are required where the record says so. Each record's fromJson
// stops at the first failing key and logs
// "[VEL] [FETCH_MAP_DATA] Failed to fetch \"<key>\"!".
//
// VELFileInfo and VELAction own the records in their lists.
#ifndef VEL_RECORDS_H_
#define VEL_RECORDS_H_

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "vel/export.h"
#include "vel/json_obj.h"

namespace VEL {

// One module of the service: "httpBaseUrl", "process", "moduleType", "area".
class VEL_API VELModuleInfo : public VELJsonObjIF {
 public:
  VELJsonObjIF* newInstance() const override;
  std::string getClassName() const override;
  int32_t toJson(Json::Value& value) const override;
  int32_t fromJson(const Json::Value& value) override;

  std::string httpBaseUrl;
  std::string process;
  std::string moduleType;
  std::string area;
};

// One location of a file: "httpBaseUrl", "process", "moduleType".
class VEL_API VELFileLoc : public VELJsonObjIF {
 public:
  VELJsonObjIF* newInstance() const override;
  std::string getClassName() const override;
  int32_t toJson(Json::Value& value) const override;
  int32_t fromJson(const Json::Value& value) override;

  std::string httpBaseUrl;
  std::string process;
  std::string moduleType;
};

// One file or directory node.
class VEL_API VELFileInfo : public VELJsonObjIF {
 public:
  VELFileInfo() = default;
  ~VELFileInfo() override;

  VELJsonObjIF* newInstance() const override;
  std::string getClassName() const override;
  int32_t toJson(Json::Value& value) const override;
  int32_t fromJson(const Json::Value& value) override;

  std::string velPath;                                // "velPath"
  bool isFile = false;                                // "isFile" (required)
  uint32_t mode = 0;                                  // "mode" permission bits (required)
  int64_t size = 0;                                   // "size" (required)
  int64_t lastModifyTime = 0;                         // "lastModifyTime" seconds (required)
  std::string hash;                                   // "hash"
  std::list<VELFileLoc*> locs;                        // "locs", owned
  std::list<VELFileInfo*> subObjs;                    // "subObjs", owned
  std::map<std::string, std::string> additionalInfo;  // "additionalInfo"
  int32_t errNo = 0;                                  // "errNo" (required)
  std::string errMsg;                                 // "errMsg"
};

// A request or batch of changes: "action", "body" (owned VELFileInfo list).
class VEL_API VELAction : public VELJsonObjIF {
 public:
  VELAction() = default;
  ~VELAction() override;

  VELJsonObjIF* newInstance() const override;
  std::string getClassName() const override;
  int32_t toJson(Json::Value& value) const override;
  int32_t fromJson(const Json::Value& value) override;

  std::string action;
  std::list<VELFileInfo*> body;
};

// The metadata reply of the file agent. "Size" is read only when "Kind" is
// exactly "file".
class VEL_API TarnMetaData : public VELJsonObjIF {
 public:
  VELJsonObjIF* newInstance() const override;
  std::string getClassName() const override;
  int32_t toJson(Json::Value& value) const override;
  int32_t fromJson(const Json::Value& value) override;

  std::string AccessAllowRoles;
  std::string Kind;
  std::string LastModifiedTime;  // "%Y-%m-%dT%H:%M:%S%z"
  std::string Name;
  int64_t Size = 0;
};

// Shared empty instance of each record, alive for the whole process.
VEL_API const VELModuleInfo& emptyModuleInfo();
VEL_API const VELFileLoc& emptyFileLoc();
VEL_API const VELFileInfo& emptyFileInfo();
VEL_API const VELAction& emptyAction();
VEL_API const TarnMetaData& emptyTarnMetaData();

}  // namespace VEL

#endif  // VEL_RECORDS_H_
