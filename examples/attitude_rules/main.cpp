// Tells how this camera's board judges readings of its accelerometer: which attitude, and which of
// the board's rules decided it. For the installer who checks a board (docs/boards.md).
//
//   attitude_rules X Y Z [X Y Z]...     each reading is judged after the one before it

#include <cstdio>
#include <cstdlib>
#include <string>

#include <vexo_utils/Accelerometer.h>
#include <vexo_utils/CameraAttitude.h>

namespace {

// Ends the program when the text is no number of 32 bits.
int32_t numberOf(const char* text) {
  char* end = nullptr;
  const long long number = std::strtoll(text, &end, 10);
  if (end == text || *end != '\0' || number < INT32_MIN || number > INT32_MAX) {
    std::fprintf(stderr, "no reading: %s\n", text);
    std::exit(2);
  }
  return static_cast<int32_t>(number);
}

}  // namespace

int main(int argc, char** argv) {
  using vexo::utils::Attitude;
  if (argc < 4 || argc % 3 != 1) {
    std::fprintf(stderr, "usage: %s X Y Z [X Y Z]...\n", argv[0]);
    return 2;
  }
  Attitude attitude = Attitude::unknown;
  for (int i = 1; i < argc; i += 3) {
    const vexo::utils::axis_t reading{numberOf(argv[i]), numberOf(argv[i + 1]),
                                      numberOf(argv[i + 2])};
    const auto decision = vexo::utils::explainAttitude(reading, attitude);
    attitude = decision.attitude;
    std::printf("%6d %6d %6d  %-8s %s\n", reading.x, reading.y, reading.z,
                toString(attitude).c_str(), decision.rule);
  }
  return 0;
}
