// CameraInfo: what this camera is, from its description: board identity, revision, features.
//
// The description is a map, read once, on first use. When it cannot be read it is null, and a
// warning says so then.
//
// Keys:      "name" and "hwaddr" (strings), "sysid" and "hwrev" (unsigned), "features" (a map) and
//            flags such as "feature_ubifscfg"; boards have others.
// Threads:   instance and the const functions may be called from any. What changes the description
//            (getStringOrEmpty when it has to store, a caller through description) must be alone:
//            there is no lock. Never destroyed, so threads may use it while the process exits.
// Failure:   a required key that is missing or of another type is a camera that was made wrongly.
//            The get functions log an error and end the process by forceCrash:
//              "Invalid variant type detected"                    the description is no map
//              "Key \"KEY\" not available"
//              "Key \"KEY\" has a different type than expected"
#pragma once

#include <cstdint>
#include <string>

#include "vexo/variant/Variant.h"

namespace vexo::variant {

class CameraInfo {
 public:
  // The one there is; the first call reads the description.
  static CameraInfo& instance();

  CameraInfo(const CameraInfo&) = delete;
  CameraInfo& operator=(const CameraInfo&) = delete;

  // The description itself, for this process: a caller may store defaults in it.
  Variant& description() { return description_; }
  const Variant& description() const { return description_; }

  // False also when the description is no map. Never crashes.
  bool HasKey(const std::string& key) const { return description_.HasKey(key); }

  // ---- required keys ----

  std::string getString(const std::string& key) const;

  // An integer that is not negative.
  std::uint64_t getUnsigned(const std::string& key) const;

  // A bool, or an integer from 0 to 255, where all but 0 is true.
  bool getBool(const std::string& key) const;

  // The entry, which is a map; valid as long as the description is not changed at that key.
  const Variant& getMap(const std::string& key) const;

  // ---- optional keys ----

  // The string of that key. When it is missing or no string, "" is stored there and returned (a
  // description that is no map becomes one). Never crashes.
  std::string getStringOrEmpty(const std::string& key);

 private:
  CameraInfo();
  ~CameraInfo() = default;

  const Variant& require(const std::string& key) const;

  Variant description_;
};

}  // namespace vexo::variant
