// Udev: finds devices through libudev.
#pragma once

#include <string>

namespace vexo::utils::internal {

class Udev {
 public:
  // Puts the sysfs folder of the subsystem's first device whose property OF_FULLNAME (its node in
  // the device tree) contains a match of the extended regular expression `pattern` into `path`.
  // False, logged, when there is none or it cannot be told; `path` is as it was.
  static bool Init(std::string& path, const char* subsystem, const char* pattern);
};

}  // namespace vexo::utils::internal
