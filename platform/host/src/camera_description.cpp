// The camera that this machine stands in for: the JSON file that the environment variable
// VEXO_CAMERA_INFO names. platform/host/boards/ has one for each kind of board.
#include <cstdlib>

#include "vexo/log.h"
#include "vexo/variant/CameraInfo.h"

namespace vexo::variant {

namespace {

constexpr const char* kModule = "vexo_platform";
constexpr int kWarning = 4;

}  // namespace

CameraInfo::CameraInfo() {
  const char* const path = std::getenv("VEXO_CAMERA_INFO");
  if (path == nullptr) {
    logInternal(kModule, __FILE__, __func__, __LINE__, kWarning, 0, 0,
                "No camera description: VEXO_CAMERA_INFO is not set");
  } else if (!Variant::FromJSONFile(path, description_)) {
    logInternal(kModule, __FILE__, __func__, __LINE__, kWarning, 0, 0,
                "No camera description: \"%s\" cannot be read", path);
  }
}

}  // namespace vexo::variant
