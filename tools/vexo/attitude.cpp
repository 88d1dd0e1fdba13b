// vexo attitude: how the camera hangs.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <vexo_utils/Accelerometer.h>
#include <vexo_utils/CameraAttitude.h>

#include "command.h"

namespace {

using vexo::utils::Attitude;
using vexo::utils::axis_t;
using vexo::utils::CameraAttitude;
using vexo::utils::RPAttitude;

// The sensors of all boards.
constexpr char kAnyChip[] = "lis2d[ew]12@1[89]";

int tell() {
  CameraAttitude camera;
  const auto changed = [](Attitude, const RPAttitude* record) {
    if (record == nullptr) return true;
    std::printf("sensor board %-8s roll %.1f pitch %.1f\n", toString(record->attitude).c_str(),
                record->roll, record->pitch);
    return true;
  };
  camera.init(changed);
  if (!camera.service()) return failed("cannot tell");
  std::printf("%s\n", toString(camera.attitude()).c_str());
  return camera.attitude() != Attitude::unknown ? kDone : kFailed;
}

bool readNumbers(char** words, int count, std::vector<axis_t>& readings) {
  const auto number = [](const char* word, int32_t& out) {
    return numberOf(word, INT32_MIN, INT32_MAX, out);
  };
  for (int i = 0; i + 2 < count; i += 3) {
    axis_t reading{};
    if (!number(words[i], reading.x) || !number(words[i + 1], reading.y) ||
        !number(words[i + 2], reading.z)) {
      return false;
    }
    readings.push_back(reading);
  }
  return count % 3 == 0;
}

// Each is judged after the one before it.
void explain(const std::vector<axis_t>& readings) {
  Attitude attitude = Attitude::unknown;
  for (const axis_t& reading : readings) {
    const auto decision = vexo::utils::explainAttitude(reading, attitude);
    attitude = decision.attitude;
    std::printf("%6d %6d %6d  %-8s %s\n", reading.x, reading.y, reading.z,
                toString(attitude).c_str(), decision.rule);
  }
}

int run(int argc, char** argv) {
  // Not by getopt(3): readings may begin with '-'.
  const bool explaining = argc > 1 && std::strcmp(argv[1], "--explain") == 0;
  if (argc > 1 && !explaining) return misused("wrong option %s", argv[1]);
  const bool namesChip = argc == 4 && std::strcmp(argv[2], "--chip") == 0;
  std::vector<axis_t> readings;
  if (explaining && !namesChip && !readNumbers(argv + 2, argc - 2, readings)) {
    return misused("give readings as X Y Z, three 32-bit numbers each");
  }
  if (!hasCamera()) return kFailed;
  if (!explaining) return tell();
  if (readings.empty()) {
    readings.emplace_back();
    axis_t& now = readings.back();
    vexo::utils::Accelerometer(namesChip ? argv[3] : kAnyChip).getXYZ(now);
    // Gravity is in one of the axes: without a reading, all are as they were.
    if (now.x == 0 && now.y == 0 && now.z == 0) return failed("no reading of a chip");
  }
  explain(readings);
  return kDone;
}

}  // namespace

const Command attitudeCommand = {"attitude", "tell how the camera hangs, with --explain also why",
                                 R"(usage: vexo attitude
       vexo attitude --explain [--chip REGEX | X Y Z [X Y Z]...]

Reads the accelerometers once: desk, ceiling, wall0, wall3, wall6, wall9, or unknown, which is
exit status 1.

  --explain      tells which rule of the board decides on a reading; without numbers, on that of
                 the chip now. Readings are judged one after the other, as docs/boards.md tells.
  --chip REGEX   of the chip's node in the device tree; default: lis2d[ew]12@1[89]

  vexo attitude --explain -990 0 260  0 -1020 10
)",
                                 run};
