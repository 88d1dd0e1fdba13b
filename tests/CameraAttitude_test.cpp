#include "vexo_utils/CameraAttitude.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "camera.h"
#include "fake_sensors.h"
#include "log_recorder.h"
#include "vexo_utils/Accelerometer.h"
#include "vexo_utils/string_utils.h"

namespace {

long long monotonicMs = 0;  // where the monotonic clock stands; 0: it runs

}  // namespace

// In the place of the C library's, for the library as well.
extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock,
                                                                    timespec* time) noexcept {
  if (clock != CLOCK_MONOTONIC || monotonicMs == 0) {
    return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
  }
  *time = {static_cast<time_t>(monotonicMs / 1000),
           static_cast<long>(monotonicMs % 1000 * 1000000)};
  return 0;
}

namespace vexo::utils {

namespace {

using namespace test;
using A = Attitude;
using host::Axes;
using host::turned;
using variant::Variant;

std::string descriptionOf(const std::string& board) {
  Variant description;
  Variant::FromJSONFile(VEXO_BINARY_DIR "/platform/host/boards/" + board + ".json", description);
  return description.toJson();
}

// The service of a camera on a desk, a pass at a time, and what it called back.
struct Camera {
  explicit Camera(const std::string& board) {
    setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    monotonicMs = 1'000'000;
    describeCamera(descriptionOf(board));
    sensors = host::sensorsOf(variant::CameraInfo::instance().description());
    host::coverSysfs();
    host::addSensors(sensors);
    put("desk");
    attitude.init([this](A now, RPAttitude* record) {
      calls += toString(now) + (record != nullptr ? "+" + toString(record->attitude) : "") + " ";
      return accept;
    });
  }
  ~Camera() { monotonicMs = 0; }

  void put(const std::string& position) const {
    for (const auto& sensor : sensors) show(sensor, sensor.positions.at(position));
  }
  A read(const Axes& axes) {  // by the main board
    show(sensors[0], axes);
    EXPECT_TRUE(attitude.computeMBAttitude());
    return attitude.attitude();
  }
  std::string pass(bool expected = true) {
    monotonicMs += 500;
    calls.clear();
    EXPECT_EQ(attitude.service(), expected);
    return calls;
  }

