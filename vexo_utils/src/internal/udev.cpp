#include "internal/udev.h"

#include <memory>

#include <libudev.h>

#include "internal/late_library.h"
#include "internal/log.h"
#include "vexo_utils/validation.h"

namespace vexo::utils::internal {

namespace {

struct Libudev : LateLibrary {
  Libudev() : LateLibrary("libudev.so.1") {}
  VEXO_LATE_FUNCTION(udev_new);
  VEXO_LATE_FUNCTION(udev_unref);
  VEXO_LATE_FUNCTION(udev_enumerate_new);
  VEXO_LATE_FUNCTION(udev_enumerate_unref);
  VEXO_LATE_FUNCTION(udev_enumerate_add_match_subsystem);
  VEXO_LATE_FUNCTION(udev_enumerate_scan_devices);
  VEXO_LATE_FUNCTION(udev_enumerate_get_list_entry);
  VEXO_LATE_FUNCTION(udev_list_entry_get_next);
  VEXO_LATE_FUNCTION(udev_list_entry_get_name);
  VEXO_LATE_FUNCTION(udev_device_new_from_syspath);
  VEXO_LATE_FUNCTION(udev_device_unref);
  VEXO_LATE_FUNCTION(udev_device_get_property_value);
  VEXO_LATE_FUNCTION(udev_device_get_syspath);
};

template <typename T>
using Owned = std::unique_ptr<T, T* (*)(T*)>;

// libudev gives negative errno values.
void setErrno(int result) {
  errno = result < 0 ? -result : 0;
}

}  // namespace

bool Udev::Init(std::string& path, const char* subsystem, const char* pattern) {
  const Libudev libudev;
  if (!libudev) return false;
  const Owned<udev> context(libudev.udev_new(), libudev.udev_unref);
  const Owned<udev_enumerate> devices(context ? libudev.udev_enumerate_new(context.get()) : nullptr,
                                      libudev.udev_enumerate_unref);
  if (!devices) {
    VEXO_LOG_ERROR_ERRNO("Failed to create udev enumerate from node name \"%s\"", pattern);
    return false;
  }
  setErrno(libudev.udev_enumerate_add_match_subsystem(devices.get(), subsystem));
  if (errno != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to add match subsystem \"%s\" from node name \"%s\"", subsystem,
                         pattern);
    return false;
  }
  const int scanned = libudev.udev_enumerate_scan_devices(devices.get());
  for (udev_list_entry* entry = libudev.udev_enumerate_get_list_entry(devices.get());
       entry != nullptr; entry = libudev.udev_list_entry_get_next(entry)) {
    const Owned<udev_device> device(libudev.udev_device_new_from_syspath(
                                        context.get(), libudev.udev_list_entry_get_name(entry)),
                                    libudev.udev_device_unref);
    if (!device) {
      VEXO_LOG_ERROR_ERRNO("Failed to create new udev device from node name \"%s\"", pattern);
      return false;
    }
    const char* const node = libudev.udev_device_get_property_value(device.get(), "OF_FULLNAME");
    if (node == nullptr || !regex_match(pattern, node, true)) continue;
    path = libudev.udev_device_get_syspath(device.get());
    return true;
  }
  setErrno(scanned);
  VEXO_LOG_ERROR_ERRNO("Failed to find match subsystem \"%s\" from node name \"%s\"", subsystem,
                       pattern);
  return false;
}

}  // namespace vexo::utils::internal
