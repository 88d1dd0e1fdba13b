// Measures the colour functions beside the same formulas written straight down with libm, and the
// camera's attitude service beside the clock and the bare reads that it needs.
//
//   camera_bench                     all rows
//   camera_bench --benchmark_...     as any Google Benchmark program
//
// First it compares the colours of both: they must be equal to 1e-9. The sensors are plain files in
// memory, in a mount namespace of the program's own; that needs root.
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <vexo_utils/CameraAttitude.h>
#include <vexo_utils/color.h>
#include <vexo_utils/timer.h>

#include "fake_sensors.h"
#include "measure.h"
#include "vexo/host/log_sink.h"
#include "vexo/variant/CameraInfo.h"

namespace vexo::bench {

namespace {

using benchmark::DoNotOptimize;
using benchmark::State;
using utils::CameraAttitude;
using utils::color::Lab;
using utils::color::RGB;
using utils::color::YUV;

constexpr char kOurs[] = "vexo";
constexpr char kLibm[] = "libm";
constexpr char kClock[] = "clock read";
constexpr char kReads[] = "bare reads";

// ---- colours, straight down ----

namespace libm {

constexpr double kPi = 3.14159265358979323846;

Lab labOf(const YUV& yuv) {
  const auto channel = [](double value) {
    const int number = static_cast<int>(value);
    return number < 0 ? 0 : number > 255 ? 255 : number;
  };
  const double u = yuv.u - 128;
  const double v = yuv.v - 128;
  const auto linear = [](int value) {
    const double c = value / 255.0;
    return 100 * (c > 0.04045 ? std::pow((c + 0.055) / 1.055, 2.4) : c / 12.92);
  };
  const double r = linear(channel(yuv.y + 1.4075 * v));
  const double g = linear(channel(yuv.y - 0.3455 * u - 0.7169 * v));
  const double b = linear(channel(yuv.y + 1.779 * u));
  const auto curve = [](double t) {
    return t > 0.008856 ? std::pow(t, 1.0 / 3.0) : 7.787 * t + 16.0 / 116.0;
  };
  const double x = curve((0.4124564 * r + 0.3575761 * g + 0.1804375 * b) / 95.047);
  const double y = curve((0.2126729 * r + 0.7151522 * g + 0.072175 * b) / 100.0);
  const double z = curve((0.0193339 * r + 0.119192 * g + 0.9503041 * b) / 108.883);
  return {116 * y - 16, 500 * (x - y), 200 * (y - z)};
}

double difference(const Lab& one, const Lab& other) {
  const auto rad = [](double degrees) { return degrees * kPi / 180; };
  const auto hueOf = [](double a, double b) {
    if (a == 0 && b == 0) return 0.0;
    const double hue = std::atan2(b, a) * 180 / kPi;
    return hue < 0 ? hue + 360 : hue;
  };
  const double c1 = std::sqrt(std::pow(one.a, 2) + std::pow(one.b, 2));
  const double c2 = std::sqrt(std::pow(other.a, 2) + std::pow(other.b, 2));
  const double cm7 = std::pow((c1 + c2) / 2, 7);
  const double g = 0.5 * (1 - std::sqrt(cm7 / (cm7 + std::pow(25.0, 7))));
  const double a1 = one.a * (1 + g);
  const double a2 = other.a * (1 + g);
  const double cp1 = std::sqrt(std::pow(a1, 2) + std::pow(one.b, 2));
  const double cp2 = std::sqrt(std::pow(a2, 2) + std::pow(other.b, 2));
  const double h1 = hueOf(a1, one.b);
  const double h2 = hueOf(a2, other.b);
  double dh = h2 - h1;
  double h = h1 + h2;
  if (c1 * c2 == 0) {
    dh = 0;
  } else if (std::fabs(dh) > 180) {
    dh += dh > 0 ? -360 : 360;
    h = (h + (h < 360 ? 360 : -360)) / 2;
  } else {
    h /= 2;
  }
  const double l = (one.L + other.L) / 2;
  const double cp = (cp1 + cp2) / 2;
  const double t = 1 - 0.17 * std::cos(rad(h - 30)) + 0.24 * std::cos(rad(2 * h)) +
                   0.32 * std::cos(rad(3 * h + 6)) - 0.20 * std::cos(rad(4 * h - 63));
  const double theta = 30 * std::exp(-std::pow((h - 275) / 25, 2));
  const double cp7 = std::pow(cp, 7);
  const double rc = 2 * std::sqrt(cp7 / (cp7 + std::pow(25.0, 7)));
  const double sl = 1 + 0.015 * std::pow(l - 50, 2) / std::sqrt(20 + std::pow(l - 50, 2));
  const double dL = (other.L - one.L) / sl;
  const double dC = (cp2 - cp1) / (1 + 0.045 * cp);
  const double dH = 2 * std::sqrt(cp1 * cp2) * std::sin(rad(dh / 2)) / (1 + 0.015 * cp * t);
  return std::sqrt(dL * dL + dC * dC + dH * dH - std::sin(rad(2 * theta)) * rc * dC * dH);
}

}  // namespace libm

Lab ourLabOf(const YUV& yuv) {
  return XYZ_to_Lab(RGB_to_XYZ(utils::color::YUV_to_RGB(yuv)));
}

std::vector<YUV> samples() {
  std::minstd_rand random;
  std::uniform_int_distribution<int> any(0, 255);
  const auto next = [&] { return static_cast<int16_t>(any(random)); };
  std::vector<YUV> all(1 << 14);
  for (YUV& yuv : all) yuv = {next(), next(), next()};
  return all;
}

std::vector<Lab> colors() {
  std::vector<Lab> all;
  for (const YUV& yuv : samples()) all.push_back(ourLabOf(yuv));
  return all;
}

void compareColors() {
  double worst = 0;
  Lab before{};
  for (const YUV& yuv : samples()) {
    const Lab ours = ourLabOf(yuv);
    const Lab theirs = libm::labOf(yuv);
    for (const double off :
         {ours.L - theirs.L, ours.a - theirs.a, ours.b - theirs.b,
          utils::color::diff_ciede2000(ours, before) - libm::difference(ours, before)}) {
      worst = std::fmax(worst, std::fabs(off));
    }
    before = ours;
  }
  std::printf("Colours differ from libm's by at most %.1e\n", worst);
  errno = 0;
  require(worst <= 1e-9, "get the same colours to 1e-9");
}

template <Lab (*convert)(const YUV&)>
void convertSamples(State& state) {
  const std::vector<YUV> all = samples();
  std::size_t next = 0;
  measure(state, [&] { DoNotOptimize(convert(all[next++ % all.size()])); });
}

template <double (*compare)(const Lab&, const Lab&)>
void comparePairs(State& state) {
  const std::vector<Lab> all = colors();
  std::size_t next = 0;
  measure(state, [&] {
    DoNotOptimize(compare(all[next % all.size()], all[(next + 1) % all.size()]));
    ++next;
  });
}

void addColors() {
  add("color/yuv-to-lab", kOurs, convertSamples<ourLabOf>);
  add("color/yuv-to-lab", kLibm, convertSamples<libm::labOf>);
  add("color/ciede2000", kOurs, comparePairs<utils::color::diff_ciede2000<Lab>>);
  add("color/ciede2000", kLibm, comparePairs<libm::difference>);
}

// ---- attitude, of the board with two sensors ----

constexpr char kBoard[] = R"({"sysid": 15141, "hwrev": 1, "features": {}, "simulated": {
  "lis2dw12@18": {"counts_per_g": 1024, "desk": [0, 52, 998], "ceiling": [0, 52, -998],
    "wall0": [0, 1000, 0], "wall3": [1000, 0, 0], "wall6": [0, -1000, 0], "wall9": [-1000, 0, 0]},
  "lis2dw12@19": {"counts_per_g": 1024, "desk": [0, 52, -998], "ceiling": [0, 52, 998],
    "wall0": [0, 1000, 0], "wall3": [1000, 0, 0], "wall6": [0, -1000, 0], "wall9": [-1000, 0, 0]}}})";

