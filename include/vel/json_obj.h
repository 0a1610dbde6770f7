// VELJsonObjIF: the interface of every record exchanged with the file agent
// and the service, and the typed readers and writers the records use.
//
// Status values: 0 success; -4 a value of the wrong type or a missing
// required value; other values pass through from nested records. Readers
// reset their destination first, log at level 1 on failure and never let a
// JSON exception escape from a real-number conversion.
//
// Records own the nested records they hold by pointer and delete them in
// their destructors. Not thread-safe: a record belongs to one thread.
#ifndef VEL_JSON_OBJ_H_
#define VEL_JSON_OBJ_H_

#include <json/json.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "vel/export.h"

namespace VEL {

class VELFileLoc;
class VELFileInfo;

class VEL_API VELJsonObjIF {
 public:
  VELJsonObjIF() = default;
  VELJsonObjIF(const VELJsonObjIF&) = delete;
  VELJsonObjIF& operator=(const VELJsonObjIF&) = delete;
  virtual ~VELJsonObjIF() = default;

  // A new default-constructed object of the same class, owned by the caller.
  virtual VELJsonObjIF* newInstance() const = 0;
  virtual std::string getClassName() const = 0;
  // Writes every field under its key into `value`.
  virtual int32_t toJson(Json::Value& value) const = 0;
  // Reads the fields in order; stops at the first failure.
  virtual int32_t fromJson(const Json::Value& value) = 0;
};

// Typed readers. `value` is the member already looked up (null when absent).
VEL_API int32_t GetDataFromJson(const Json::Value& value, int32_t& out);   // "long"
VEL_API int32_t GetDataFromJson(const Json::Value& value, uint32_t& out);  // "unsigned long"
VEL_API int32_t GetDataFromJson(const Json::Value& value, int64_t& out);   // "long long"
VEL_API int32_t GetDataFromJson(const Json::Value& value, bool& out);
VEL_API int32_t GetDataFromJson(const Json::Value& value, std::string& out);  // null: "" and 0
// Arrays of records: null leaves the list unchanged; elements are appended.
VEL_API int32_t GetDataFromJson(const Json::Value& value, std::list<VELFileLoc*>& out);
VEL_API int32_t GetDataFromJson(const Json::Value& value, std::list<VELFileInfo*>& out);
// Object of strings: null leaves the map unchanged; non-string members skipped.
VEL_API int32_t GetDataFromJson(const Json::Value& value, std::map<std::string, std::string>& out);

// Writers: append each non-null element's JSON to `target` (making it an
// array); assign each map entry as a string member of `target`.
VEL_API int32_t SetDataToJson(Json::Value& target, const std::list<VELFileLoc*>& list);
VEL_API int32_t SetDataToJson(Json::Value& target, const std::list<VELFileInfo*>& list);
VEL_API int32_t SetDataToJson(Json::Value& target, const std::map<std::string, std::string>& map);

}  // namespace VEL

#endif  // VEL_JSON_OBJ_H_