  std::vector<host::Sensor> sensors;
  CameraAttitude attitude;
  bool accept = true;
  std::string calls;
};

TEST(Attitude, NamesAndBoundaries) {
  const char* const names[] = {"unknown", "desk", "ceiling", "wall0", "wall3", "wall6", "wall9"};
  for (int i = -1; i <= 7; ++i) {
    const bool named = i >= 0 && i < 7;
    std::ostringstream out;
    out << static_cast<A>(i);
    EXPECT_EQ(out.fail(), !named);
    EXPECT_EQ(out.str(), named ? names[i] : "");
    EXPECT_EQ(toString(static_cast<A>(i)), out.str());
  }
  const int rows[][3] = {{39, 40, 1}, {40, 41, 0}, {41, 40, 1}, {40, 39, 0},
                         {39, 41, 1}, {41, 39, 1}, {38, 39, 0}, {40, 40, 0}};
  for (const auto& [from, to, crosses] : rows) {
    EXPECT_EQ(CameraAttitude::crossingBoundary(from, to, 40), crosses == 1) << from << ' ' << to;
  }
}

// Board, chips of the main and of the sensor board, thresholds.
constexpr char kBoards[] = R"(
3B11 lis2dw12@18 - sstar        3B12 lis2dw12@19 - sstar     3B13 lis2dw12@18 - sstar
3B15 lis2d[ew]12@18 - sstar     3B18 lis2dw12@18 - sstar     3B1A lis2dw12@18 - sstar
3B1B lis2dw12@18 - any          3B1C lis2dw12@18 - sstar     3B1D lis2dw12@18 - sstar
3B20 lis2d[ew]12@18 - default   3B22 lis2de12@18 - default   3B23 lis2d[ew]12@19 - default
3B24 lis2dw12@18 - default      3B26 lis2dw12@18 - default   3B30 lis2de12@18 - default
3C01 lis2dw12@18 - default      7D40 lis2d[ew]12@18 - default
3B25 lis2dw12@18 lis2dw12@19 any   3C02 lis2dw12@18 lis2dw12@19 any   other - - any)";

TEST(Boards, ChipsAndThresholds) {
  host::coverSysfs();
  std::istringstream rows(kBoards);
  std::string board, main, sensor, thresholds;
  while (rows >> board >> main >> sensor >> thresholds) {
    describeCamera(descriptionOf(board));
    CameraAttitude attitude;
    attitude.init(nullptr);
    for (const std::string& chip : {main, sensor}) {
      EXPECT_EQ(logged(kError, "Failed to find udev " + chip), chip != "-") << board;
      EXPECT_EQ(logged(kError, "Accelerometer sysfs not found"), chip != "-") << board;
    }
    EXPECT_TRUE(attitude.service());  // nothing to compute
    bool decided = false;             // by the lower thresholds only
    for (const axis_t axes : {axis_t{1000, 0, 0}, {0, 1000, 0}, {0, 0, 1000}}) {
      decided = decided || explainAttitude(axes, A::unknown).attitude != A::unknown;
    }
    EXPECT_TRUE(thresholds == "any" || thresholds == (decided ? "default" : "sstar")) << board;
  }
  EXPECT_EQ(board, "other");
  forgetLog();
  for (const char* hwrev : {"13", "14", "4294967296"}) {
    describeCamera(format(R"({"sysid":%d,"hwrev":%s})", 0x3B15, hwrev));
    EXPECT_EQ(explainAttitude({400, 0, 0}, A::wall9).attitude == A::desk, hwrev[1] == '3');
  }
}

// Board, x, y, z, outcome. 3B18 is said with the value of its key, 3B20 with its lens.
constexpr char kDecisions[] = R"(
3B24 384 383 0 desk        3B24 -384 -383 0 desk     3B24 384 0 -1 ceiling  3B24 383 383 383 -
3B24 384 384 0 -           3B24 383 -384 383 wall0   3B24 383 384 383 wall6 3B24 0 700 700 -
3B24 0 0 -384 wall3        3B24 0 0 384 wall9        3B24 963 963 0 -
3B24 962 -963 962 wall0    3B24 0 962 -963 wall3     3B24 2147483647 0 1 desk
3B24 -2147483648 0 1 -     3B24 384 -2147483648 1 -  3B24 384 0 -2147483647 -
3B24 -2147483646 0 1 desk  3B26 0 -2147483647 0 -    3B26 9 384 9999 wall0  3B26 0 383 0 -
3B26 0 -383 0 -            3B26 0 -384 0 wall6       3C01 0 384 0 wall0     3B30 0 -384 0 wall0
3B30 0 384 0 wall6         7D40 0 0 -384 wall0       7D40 0 0 384 wall6     other 9999 0 0 -
3B1B 10000 0 0 desk        3B1B -10000 0 -1 ceiling  3B1B 10001 0 -1 desk   3B1B -10001 0 1 ceiling
3B18:true 9999 0 1 ceiling 3B18:false 9999 0 1 desk  3B18:1 9999 0 1 desk   3B18:null 9999 0 1 desk
3B20:Kalvent360 500 0 -1 ceiling   3B20:KalventFisheye 500 0 1 desk   3B20:KalventTele 0 500 0 wall0
3B20:KalventWide 0 0 -500 wall3    3B20:Orvane360:360 1 500 0 ceiling 3B20:Orvane360:360 0 0 500 wall0
3B20:Orvane360 0 1 500 ceiling     3B20: 500 0 0 wall0)";

std::string variantOf(const std::string& board) {
  std::vector<std::string> parts;
  split(board, ":", parts);
  if (parts.size() == 1) return descriptionOf(board);
  if (parts[0] == "3B18") {
    return format(R"({"sysid":%d,"features":{"tarnMpVersion":%s}})", 0x3B18, parts[1].c_str());
  }
  const char* const json =
      R"({"sysid":%d,"features":{"hotplug":{"video0":{"lensmodel":"%s","lenstype":"%s"}}}})";
  return format(json, 0x3B20, parts[1].c_str(), parts.size() > 2 ? parts[2].c_str() : "180");
}

TEST(Boards, DecideToTheUnit) {
  std::istringstream rows(kDecisions);
  std::string board, outcome;
  axis_t axes{};
  int count = 0;
  while (rows >> board >> axes.x >> axes.y >> axes.z >> outcome) {
    ++count;
    describeCamera(variantOf(board));
    for (const A before : {A::unknown, A::desk, A::wall9}) {
      EXPECT_EQ(toString(explainAttitude(axes, before).attitude),
                outcome == "-" ? toString(before) : outcome)
          << board << ' ' << axes.x << ' ' << axes.y << ' ' << axes.z;
    }
  }
  EXPECT_EQ(count, 45);
}

