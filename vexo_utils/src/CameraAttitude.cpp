#include "vexo_utils/CameraAttitude.h"

#include <array>
#include <cmath>
#include <ostream>
#include <utility>

#include "internal/boards.h"
#include "internal/log.h"
#include "vexo/variant/CameraInfo.h"
#include "vexo_utils/Accelerometer.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {

using internal::Board;
using internal::boardOf;
using internal::kDefaultThresholds;
using internal::kSigmaStarThresholds;
using internal::Thresholds;
using internal::thresholdsOf;
using variant::CameraInfo;

namespace {

constexpr unsigned long long kPassMs = 500;

constexpr int kMainBoard = 0;
constexpr int kSensorBoard = 1;

constexpr double kNoise = 2.0;       // degrees
constexpr double kWallPitch = 40.0;  // degrees; the sensor board of a camera on a wall

constexpr std::array<const char*, 7> kNames = {"unknown", "desk",  "ceiling", "wall0",
                                               "wall3",   "wall6", "wall9"};

// Null for a value that is no attitude.
const char* nameOf(Attitude attitude) {
  const auto index = static_cast<std::size_t>(attitude);
  return index < kNames.size() ? kNames[index] : nullptr;
}

uint64_t sysid() {
  return CameraInfo::instance().getUnsigned("sysid");
}

double degrees(double radians) {
  return radians * 180 / 3.141592653589793;
}

int signOf(double number) {
  return (number > 0.0) - (number < 0.0);
}

}  // namespace

std::ostream& operator<<(std::ostream& out, Attitude attitude) {
  const char* const name = nameOf(attitude);
  if (name == nullptr) {
    out.setstate(std::ios_base::failbit);
    return out;
  }
  return out << name;
}

template <>
std::string toString<Attitude>(Attitude attitude) {
  const char* const name = nameOf(attitude);
  return name == nullptr ? "" : name;
}

CameraAttitude::CameraAttitude() = default;
CameraAttitude::~CameraAttitude() = default;

void CameraAttitude::init(Callback cb) {
  const Board& board = boardOf(sysid());
  const Thresholds& chosen = thresholdsOf(board);
  thresholds = {{"default-strict", kDefaultThresholds.strict},
                {"default-loose", kDefaultThresholds.loose},
                {"sstar-lis2dw12-strict", kSigmaStarThresholds.strict},
                {"sstar-lis2dw12-loose", kSigmaStarThresholds.loose},
                {"strict", chosen.strict},
                {"loose", chosen.loose}};
  mbName = board.mainChip;
  sbName = board.sensorChip;
  dualSensor = !sbName.empty();
  refresh();
  callback = std::move(cb);
}

void CameraAttitude::refresh() {
  if (!mbName.empty()) mbAccelerometer = std::make_unique<Accelerometer>(mbName.c_str());
  if (!sbName.empty()) sbAccelerometer = std::make_unique<Accelerometer>(sbName.c_str());
}

bool CameraAttitude::service() {
  const auto now = static_cast<unsigned long long>(nowMs());
  if (now - lastPass < kPassMs) return true;
  lastPass = now;

  const RPAttitude before = mbAttitude;
  const bool useMain = mbAccelerometer != nullptr && mbAccelerometer->found != 0;
  const bool useSensor = sbAccelerometer != nullptr && sbAccelerometer->found != 0;
  if ((useMain && !computeMBAttitude()) || (useSensor && !computeSBAttitude())) {
    VEXO_LOG_WARNING("Attitude computation error");
    return false;
  }
  if (!changed) return true;
  if (mbAttitude.attitude != before.attitude) {
    VEXO_LOG_INFO("attitude: %s -> %s", nameOf(before.attitude), nameOf(mbAttitude.attitude));
  }
  if (!callback(mbAttitude.attitude, useSensor ? &sbAttitude : nullptr)) {
    VEXO_LOG_ERROR("Failed to callback attitude change event");
    return false;
  }
  changed = false;
  return true;
}

