// How the description is read, wherever it comes from (camera_description.cpp).
#include "vexo/variant/CameraInfo.h"

#include "vexo/log.h"

namespace vexo::variant {

namespace {

constexpr const char* kModule = "vexo_platform";
constexpr int kError = 3;

constexpr std::uint64_t kMaxFlag = 255;  // a flag that is stored as a number is a byte

[[noreturn]] void wrongType(const std::string& key) {
  logInternal(kModule, __FILE__, __func__, __LINE__, kError, 0, 0,
              "Key \"%s\" has a different type than expected", key.c_str());
  forceCrash();
}

}  // namespace

CameraInfo& CameraInfo::instance() {
  static CameraInfo& info = *new CameraInfo;
  return info;
}

// The entry of a key that every camera has.
const Variant& CameraInfo::require(const std::string& key) const {
  if (description_.type() != Variant::Type::Map) {
    logInternal(kModule, __FILE__, __func__, __LINE__, kError, 0, 0,
                "Invalid variant type detected");
    forceCrash();
  }
  if (!description_.HasKey(key)) {
    logInternal(kModule, __FILE__, __func__, __LINE__, kError, 0, 0, "Key \"%s\" not available",
                key.c_str());
    forceCrash();
  }
  return description_[key];
}

std::string CameraInfo::getString(const std::string& key) const {
  std::string text;
  if (!require(key).read(text)) wrongType(key);
  return text;
}

std::uint64_t CameraInfo::getUnsigned(const std::string& key) const {
  std::uint64_t number = 0;
  if (!require(key).read(number)) wrongType(key);
  return number;
}

bool CameraInfo::getBool(const std::string& key) const {
  const Variant& entry = require(key);
  bool flag = false;
  if (entry.read(flag)) return flag;
  std::uint64_t number = 0;
  if (!entry.read(number) || number > kMaxFlag) wrongType(key);
  return number != 0;
}

const Variant& CameraInfo::getMap(const std::string& key) const {
  const Variant& entry = require(key);
  if (entry.type() != Variant::Type::Map) wrongType(key);
  return entry;
}

std::string CameraInfo::getStringOrEmpty(const std::string& key) {
  std::string text;
  Variant& entry = description_[key];
  if (!entry.read(text)) entry = text;
  return text;
}

}  // namespace vexo::variant