// What a board says in a position; "": it stays as it was.
std::string outcomeOf(const std::string& board, const std::string& position) {
  const bool wall = position.find("wall") == 0;
  if (board == "3B25" || board == "3C02") return wall ? "wall0" : position;
  if (board == "3B26" || board == "3C01" || board == "3B30" || board == "7D40") {
    return position == "wall0" || position == "wall6" ? position : "";
  }
  if (board == "3B1B" && wall) return position == "wall6" ? "ceiling" : "desk";
  return position;
}

TEST(Boards, TurnedThroughAllPositions) {
  constexpr int kSteps = 60;
  std::minstd_rand random;
  int boards = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(VEXO_BINARY_DIR "/platform/host/boards")) {
    const std::string board = file.path().stem();
    if (file.path().extension() != ".json" || board == "other") continue;
    ++boards;
    Camera camera(board);
    const auto& positions = camera.sensors[0].positions;
    Axes from = positions.at("desk");
    std::string last = "unknown";
    for (const std::string position :
         {"desk", "wall0", "wall3", "wall6", "wall9", "wall0", "ceiling", "wall6", "desk"}) {
      const Axes to = positions.at(position);
      const std::string outcome = outcomeOf(board, position);
      const std::string expected = outcome.empty() ? last : outcome;
      const auto read = [&](const Axes& axes) {
        const std::string now = toString(camera.read(axes));
        EXPECT_TRUE(now == last || now == expected) << board << ' ' << position << ": " << now;
        last = now;  // once it got there, it stays
      };
      for (int step = 1; step <= kSteps; ++step) read(turned(from, to, step / double{kSteps}));
      EXPECT_EQ(last, expected) << board << ' ' << position;
      // Noise of 1.5 % of g, but where a board takes one position for another, and so by chance.
      const int noise = expected == position ? std::abs(to[0] + to[1] + to[2]) * 3 / 200 : 0;
      std::uniform_int_distribution<int> off(-noise, noise);
      for (int i = 0; i < 20; ++i) {
        read({to[0] + off(random), to[1] + off(random), to[2] + off(random)});
      }
      from = to;
    }
  }
  EXPECT_EQ(boards, 19);
}

// ---- two sensors ----

TEST(RollAndPitch, MainBoardToTheDegree) {
  const std::pair<Axes, A> rows[] = {{{0, 3691, 2131}, A::desk},      // roll 59.9999999
                                     {{0, 5042, 2911}, A::wall0},     // roll 60.0000005
                                     {{0, -3691, 2131}, A::desk},     // roll -59.9999999
                                     {{0, 5042, -2911}, A::wall0},    // roll 119.9999995
                                     {{0, 3691, -2131}, A::ceiling},  // roll 120.0000018
                                     {{699, 0, 1000}, A::desk},       // pitch -34.95
                                     {{701, 0, 1000}, A::wall0},      // pitch -35.03
                                     {{-701, 0, -1000}, A::wall0},    // pitch 35.03
                                     {{0, INT32_MIN, INT32_MIN}, A::ceiling}};
  for (const auto& [axes, outcome] : rows) EXPECT_EQ(Camera("3B25").read(axes), outcome) << axes[1];

  // Less than two degrees are noise, also from the level at which a camera starts.
  const std::pair<Axes, A> steps[] = {{{0, 0, 1000}, A::unknown}, {{34, 34, 1000}, A::unknown},
                                      {{0, 35, 1000}, A::desk},      // roll 2.005
                                      {{0, 1709, 1000}, A::desk},    // roll 59.67
                                      {{0, 1851, 1000}, A::desk},    // 1.95 more
                                      {{0, 1860, 1000}, A::wall0}};  // 2.07 more
  Camera camera("3C02");
  for (const auto& [axes, outcome] : steps) EXPECT_EQ(camera.read(axes), outcome) << axes[1];
}

