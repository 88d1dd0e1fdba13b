#include "vexo_utils/coords.h"

#include <atomic>
#include <string>

#include <fcntl.h>

#include "internal/log.h"
#include "vexo/variant/CameraInfo.h"
#include "vexo_utils/fileutils.h"

namespace vexo::utils {

namespace {

using variant::CameraInfo;
using variant::Variant;

constexpr char kCalibration[] = "/etc/ispserver/lensbias.conf";

constexpr uint64_t kSysid3B20 = 0x3B20;
constexpr uint64_t kSysid3B23 = 0x3B23;

// From this hardware revision on, 3B20 leaves the factory with measured values.
constexpr uint64_t kFirstCalibrated3B20 = 4;

struct Circle {
  uint32_t x;
  uint32_t y;
  uint32_t radius;
};

std::string lensModel() {
  std::string model;
  const Variant& features = CameraInfo::instance().getMap("features");
  features["hotplug"]["video0"]["lensmodel"].read(model);
  return model;
}

// The size of the sensor's frame, in w and h, and its centre, in x and y.
coords frameOf(uint64_t sysid, uint32_t width, uint32_t height) {
  if (sysid == kSysid3B20) return {960, 960, 1920, 1920};
  if (sysid == kSysid3B23) {
    const std::string model = lensModel();
    if (model == "Kalvent360") return {1080, 1080, 2160, 2160};
    if (model == "Orvane360") return {1280, 1280, 2560, 2560};
  }
  return {width / 2, height / 2, width, height};
}

bool readKey(const Variant& calibration, const char* key, uint32_t& number) {
  uint64_t value = 0;
  if (!calibration[key].read(value) || value > UINT32_MAX) return false;
  number = static_cast<uint32_t>(value);
  return true;
}

bool readCalibration(Circle& circle) {
  Variant file;
  Variant::FromKVPFile(kCalibration, file);
  const Variant& calibration = file;  // indexed without making keys
  return readKey(calibration, "oc_x", circle.x) && readKey(calibration, "oc_y", circle.y) &&
         readKey(calibration, "oc_r", circle.radius);
}

void logMissingCalibration() {
  static std::atomic<bool> logged{false};
  if (logged.exchange(true)) return;
  VEXO_LOG_INFO("No complete lens calibration in '%s', using the frame's centre", kCalibration);
}

// Values that early units hold in place of measured ones.
bool isPlaceholder(const Circle& circle) {
  return circle.x == 931 || circle.x == 0 || circle.y == 978 || circle.y == 0;
}

// The circle within the frame; `standIn` when it was not measured.
Circle circleOf(uint64_t sysid, const Circle& standIn) {
  const uint64_t hwrev = CameraInfo::instance().getUnsigned("hwrev");
  Circle measured{};
  if (!readCalibration(measured)) {
    logMissingCalibration();
    return standIn;
  }
  if (hwrev < kFirstCalibrated3B20 && sysid == kSysid3B20 && isPlaceholder(measured)) {
    VEXO_LOG_INFO("hwrev %d, oc_x %d, oc_y %d, reject this oc", static_cast<int>(hwrev),
                  static_cast<int>(measured.x), static_cast<int>(measured.y));
    return standIn;
  }
  return measured;
}

// Where a window of 2 * `radius` around `centre` begins within `size`.
uint32_t windowOrigin(uint32_t centre, uint32_t radius, uint32_t size) {
  if (centre < radius) return 0;
  const uint32_t last = size - radius;
  const uint32_t origin = centre < last ? centre - radius : last - radius;
  return (origin + 3) & ~uint32_t{3};
}

}  // namespace

bool isFCD() {
  static const bool present = fileExists("/usr/lib/fcd", true, AT_FDCWD);
  return present;
}

void coordsCenterRemap(coords& from, coords& to) {
  to.x = from.x + ((to.w - from.w) >> 1);
  to.y = from.y + ((to.h - from.h) >> 1);
}

void coordsMirror(coords& c) {
  c.x = (c.w & ~uint32_t{1}) - c.x;
}

void coordsFlip(coords& c) {
  c.y = (c.h & ~uint32_t{1}) - c.y;
}

void fisheyeRemap(unsigned width, unsigned height, unsigned frameWidth, unsigned frameHeight,
                  bool mirror, bool flip, coords& out) {
  const uint64_t sysid = CameraInfo::instance().getUnsigned("sysid");
  coords source = frameOf(sysid, frameWidth, frameHeight);
  const Circle circle = circleOf(sysid, {source.x, source.y, height / 2});
  source.x = circle.x;
  source.y = circle.y;

  coords target{0, 0, width, height};
  coordsCenterRemap(source, target);
  if (mirror) coordsMirror(target);
  if (flip) coordsFlip(target);

  const uint32_t side = ((circle.radius + 3) * 2) & ~uint32_t{7};
  out = {windowOrigin(target.x, circle.radius, width),
         windowOrigin(target.y, circle.radius, height), side, side};
}

}  // namespace vexo::utils