void CameraAttitude::refreshAttitude() {
  changed = true;
}

Attitude CameraAttitude::attitude() const {
  return mbAttitude.attitude;
}

bool CameraAttitude::computeMBAttitude() {
  axis_t reading{};
  if (mbAccelerometer == nullptr || !mbAccelerometer->getXYZ(reading)) {
    VEXO_LOG_ERROR("Failed to getXYZ from the accelerometer");
    return false;
  }
  const Attitude before = mbAttitude.attitude;
  if (dualSensor) {
    thresholds["rollDesk"] = 60;
    thresholds["rollCeiling"] = 120;
    thresholds["pitch"] = 35;
    mbAttitude = classify(kMainBoard, reading, mbAttitude);
  } else {
    const Thresholds limits{thresholds["strict"], thresholds["loose"]};
    mbAttitude.attitude = decide(boardOf(sysid()), reading, limits, before).attitude;
  }
  if (mbAttitude.attitude != before) changed = true;
  return true;
}

bool CameraAttitude::computeSBAttitude() {
  axis_t reading{};
  if (sbAccelerometer == nullptr || !sbAccelerometer->getXYZ(reading)) {
    VEXO_LOG_ERROR("Failed to getXYZ from the accelerometer");
    return false;
  }
  const Attitude camera = mbAttitude.attitude;
  const bool upright = camera == Attitude::desk || camera == Attitude::ceiling;
  thresholds["rollDesk"] = upright ? 15 : 75;
  thresholds["rollCeiling"] = upright ? 165 : 105;
  thresholds["pitch"] = upright ? 15 : 75;

  const RPAttitude before = sbAttitude;
  sbAttitude = classify(kSensorBoard, reading, before);
  const bool crossed =
      camera == Attitude::wall0 &&
      crossingBoundary(std::fabs(before.pitch), std::fabs(sbAttitude.pitch), kWallPitch);
  if (crossed || sbAttitude.attitude != before.attitude ||
      signOf(sbAttitude.roll) != signOf(before.roll) ||
      signOf(sbAttitude.pitch) != signOf(before.pitch)) {
    changed = true;
  }
  return true;
}

bool CameraAttitude::crossingBoundary(double from, double to, double boundary) {
  return (from < boundary && boundary <= to) || (from > boundary && boundary >= to);
}

// By roll and pitch, with the thresholds of the table.
RPAttitude CameraAttitude::classify(int board, axis_t reading, const RPAttitude& previous) const {
  // Negated as integers: a negative zero would turn a roll of 0 into one of 180 degrees.
  const auto x = static_cast<double>(-int64_t{reading.x});
  const auto y = static_cast<double>(reading.y);
  const bool flipped = board == kSensorBoard && (sysid() == 0x3B25 || sysid() == 0x3C02);
  const auto z = static_cast<double>(flipped ? -int64_t{reading.z} : int64_t{reading.z});

  RPAttitude result;
  result.roll = degrees(std::atan2(y, z));
  result.pitch = degrees(std::atan2(x, std::sqrt(y * y + z * z)));
  if (std::fabs(result.roll - previous.roll) < kNoise &&
      std::fabs(result.pitch - previous.pitch) < kNoise) {
    return previous;
  }
  const double roll = std::fabs(result.roll);
  const bool level = std::fabs(result.pitch) <= thresholds.at("pitch");
  result.attitude = Attitude::wall0;
  if (level && roll <= thresholds.at("rollDesk")) {
    result.attitude = Attitude::desk;
  } else if (level && roll >= thresholds.at("rollCeiling")) {
    result.attitude = Attitude::ceiling;
  }
  return result;
}

AttitudeDecision explainAttitude(const axis_t& reading, Attitude before) {
  const Board& board = boardOf(sysid());
  return decide(board, reading, thresholdsOf(board), before);
}

}  // namespace vexo::utils
