// Accelerometer: raw readings of the camera's acceleration sensor.
//
// Two kinds of chip are served. An industrial-I/O one gives its axes as sysfs files (sysfs mode);
// the driver of the lis2de reports them as input events on /dev/input/event0 (input mode), see
// input(7) of the kernel's documentation. The chip is looked for through libudev.so.1 (which is
// loaded then) once, by the constructor, and its files stay open.
//
// In input mode every reading of an axis waits until the driver reports the next events.
//
// Threads:   one at a time. Not locked.
// Ownership: owns up to four descriptors, closed by the destructor. Close-on-exec.
// Units:     the chip's own; nothing is scaled.
// Noise:     a reading that differs little from the value that it would replace is ignored, as
//            readSysfs and readInputEvent tell.
// Failure:   false, logged at error level, with errno where a call failed. After a failed look-up
//            or set-up the object can be used, and all its readings fail.
#pragma once

#include <string>

#include <stdint.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

// One reading.
struct axis_t {
  int32_t x;
  int32_t y;
  int32_t z;
};

class VEXO_UTILS_API Accelerometer {
 public:
  // Looks for the chip (setSysfsPath) and sets it up (init). `name`, not null, is an extended
  // regular expression for the name of its node in the device tree, such as "lis2d[ew]12@18".
  explicit Accelerometer(const char* name);
  Accelerometer(const Accelerometer&) = delete;
  Accelerometer& operator=(const Accelerometer&) = delete;
  ~Accelerometer();

  // Looks for a chip of that name. One with "lis2de@" in it is for input mode and looked for in the
  // subsystem "i2c"; any other is for sysfs mode, in "iio". The first device whose udev property
  // OF_FULLNAME contains a match counts; its sysfs folder is put into `path`, which is untouched
  // when there is none: "Failed to find udev NAME".
  bool setSysfsPath(const char* name, std::string& path);

  // Sets up the chip that the constructor found and opens its files: 100 samples a second in sysfs
  // mode; in input mode one every 500 ms, and the driver's version, id and name logged as info.
  // Called by the constructor. False: "Accelerometer sysfs not found"; "Failed to open proc entry
  // 'PATH'", also when the file got descriptor 0, which a daemon that closed its standard input
  // must not hand to a sensor; "Failed to write 'TEXT' to proc entry 0xN". What was opened before
  // stays open.
  bool init();

  // The axis, newly read, or its last value when the reading fails or is ignored. In sysfs mode
  // getY also renews x, and getZ also renews y, so that a later reading of those is compared with
  // a newer value.
  int getX();
  int getY();
  int getZ();

  // Reads all axes, each compared with what `out` holds, and leaves the object's own values alone.
  // Always true: an axis that cannot be read keeps what it was in `out`, and that is logged.
  bool getXYZ(axis_t& out);

  // Input mode. Waits for events and takes the newest of the axis (0 is x, 1 is y, 2 is z) out of
  // one read(2) of up to 1024 bytes; events of the other axes in there are lost. It replaces
  // `value` when they differ by more than 30. True also when no event was of that axis. False:
  // "Failed to read to buffer from proc entry 0xN, num bytes read N".
  bool readInputEvent(int axis, int& value);

 private:
  friend class CameraAttitude;  // asks whether a chip was found

  axis_t axes{};
  uint32_t found = 0;
  std::string sysfsPath;
  int xFd = -1;
  int yFd = -1;
  int zFd = -1;
  bool useSysfs = true;
  int eventFd = -1;
  int reserved = 0;
};

// Reads a sysfs attribute that holds a decimal number, from its beginning. The number replaces
// `value` when they differ by 3 or more. Of a text that goes on after the number, or has more than
// 15 bytes, the rest is ignored; one without a number counts as 0, and what 32 bits do not hold as
// their largest or smallest value.
// False: "Failed to read from proc entry 0xN, num bytes read N", also for an empty attribute.
VEXO_UTILS_API bool readSysfs(int fd, int& value);

}  // namespace vexo::utils
