// CameraAttitude: how the camera is mounted, by its accelerometers, and a callback when that
// changes.
//
// Give it a callback with init and call service often; it looks at the sensors twice a second.
// Which sensors there are, and how they sit on the board, is told by the camera's description
// ("sysid", on some boards "hwrev" and "features"). A board without sensors stays at unknown.
//
// Threads:   one, also for the callback. Not locked.
// Ownership: owns its accelerometers.
// Failure:   false, logged. A description without what a board needs ends the process by
//            forceCrash, after an error (CameraInfo::getUnsigned).
#pragma once

#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>

#include <vexo_utils/export.h>

namespace vexo::utils {

class Accelerometer;
struct axis_t;

// Standing on a desk, hanging from a ceiling, or on a wall, turned to this hour of a clock.
enum class Attitude { unknown, desk, ceiling, wall0, wall3, wall6, wall9 };

// The name, as above. Of a value that is none of these: nothing, and the stream's failbit is set.
VEXO_UTILS_API std::ostream& operator<<(std::ostream& out, Attitude attitude);

// The same name, "" for other values. Types other than Attitude do not compile.
template <typename T>
std::string toString(T value) = delete;
template <>
VEXO_UTILS_API std::string toString<Attitude>(Attitude attitude);

// What the angles say.
struct RPAttitude {
  double roll = 0.0;   // degrees, -180 to 180
  double pitch = 0.0;  // degrees, -90 to 90
  Attitude attitude = Attitude::unknown;
};

class VEXO_UTILS_API CameraAttitude {
 public:
  // `record` is the sensor board's, on boards with a second accelerometer there; else null. It is
  // valid during the call. True: seen; false: to be called again, at the next pass. It must neither
  // destroy the object nor call its init.
  using Callback = std::function<bool(Attitude attitude, RPAttitude* record)>;

  CameraAttitude();
  CameraAttitude(const CameraAttitude&) = delete;
  CameraAttitude& operator=(const CameraAttitude&) = delete;
  ~CameraAttitude();

  // Looks which board this is and for its accelerometers (refresh), and takes the callback. Nothing
  // is read and nobody called yet.
  void init(Callback cb);

  // Looks for the accelerometers anew. One that is not found is logged, and left out until the next
  // refresh.
  void refresh();

  // One pass: reads the sensors, classifies, and calls back when something changed. Within 500 ms
  // of the last pass it does nothing but to return true. Calls back with the attitude
  //   - when it changed, which is logged as the info "attitude: OLD -> NEW";
  //   - on boards with a sensor on the sensor board, also when that one's attitude changes, its
  //     roll or pitch changes sign, or, with the camera on a wall, its pitch passes 40 degrees;
  //   - after refreshAttitude;
  //   - again, when the callback returned false.
  // An empty callback throws std::bad_function_call then.
  // False: the warning "Attitude computation error"; "Failed to callback attitude change event"
  // when the callback returned false.
  bool service();

  // The next pass calls back even if nothing changes.
  void refreshAttitude();

  // The attitude as of the last pass; unknown before a reading has told it.
  Attitude attitude() const;

  // What a pass does with one board: reads its accelerometer, classifies, and notes a change for
  // the callback. False: "Failed to getXYZ from the accelerometer", also when there is none.
  //
  // An axis that cannot be read any more, which is logged, counts as 0: a two-sensor board whose
  // chip has vanished reports a desk.
  //
  // Two-sensor boards judge roll and pitch. A reading within 2 degrees of the last that counted is
  // ignored as noise. The first is compared with level (0, 0): a camera that comes up level stays
  // unknown until it is turned by 2 degrees.
  //
  // Other boards judge the axes against two thresholds (docs/boards.md). A reading that none of the
  // board's rules decides leaves the attitude as it was, as do the smallest 32-bit number and the
  // one above it, which a faulty chip reports.
  bool computeMBAttitude();
  bool computeSBAttitude();

  // True when going from `from` to `to` reaches or passes the boundary; starting on it does not
  // count.
  static bool crossingBoundary(double from, double to, double boundary);

 private:
  RPAttitude classify(int board, axis_t reading, const RPAttitude& previous) const;

  std::unique_ptr<Accelerometer> mbAccelerometer;
  std::unique_ptr<Accelerometer> sbAccelerometer;
  Callback callback;
  std::string mbName;
  bool changed = false;
  std::string sbName;
  std::map<std::string, unsigned> thresholds;
  unsigned long long lastPass = 0;  // nowMs()
  RPAttitude mbAttitude;
  bool dualSensor = false;
  RPAttitude sbAttitude;
};

// How this camera's board, one with a single accelerometer, judges one reading. For installers who
// check or correct the row of a board (docs/boards.md); needs no sensor.
struct AttitudeDecision {
  Attitude attitude;  // `before` when no rule decided
  const char* rule;   // which one decided, in words; never null
};
// Judges `reading` after one that gave `before`. The board is that of the description, which must
// have what init wants.
VEXO_UTILS_API AttitudeDecision explainAttitude(const axis_t& reading, Attitude before);

}  // namespace vexo::utils
