// Accelerometers without hardware: industrial-I/O devices made of plain files in a new /sys, which
// the real libudev and the library read as they read the kernel's.
//
// For a private world only (tests/support/private_world.h): /sys is covered there. libudev accepts
// such devices in processes whose environment has SYSTEMD_DEVICE_VERIFY_SYSFS=0.
//
// Failure:   std::runtime_error or std::system_error.
#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "vexo/variant/Variant.h"

namespace vexo::host {

using Axes = std::array<int, 3>;  // x, y, z in the chip's units

struct Sensor {
  std::string chip;                       // the last part of its device-tree node: "lis2dw12@18"
  std::string folder;                     // its sysfs folder
  std::map<std::string, Axes> positions;  // what it reads when the camera is mounted so
};

// The sensors that a camera's description has under "simulated" (platform/host/boards/README.md).
std::vector<Sensor> sensorsOf(const variant::Variant& description);

// Mounts an empty /sys for the devices.
void coverSysfs();

// Adds a device; `properties` are lines of NAME=VALUE. Returns its folder.
std::string addDevice(const std::string& subsystem, const std::string& name,
                      const std::string& properties);

// Adds the sensors as iio:device0 and so on, all axes 0.
void addSensors(const std::vector<Sensor>& sensors);

// Writes what the sensor reads, also for those who have its files open. show replaces nothing, as
// the kernel does not.
void show(const Sensor& sensor, const Axes& axes);
Axes shown(const Sensor& sensor);

// What a sensor reads when the camera has been turned by `share` of the way, 0 to 1, along the
// shortest one. Positions that are opposite to each other have no shortest way: std::runtime_error.
Axes turned(const Axes& from, const Axes& to, double share);

}  // namespace vexo::host
