// fake_camera: the accelerometers of the board that VEXO_CAMERA_INFO describes, without hardware.
//
//   fake_camera make                     covers /sys and puts the sensors there, on a desk
//   fake_camera turn POSITION [STEPS [PAUSE-MS [NOISE]]]
//                                        turns the camera to desk, ceiling, wall0, wall3, wall6 or
//                                        wall9, by default in one step; NOISE is in the sensor's
//                                        units, up to which each reading is off either way
//   fake_camera set CHIP X Y Z           sets one sensor's readings, CHIP as in "simulated"
//   fake_camera show                     prints what the sensors read
//
// It is for a private world (in_private_world), whose other processes then see the sensors. Those
// need SYSTEMD_DEVICE_VERIFY_SYSFS=0, or libudev does not take plain files for devices.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "fake_sensors.h"
#include "vexo/variant/CameraInfo.h"

namespace {

using vexo::host::Axes;
using vexo::host::Sensor;
using vexo::host::turned;

const Axes& axesAt(const Sensor& sensor, const std::string& position) {
  const auto found = sensor.positions.find(position);
  if (found == sensor.positions.end()) throw std::runtime_error("no position " + position);
  return found->second;
}

void make(const std::vector<Sensor>& sensors) {
  vexo::host::coverSysfs();
  vexo::host::addSensors(sensors);
  for (const Sensor& sensor : sensors) show(sensor, axesAt(sensor, "desk"));
}

// Ends exactly at the position.
void turn(const std::vector<Sensor>& sensors, const std::string& position, int steps, int pauseMs,
          int noise) {
  std::vector<Axes> from;
  from.reserve(sensors.size());
  for (const Sensor& sensor : sensors) from.push_back(shown(sensor));
  std::minstd_rand random;
  std::uniform_int_distribution<int> off(-std::abs(noise), std::abs(noise));
  for (int step = 1; step <= steps; ++step) {
    for (std::size_t i = 0; i < sensors.size(); ++i) {
      const double share = static_cast<double>(step) / steps;
      Axes axes = turned(from[i], axesAt(sensors[i], position), share);
      if (step < steps) {
        for (int& axis : axes) axis += off(random);
      }
      show(sensors[i], axes);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
  }
}

void set(const std::vector<Sensor>& sensors, const std::string& chip, const Axes& axes) {
  for (const Sensor& sensor : sensors) {
    if (sensor.chip == chip) return show(sensor, axes);
  }
  throw std::runtime_error("no sensor " + chip);
}

void print(const std::vector<Sensor>& sensors) {
  for (const Sensor& sensor : sensors) {
    const Axes axes = shown(sensor);
    std::printf("%s %d %d %d\n", sensor.chip.c_str(), axes[0], axes[1], axes[2]);
  }
}

int numberAt(const std::vector<std::string>& arguments, std::size_t index, int otherwise) {
  return index < arguments.size() ? std::stoi(arguments[index]) : otherwise;
}

bool run(const std::vector<std::string>& arguments) {
  const std::size_t count = arguments.size();
  const std::string verb = count > 0 ? arguments[0] : "";
  const auto sensors = vexo::host::sensorsOf(vexo::variant::CameraInfo::instance().description());
  if (verb == "make" && count == 1) {
    make(sensors);
  } else if (verb == "turn" && count >= 2 && count <= 5) {
    turn(sensors, arguments[1], numberAt(arguments, 2, 1), numberAt(arguments, 3, 0),
         numberAt(arguments, 4, 0));
  } else if (verb == "set" && count == 5) {
    set(sensors, arguments[1],
        {std::stoi(arguments[2]), std::stoi(arguments[3]), std::stoi(arguments[4])});
  } else if (verb == "show" && count == 1) {
    print(sensors);
  } else {
    return false;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (run({argv + 1, argv + argc})) return 0;
    std::fprintf(stderr,
                 "usage: fake_camera make | turn POSITION [STEPS [PAUSE-MS [NOISE]]] | "
                 "set CHIP X Y Z | show\n");
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "fake_camera: %s\n", failure.what());
    return 1;
  }
}