TEST(Service, SensorBoardIsJudgedByTheMainBoardsAttitude) {
  Camera camera("3B25");
  const Axes desk{0, 52, 998};
  const Axes wall{0, 1000, 0};
  const Axes ceiling{0, 52, -998};
  const struct {
    Axes main, sensor;
    const char* calls;
  } rows[] = {{desk, {0, 52, -998}, "desk+desk "},
              {desk, {0, 87, -996}, ""},              // roll 5
              {desk, {0, 276, -961}, "desk+wall0 "},  // roll 16
              {desk, {0, 52, -998}, "desk+desk "},
              {desk, {0, -52, -998}, "desk+desk "},         // the roll's sign
              {desk, {-100, -52, -998}, "desk+desk "},      // the pitch's sign
              {desk, {-276, -52, -961}, "desk+wall0 "},     // pitch 16
              {wall, {-276, -52, -961}, "wall0+wall0 "},    // not moved, so not judged anew
              {wall, {-500, -52, -866}, "wall0+desk "},     // pitch 30
              {wall, {-650, -52, -758}, "wall0+desk "},     // crosses 40
              {wall, {-707, -52, -707}, ""},                // pitch 45
              {wall, {-500, -52, -866}, "wall0+desk "},     // back over 40
              {wall, {-970, -52, -240}, "wall0+wall0 "},    // pitch 76
              {wall, {0, -966, -262}, "wall0+desk "},       // roll -74.8
              {wall, {0, -974, -225}, "wall0+wall0 "},      // roll -77
              {wall, {0, -974, 225}, ""},                   // roll -103
              {wall, {0, -965, 262}, "wall0+ceiling "},     // roll -105.2
              {ceiling, {0, 52, 998}, "ceiling+ceiling "},  // roll 177
              {ceiling, {0, 250, 968}, ""},                 // roll 165.5
              {ceiling, {0, 300, 954}, "ceiling+wall0 "}};  // roll 162.5
  for (const auto& row : rows) {
    show(camera.sensors[0], row.main);
    show(camera.sensors[1], row.sensor);
    EXPECT_EQ(camera.pass(), row.calls) << row.sensor[0] << ' ' << row.sensor[1];
  }
}

TEST(Service, ThrottlesAndRetries) {
  Camera camera("3B24");
  EXPECT_EQ(camera.pass() + camera.pass(), "desk ");
  EXPECT_TRUE(logged(kInfo, "attitude: unknown -> desk"));

  camera.put("wall3");
  camera.accept = false;
  monotonicMs += 499;
  EXPECT_TRUE(camera.attitude.service());
  EXPECT_EQ(camera.attitude.attitude(), A::desk) << "nothing was read";
  monotonicMs -= 499;
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(camera.pass(false), "wall3 ");
    EXPECT_TRUE(logged(kError, "Failed to callback attitude change event"));
  }
  camera.accept = true;
  EXPECT_EQ(camera.pass() + camera.pass(), "wall3 ");
  EXPECT_TRUE(logged(kInfo, "attitude: desk -> wall3"));
  EXPECT_FALSE(logged(kInfo, "attitude: desk -> wall3"));

  camera.attitude.refreshAttitude();
  EXPECT_EQ(camera.pass(), "wall3 ");
  std::filesystem::resize_file(camera.sensors[0].folder + "/in_accel_y_raw", 0);
  EXPECT_EQ(camera.pass(), "") << "an axis that cannot be read counts as 0";
  camera.attitude.init(nullptr);
  camera.attitude.refreshAttitude();
  monotonicMs += 500;
  EXPECT_THROW(camera.attitude.service(), std::bad_function_call);
  forgetLog();
}

TEST(Service, OneOfTwoSensorsOrNone) {
  Camera none("other");
  EXPECT_EQ(none.pass(), "");
  none.attitude.refreshAttitude();
  EXPECT_EQ(none.pass(), "unknown ");
  EXPECT_FALSE(none.attitude.computeMBAttitude());
  EXPECT_FALSE(none.attitude.computeSBAttitude());
  EXPECT_TRUE(logged(kError, "Failed to getXYZ from the accelerometer"));

  Camera half("3B25");
  std::filesystem::remove("/sys/bus/iio/devices/iio:device0");
  half.attitude.refresh();
  EXPECT_EQ(half.pass(), "unknown+desk ");
  forgetLog();
}

TEST(CameraAttitudeDeathTest, DescriptionWithoutTheKeys) {
  const auto ask = [] {
    CameraAttitude().init(nullptr);
    explainAttitude({}, A::desk);
  };
  expectCrashes(
      ask, {{R"({"sysid":15125})", "Key \"hwrev\" not available"},
            {R"({"sysid":15125,"hwrev":-1})", "Key \"hwrev\" has a different type than expected"},
            {R"({"sysid":15128})", "Key \"features\" not available"},
            {R"({"sysid":15136,"features":1})", "Key \"features\" has a different type"}});
}

}  // namespace

}  // namespace vexo::utils
