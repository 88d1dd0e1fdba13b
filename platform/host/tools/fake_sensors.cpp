#include "fake_sensors.h"

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <sys/mount.h>

namespace vexo::host {

namespace {

namespace fs = std::filesystem;
using variant::Variant;

constexpr const char* kAttributes[] = {"in_accel_x_raw", "in_accel_y_raw", "in_accel_z_raw"};
constexpr const char* kPositions[] = {"desk", "ceiling", "wall0", "wall3", "wall6", "wall9"};

// Sysfs attributes of a fixed width, so that one can be written in place.
constexpr int kWidth = 12;

std::runtime_error failure(const std::string& what) {
  return std::runtime_error(what);
}

std::int64_t numberOf(const Variant& value, const std::string& what) {
  std::int64_t number = 0;
  if (!value.read(number)) throw failure("no number: " + what);
  return number;
}

// From thousandths of g to the chip's units.
Axes axesOf(const Variant& position, std::int64_t countsPerG, const std::string& what) {
  const Variant::List* const list = position.list();
  Axes axes{};
  if (list == nullptr || list->size() != axes.size()) throw failure("no three axes: " + what);
  for (std::size_t i = 0; i < axes.size(); ++i) {
    axes[i] = static_cast<int>(numberOf((*list)[i], what) * countsPerG / 1000);
  }
  return axes;
}

void writeFile(const fs::path& path, const std::string& text) {
  // Not truncated: a reader must never find it empty.
  std::FILE* const file = std::fopen(path.c_str(), fs::exists(path) ? "r+e" : "we");
  const bool written = file != nullptr && std::fputs(text.c_str(), file) >= 0;
  if (file == nullptr || std::fclose(file) != 0 || !written) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

}  // namespace

std::vector<Sensor> sensorsOf(const Variant& description) {
  std::vector<Sensor> sensors;
  const Variant::Map* const simulated = description["simulated"].map();
  if (simulated == nullptr) return sensors;
  for (const auto& [chip, entry] : *simulated) {
    Sensor sensor{chip, "/sys/devices/iio:device" + std::to_string(sensors.size()), {}};
    const std::int64_t countsPerG = numberOf(entry["counts_per_g"], "counts_per_g of " + chip);
    for (const char* position : kPositions) {
      sensor.positions[position] = axesOf(entry[position], countsPerG, position + (" of " + chip));
    }
    sensors.push_back(sensor);
  }
  return sensors;
}

void coverSysfs() {
  if (mount("tmpfs", "/sys", "tmpfs", 0, "size=1m,mode=755") != 0) {
    throw std::system_error(errno, std::generic_category(), "/sys");
  }
  fs::create_directories("/sys/class");
  fs::create_directories("/sys/bus");
}

std::string addDevice(const std::string& subsystem, const std::string& name,
                      const std::string& properties) {
  const fs::path folder = fs::path("/sys/devices") / name;
  const fs::path bus = fs::path("/sys/bus") / subsystem;
  fs::create_directories(folder);
  fs::create_directories(bus / "devices");
  writeFile(folder / "uevent", properties);
  fs::create_directory_symlink(bus, folder / "subsystem");
  fs::create_directory_symlink(folder, bus / "devices" / name);
  return folder;
}

void addSensors(const std::vector<Sensor>& sensors) {
  for (const Sensor& sensor : sensors) {
    addDevice("iio", fs::path(sensor.folder).filename(),
              "DEVTYPE=iio_device\nOF_FULLNAME=/soc/i2c@1/" + sensor.chip + "\n");
    show(sensor, {});
  }
}

void show(const Sensor& sensor, const Axes& axes) {
  for (std::size_t i = 0; i < axes.size(); ++i) {
    char text[32];
    std::snprintf(text, sizeof text, "%-*d\n", kWidth, axes[i]);
    writeFile(fs::path(sensor.folder) / kAttributes[i], text);
  }
}

Axes shown(const Sensor& sensor) {
  Axes axes{};
  for (std::size_t i = 0; i < axes.size(); ++i) {
    const std::string path = sensor.folder + "/" + kAttributes[i];
    if (!(std::ifstream(path) >> axes[i])) throw failure("no reading in " + path);
  }
  return axes;
}

Axes turned(const Axes& from, const Axes& to, double share) {
  const auto lengthOf = [](double x, double y, double z) {
    return std::sqrt(x * x + y * y + z * z);
  };
  const double length = lengthOf(to[0], to[1], to[2]);
  std::array<double, 3> at{};
  for (std::size_t i = 0; i < at.size(); ++i) at[i] = from[i] + (to[i] - from[i]) * share;
  const double way = lengthOf(at[0], at[1], at[2]);
  if (way < length / 1000) throw failure("the positions are opposite: turn to another one first");
  Axes axes{};
  for (std::size_t i = 0; i < axes.size(); ++i) {
    axes[i] = static_cast<int>(std::lround(at[i] * length / way));
  }
  return axes;
}

}  // namespace vexo::host