std::vector<host::Sensor> makeSensors() {
  if (unshare(CLONE_NEWNS) != 0 || mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return {};
  }
  host::coverSysfs();
  setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
  variant::Variant& description = variant::CameraInfo::instance().description();
  variant::Variant::fromJson(kBoard, description);
  const auto sensors = host::sensorsOf(description);
  host::addSensors(sensors);
  return sensors;
}

const std::vector<host::Sensor>& sensors() {
  static const std::vector<host::Sensor> all = makeSensors();
  return all;
}

// A whole pass but for its one clock read; every pass finds the camera turned.
void pass(State& state) {
  if (sensors().empty()) return state.SkipWithError("not root: no sensors");
  CameraAttitude camera;
  camera.init([](utils::Attitude, utils::RPAttitude*) { return true; });
  const std::array<const char*, 2> positions = {"wall0", "ceiling"};
  unsigned passes = 0;
  while (state.KeepRunning()) {
    state.PauseTiming();
    const char* const position = positions[++passes % positions.size()];
    for (const auto& sensor : sensors()) show(sensor, sensor.positions.at(position));
    state.ResumeTiming();
    require(camera.computeMBAttitude() && camera.computeSBAttitude(), "read the sensors");
  }
  report(state);
}

void addAttitude() {
  add("attitude/throttled", kOurs, [](State& state) {
    if (sensors().empty()) return state.SkipWithError("not root: no sensors");
    CameraAttitude camera;
    camera.init([](utils::Attitude, utils::RPAttitude*) { return true; });
    measure(state, [&] { DoNotOptimize(camera.service()); });
  });
  add("attitude/throttled", kClock,
      [](State& state) { measure(state, [] { DoNotOptimize(nowMs()); }); });
  add("attitude/pass", kOurs, pass);
  add("attitude/pass", kReads, [](State& state) {
    if (sensors().empty()) return state.SkipWithError("not root: no sensors");
    const std::string path = sensors()[0].folder + "/in_accel_x_raw";
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    measure(state, [&] {
      std::array<char, 16> text{};
      for (int axis = 0; axis < 6; ++axis) {
        require(pread(fd, text.data(), 15, 0) > 0, "read a sensor");
      }
    });
    close(fd);
  });
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  vexo::host::setLogLevel(4);
  compareColors();
  addColors();
  addAttitude();
  ComparisonReporter reporter({{kOurs, false, nullptr},
                               {kLibm, true, nullptr},
                               {kClock, true, nullptr},
                               {kReads, true, nullptr}},
                              {{"colours", {"color/yuv-to-lab", "color/ciede2000"}, 1.0},
                               {"throttled service", {"attitude/throttled"}, 3.0}});
  return run(argc, argv,
             {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=9",
              "--benchmark_min_time=0.05"},
             reporter);
}
