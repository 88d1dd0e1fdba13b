// The boards: which accelerometers each has, how they are mounted on it, and the rule by which a
// single one tells the attitude. docs/boards.md explains how to correct a row.
#pragma once

#include <cstdint>

#include "vexo_utils/Accelerometer.h"
#include "vexo_utils/CameraAttitude.h"

namespace vexo::utils::internal {

// What a chip's readings are compared with.
struct Thresholds {
  unsigned strict;
  unsigned loose;
};
constexpr Thresholds kDefaultThresholds{383, 962};
constexpr Thresholds kSigmaStarThresholds{6712, 16839};

enum class Profile {
  standard,
  sigmaStar,
  sigmaStarFromV14  // from "hwrev" 14 on, standard before
};

// One of the chip's readings, with its sign.
enum class Reading { plusX, minusX, plusY, minusY, plusZ, minusZ };

// Which of the chip's readings are the board's A, B and C.
struct Mounting {
  Reading a;
  Reading b;
  Reading c;
};

struct Board;
using Rule = AttitudeDecision (*)(const Board& board, const axis_t& reading,
                                  const Thresholds& thresholds, Attitude before);

struct Board {
  uint64_t sysid;
  const char* mainChip;    // extended regular expression for its device-tree node, "" for none
  const char* sensorChip;  // likewise, of the sensor board
  Rule rule;
  Profile profile;
  Mounting mounting;  // the rule says what of it counts
};

// A board that is not in the table has no accelerometer.
const Board& boardOf(uint64_t sysid);

const Thresholds& thresholdsOf(const Board& board);

// Applies the rule of a board with one accelerometer.
AttitudeDecision decide(const Board& board, const axis_t& reading, const Thresholds& thresholds,
                        Attitude before);

}  // namespace vexo::utils::internal
