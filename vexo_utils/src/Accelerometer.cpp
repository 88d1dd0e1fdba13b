#include "vexo_utils/Accelerometer.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/retry.h"
#include "internal/udev.h"
#include "internal/unique_fd.h"
#include "vexo_utils/validation.h"

namespace vexo::utils {

using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr char kEventDevice[] = "/dev/input/event0";
constexpr char kInputModeName[] = "lis2de@";

// Descriptor 0 is what a daemon without standard input gets; a sensor there would be its input.
constexpr int kLowestFd = 1;
constexpr mode_t kMode = 0666;

constexpr int64_t kSysfsDeadBand = 3;   // differences from here on count
constexpr int64_t kEventDeadBand = 31;  // likewise

constexpr std::size_t kMaxName = 256;
constexpr std::size_t kMaxEventBytes = 1024;
static_assert(sizeof(void*) != 4 || sizeof(input_event) == 16, "the driver's events");

UniqueFd openEntry(const std::string& path, int flags) {
  errno = 0;  // none of its own to report when it is descriptor 0 that is refused
  UniqueFd fd(retryOnEintr([&] { return open(path.c_str(), flags | O_CLOEXEC, kMode); }));
  if (fd.get() >= kLowestFd) return fd;
  VEXO_LOG_ERROR_ERRNO("Failed to open proc entry '%s'", path.c_str());
  return UniqueFd();
}

bool openAxis(const std::string& path, int& fd) {
  UniqueFd opened = openEntry(path, O_RDONLY);
  if (!opened.valid()) return false;
  UniqueFd before(fd);  // of an earlier set-up
  fd = opened.release();
  return true;
}

// Drivers get the null byte as well.
template <std::size_t kSize>
bool writeEntry(const std::string& path, const char (&text)[kSize]) {
  const UniqueFd fd = openEntry(path, O_RDWR | O_CREAT | O_TRUNC);
  if (!fd.valid()) return false;
  errno = 0;
  const ssize_t written = retryOnEintr([&] { return pwrite(fd.get(), text, kSize, 0); });
  if (written == static_cast<ssize_t>(kSize)) return true;
  VEXO_LOG_ERROR_ERRNO("Failed to write '%s' to proc entry 0x%x", text,
                       static_cast<unsigned>(fd.get()));
  return false;
}

void logInputDevice(int fd) {
  int version = 0;
  ioctl(fd, EVIOCGVERSION, &version);
  VEXO_LOG_INFO("Input driver version is %d.%d.%d", version >> 16, (version >> 8) & 0xff,
                version & 0xff);
  input_id id{};
  ioctl(fd, EVIOCGID, &id);
  VEXO_LOG_INFO("Input device ID: bus 0x%x vendor 0x%x product 0x%x version 0x%x", id.bustype,
                id.vendor, id.product, id.version);
  std::array<char, kMaxName + 1> name{"Unknown"};  // a long name comes without a null byte
  ioctl(fd, EVIOCGNAME(kMaxName), name.data());
  VEXO_LOG_INFO("Input device name: \"%s\"", name.data());
}

// Takes a reading that differs by at least `deadBand`. In 64 bits: two values of 32 may lie further
// apart than 32 hold.
void takeReading(int reading, int64_t deadBand, int& value) {
  if (std::abs(int64_t{reading} - int64_t{value}) >= deadBand) value = reading;
}

int numberIn(const char* text) {
  using Limits = std::numeric_limits<int>;
  const long long number = std::strtoll(text, nullptr, 10);  // skips blanks before it
  return static_cast<int>(std::clamp<long long>(number, Limits::min(), Limits::max()));
}

void closeDescriptor(int& fd) {
  UniqueFd owner(fd);
  fd = -1;
}

}  // namespace

Accelerometer::Accelerometer(const char* name) {
  found = setSysfsPath(name, sysfsPath) ? 1 : 0;
  init();
}

Accelerometer::~Accelerometer() {
  for (int* fd : {&xFd, &yFd, &zFd, &eventFd}) closeDescriptor(*fd);
}

bool Accelerometer::setSysfsPath(const char* name, std::string& path) {
  useSysfs = !regex_match(kInputModeName, name, true);
  std::string device;
  if (!internal::Udev::Init(device, useSysfs ? "iio" : "i2c", name)) {
    VEXO_LOG_ERROR("Failed to find udev %s", name);
    return false;
  }
  path = device;
  return true;
}

bool Accelerometer::init() {
  if (found == 0) {
    VEXO_LOG_ERROR("Accelerometer sysfs not found");
    return false;
  }
  if (useSysfs) {
    return writeEntry(sysfsPath + "/sampling_frequency", "100") &&
           openAxis(sysfsPath + "/in_accel_x_raw", xFd) &&
           openAxis(sysfsPath + "/in_accel_y_raw", yFd) &&
           openAxis(sysfsPath + "/in_accel_z_raw", zFd);
  }
  if (!openAxis(kEventDevice, eventFd)) return false;
  logInputDevice(eventFd);
  return writeEntry(sysfsPath + "/pollrate_ms", "500") &&
         writeEntry(sysfsPath + "/enable_device", "1");
}

int Accelerometer::getX() {
  if (useSysfs) {
    readSysfs(xFd, axes.x);
  } else {
    readInputEvent(0, axes.x);
  }
  return axes.x;
}

int Accelerometer::getY() {
  if (useSysfs) {
    readSysfs(xFd, axes.x);
    readSysfs(yFd, axes.y);
  } else {
    readInputEvent(1, axes.y);
  }
  return axes.y;
}

int Accelerometer::getZ() {
  if (useSysfs) {
    readSysfs(yFd, axes.y);
    readSysfs(zFd, axes.z);
  } else {
    readInputEvent(2, axes.z);
  }
  return axes.z;
}

bool Accelerometer::getXYZ(axis_t& out) {
  if (useSysfs) {
    readSysfs(xFd, out.x);
    readSysfs(yFd, out.y);
    readSysfs(zFd, out.z);
  } else {
    readInputEvent(0, out.x);
    readInputEvent(1, out.y);
    readInputEvent(2, out.z);
  }
  return true;
}

bool Accelerometer::readInputEvent(int axis, int& value) {
  std::array<char, kMaxEventBytes> buffer;
  errno = 0;  // an end of file has none
  const ssize_t size = retryOnEintr([&] { return read(eventFd, buffer.data(), buffer.size()); });
  if (size <= 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to read to buffer from proc entry 0x%x, num bytes read %d",
                         static_cast<unsigned>(eventFd), static_cast<int>(size));
    return false;
  }
  for (std::size_t left = static_cast<std::size_t>(size) / sizeof(input_event); left > 0; --left) {
    input_event event;
    std::memcpy(&event, &buffer[(left - 1) * sizeof event], sizeof event);
    if (event.type != EV_MSC || event.code != axis) continue;
    takeReading(event.value, kEventDeadBand, value);
    break;
  }
  return true;
}

bool readSysfs(int fd, int& value) {
  std::array<char, 16> buffer{};
  errno = 0;
  const ssize_t size = retryOnEintr([&] { return pread(fd, buffer.data(), buffer.size() - 1, 0); });
  if (size <= 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to read from proc entry 0x%x, num bytes read %d",
                         static_cast<unsigned>(fd), static_cast<int>(size));
    return false;
  }
  takeReading(numberIn(buffer.data()), kSysfsDeadBand, value);
  return true;
}

}  // namespace vexo::utils
