#include "internal/boards.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <limits>
#include <string>

#include "vexo/variant/CameraInfo.h"

namespace vexo::utils::internal {

namespace {

using variant::CameraInfo;
using variant::Variant;

constexpr AttitudeDecision undecided(Attitude before) {
  return {before, "none decides"};
}

// ---- the chip's readings as the board's; in 64 bits, where all can be negated ----

int64_t readingOf(const axis_t& reading, Reading which) {
  switch (which) {
    case Reading::plusX:
      return reading.x;
    case Reading::minusX:
      return -int64_t{reading.x};
    case Reading::plusY:
      return reading.y;
    case Reading::minusY:
      return -int64_t{reading.y};
    case Reading::plusZ:
      return reading.z;
    case Reading::minusZ:
      return -int64_t{reading.z};
  }
  return 0;
}

struct BoardReadings {
  int64_t a;
  int64_t b;
  int64_t c;
};

BoardReadings boardReadings(const axis_t& reading, const Mounting& mounting) {
  return {readingOf(reading, mounting.a), readingOf(reading, mounting.b),
          readingOf(reading, mounting.c)};
}

Attitude deskOrCeilingBySign(int64_t reading) {
  return reading < 1 ? Attitude::desk : Attitude::ceiling;
}

// ---- the general rule: desk, ceiling and four positions on a wall ----

// On a wall, B or C is above the threshold and the other readings are not. In the wide gap between
// two positions this decides nothing, so that noise does not make the attitude flap.
bool decideWall(const BoardReadings& at, int64_t threshold, Attitude& attitude) {
  const bool a = std::abs(at.a) > threshold;
  const bool b = std::abs(at.b) > threshold;
  const bool c = std::abs(at.c) > threshold;
  if (a || b == c) return false;
  if (b) {
    attitude = at.b > 0 ? Attitude::wall0 : Attitude::wall6;
  } else {
    attitude = at.c > 0 ? Attitude::wall3 : Attitude::wall9;
  }
  return true;
}

AttitudeDecision decideGenerally(const BoardReadings& at, const Thresholds& thresholds,
                                 Attitude before) {
  if (std::abs(at.a) > thresholds.strict && std::abs(at.b) <= thresholds.strict) {
    return {deskOrCeilingBySign(at.c), "A above strict, B not: the sign of C"};
  }
  Attitude wall = before;
  if (decideWall(at, thresholds.strict, wall)) return {wall, "only B or C above strict: its sign"};
  if (decideWall(at, thresholds.loose, wall)) return {wall, "only B or C above loose: its sign"};
  return undecided(before);
}

AttitudeDecision general(const Board& board, const axis_t& reading, const Thresholds& thresholds,
                         Attitude before) {
  return decideGenerally(boardReadings(reading, board.mounting), thresholds, before);
}

// On one version of this board the chip's z axis points the other way.
AttitudeDecision generalByVersion(const Board& board, const axis_t& reading,
                                  const Thresholds& thresholds, Attitude before) {
  bool reversed = false;
  CameraInfo::instance().getMap("features")["tarnMpVersion"].read(reversed);
  Mounting mounting = board.mounting;
  if (reversed) mounting.c = Reading::plusZ;
  return decideGenerally(boardReadings(reading, mounting), thresholds, before);
}

// How this board sits in its housing depends on the lens that was built in.
AttitudeDecision generalByLens(const Board& board, const axis_t& reading,
                               const Thresholds& thresholds, Attitude before) {
  const Variant& lens = CameraInfo::instance().getMap("features")["hotplug"]["video0"];
  std::string model;
  std::string type;
  lens["lensmodel"].read(model);
  lens["lenstype"].read(type);
  Mounting mounting = board.mounting;
  if (model != "Kalvent360" && model != "KalventFisheye" && model != "KalventTele" &&
      model != "KalventWide") {
    mounting = type == "360" ? Mounting{Reading::plusY, Reading::plusZ, Reading::plusX}
                             : Mounting{Reading::plusZ, Reading::plusX, Reading::plusY};
  }
  return decideGenerally(boardReadings(reading, mounting), thresholds, before);
}

// ---- boards that tell less ----

// On a wall, upright or upside down: A decides.
AttitudeDecision twoWalls(const Board& board, const axis_t& reading, const Thresholds& thresholds,
                          Attitude before) {
  const int64_t a = readingOf(reading, board.mounting.a);
  if (a > int64_t{thresholds.strict}) return {Attitude::wall0, "A above strict"};
  if (a < -int64_t{thresholds.strict}) return {Attitude::wall6, "A below minus strict"};
  return undecided(before);
}

// Only desk and ceiling: C decides, or A when it is large.
AttitudeDecision deskOrCeiling(const Board& board, const axis_t& reading, const Thresholds&,
                               Attitude) {
  constexpr int64_t kLarge = 10001;
  const BoardReadings at = boardReadings(reading, board.mounting);
  if (std::abs(at.a) < kLarge) return {deskOrCeilingBySign(at.c), "A small: the sign of C"};
  return {deskOrCeilingBySign(at.a), "A large: the sign of A"};
}

AttitudeDecision rollAndPitch(const Board&, const axis_t&, const Thresholds&, Attitude before) {
  return {before, "none: two sensors, judged by roll and pitch"};
}

AttitudeDecision noSensor(const Board&, const axis_t&, const Thresholds&, Attitude before) {
  return {before, "none: no sensor"};
}

// ---- the table ----

using R = Reading;

// Known of 3B24, and in part of 3B18 and 3B1B; taken over for boards that nobody has measured yet.
constexpr Mounting kAs3B24{R::minusX, R::minusY, R::minusZ};

// 3B20 with one of the lenses that it was made for.
constexpr Mounting kBehindKalvent{R::plusX, R::plusY, R::minusZ};

constexpr Mounting kUnused{R::plusX, R::plusY, R::plusZ};

// A rule that only looks at A.
constexpr Mounting onlyA(Reading a) {
  return {a, R::plusY, R::plusZ};
}

constexpr Board kBoards[] = {
    {0x3B11, "lis2dw12@18", "", general, Profile::sigmaStar, kAs3B24},
    {0x3B12, "lis2dw12@19", "", general, Profile::sigmaStar, kAs3B24},
    {0x3B13, "lis2dw12@18", "", general, Profile::sigmaStar, kAs3B24},
    {0x3B15, "lis2d[ew]12@18", "", general, Profile::sigmaStarFromV14, kAs3B24},
    {0x3B18, "lis2dw12@18", "", generalByVersion, Profile::sigmaStar, kAs3B24},
    {0x3B1A, "lis2dw12@18", "", general, Profile::sigmaStar, kAs3B24},
    {0x3B1B, "lis2dw12@18", "", deskOrCeiling, Profile::sigmaStar, kAs3B24},
    {0x3B1C, "lis2dw12@18", "", general, Profile::sigmaStar, kAs3B24},
    {0x3B1D, "lis2dw12@18", "", general, Profile::sigmaStar, kAs3B24},
    {0x3B20, "lis2d[ew]12@18", "", generalByLens, Profile::standard, kBehindKalvent},
    {0x3B22, "lis2de12@18", "", general, Profile::standard, kAs3B24},
    {0x3B23, "lis2d[ew]12@19", "", general, Profile::standard, kAs3B24},
    {0x3B24, "lis2dw12@18", "", general, Profile::standard, kAs3B24},
    {0x3B25, "lis2dw12@18", "lis2dw12@19", rollAndPitch, Profile::standard, kUnused},
    {0x3B26, "lis2dw12@18", "", twoWalls, Profile::standard, onlyA(R::plusY)},
    {0x3B30, "lis2de12@18", "", twoWalls, Profile::standard, onlyA(R::minusY)},
    {0x3C01, "lis2dw12@18", "", twoWalls, Profile::standard, onlyA(R::plusY)},
    {0x3C02, "lis2dw12@18", "lis2dw12@19", rollAndPitch, Profile::standard, kUnused},
    {0x7D40, "lis2d[ew]12@18", "", twoWalls, Profile::standard, onlyA(R::minusZ)},
};

constexpr Board kOther{0, "", "", noSensor, Profile::standard, kUnused};

// The two smallest numbers, which only a faulty chip reports.
bool isFaulty(int32_t reading) {
  return reading <= -std::numeric_limits<int32_t>::max();
}

}  // namespace

const Board& boardOf(uint64_t sysid) {
  const auto* const row = std::find_if(std::begin(kBoards), std::end(kBoards),
                                       [&](const Board& board) { return board.sysid == sysid; });
  return row == std::end(kBoards) ? kOther : *row;
}

const Thresholds& thresholdsOf(const Board& board) {
  constexpr uint64_t kSigmaStarFrom = 14;
  const bool sigmaStar = board.profile == Profile::sigmaStar ||
                         (board.profile == Profile::sigmaStarFromV14 &&
                          CameraInfo::instance().getUnsigned("hwrev") >= kSigmaStarFrom);
  return sigmaStar ? kSigmaStarThresholds : kDefaultThresholds;
}

AttitudeDecision decide(const Board& board, const axis_t& reading, const Thresholds& thresholds,
                        Attitude before) {
  if (isFaulty(reading.x) || isFaulty(reading.y) || isFaulty(reading.z)) {
    return {before, "none: out of range"};
  }
  return board.rule(board, reading, thresholds, before);
}

}  // namespace vexo::utils::internal
