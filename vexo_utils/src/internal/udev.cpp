#include "internal/udev.h"

#include <memory>

#include <libudev.h>

#include "internal/log.h"
#include "vexo_utils/validation.h"

namespace vexo::utils::internal {

namespace {

struct Unref {
  void operator()(udev* context) const { udev_unref(context); }
  void operator()(udev_enumerate* list) const { udev_enumerate_unref(list); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
};

template <typename T>
using Owned = std::unique_ptr<T, Unref>;

// libudev gives negative errno values.
void setErrno(int result) {
  errno = result < 0 ? -result : 0;
}

}  // namespace

bool Udev::Init(std::string& path, const char* subsystem, const char* pattern) {
  const Owned<udev> context(udev_new());
  const Owned<udev_enumerate> devices(context ? udev_enumerate_new(context.get()) : nullptr);
  if (!devices) {
    VEXO_LOG_ERROR_ERRNO("Failed to create udev enumerate from node name \"%s\"", pattern);
    return false;
  }
  setErrno(udev_enumerate_add_match_subsystem(devices.get(), subsystem));
  if (errno != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to add match subsystem \"%s\" from node name \"%s\"", subsystem,
                         pattern);
    return false;
  }
  const int scanned = udev_enumerate_scan_devices(devices.get());
  udev_list_entry* entry = nullptr;
  udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(devices.get())) {
    const char* const candidate = udev_list_entry_get_name(entry);
    const Owned<udev_device> device(udev_device_new_from_syspath(context.get(), candidate));
    if (!device) {
      VEXO_LOG_ERROR_ERRNO("Failed to create new udev device from node name \"%s\"", pattern);
      return false;
    }
    const char* const node = udev_device_get_property_value(device.get(), "OF_FULLNAME");
    if (node == nullptr || !regex_match(pattern, node, true)) continue;
    path = udev_device_get_syspath(device.get());
    return true;
  }
  setErrno(scanned);
  VEXO_LOG_ERROR_ERRNO("Failed to find match subsystem \"%s\" from node name \"%s\"", subsystem,
                       pattern);
  return false;
}

}  // namespace vexo::utils::internal
