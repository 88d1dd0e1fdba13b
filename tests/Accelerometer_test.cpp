#include "vexo_utils/Accelerometer.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/input.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fake_sensors.h"
#include "files.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "vexo_utils/string_utils.h"

namespace vexo::utils {

namespace {

namespace fs = std::filesystem;
using namespace test;
using namespace std::string_literals;

class AccelerometerTest : public testing::Test {
 protected:
  AccelerometerTest() {
    setenv("SYSTEMD_DEVICE_VERIFY_SYSFS", "0", 1);
    host::coverSysfs();
  }
};

std::string addChip(const std::string& subsystem, const std::string& name,
                    const std::string& node) {
  return host::addDevice(subsystem, name, "OF_FULLNAME=/soc/bus@1/" + node + "\n");
}

const host::Sensor kChip{"lis2dw12@18", "/sys/devices/iio:device0", {}};

std::string allOf(Accelerometer& chip, axis_t axes) {
  EXPECT_TRUE(chip.getXYZ(axes));
  return format("%d %d %d", axes.x, axes.y, axes.z);
}

TEST_F(AccelerometerTest, LookUpBySubsystemAndNode) {
  Accelerometer chip("lis2dw12@18");  // there are no devices yet
  EXPECT_TRUE(logged(kError, "Accelerometer sysfs not found"));
  EXPECT_EQ(allOf(chip, {1, 2, 3}), "1 2 3");
  EXPECT_TRUE(
      logged(kError, "Failed to read from proc entry 0xffffffff, num bytes read -1", EBADF));
  forgetLog();

  host::addDevice("iio", "iio:device0", "DEVTYPE=iio_device\n");
  addChip("iio", "iio:device1", "lis2dw12@19");
  addChip("iio", "iio:device2", "lis2de12@18");
  addChip("i2c", "1-0018", "lis2de@18");
  addChip("spi", "spi0", "lis2dw12@20");
  const char* const rows[][3] = {{"lis2dw12@19", "iio", "/sys/devices/iio:device1"},
                                 {"lis2d[ew]12@18", "iio", "/sys/devices/iio:device2"},
                                 {"lis2d", "iio", "/sys/devices/iio:device1"},
                                 {"lis2de@18", "i2c", "/sys/devices/1-0018"},
                                 {"lis2de@19", "i2c", ""},
                                 {"lis2dw12@2[0-9]", "iio", ""},
                                 {"lis2dw12@19(", "iio", ""}};
  for (const auto& [name, subsystem, folder] : rows) {
    std::string path;
    EXPECT_EQ(chip.setSysfsPath(name, path), *folder != '\0') << name;
    EXPECT_EQ(path, folder);
    if (*folder != '\0') continue;
    EXPECT_TRUE(logged(kError, format("Failed to find match subsystem \"%s\" from node name \"%s\"",
                                      subsystem, name)));
    EXPECT_TRUE(logged(kError, "Failed to find udev "s + name));
  }
}

TEST_F(AccelerometerTest, SysfsGettersRenewOverlappingPairs) {
  host::addSensors({kChip});
  show(kChip, {1000, -2000, 3000});
  const int lowest = dup(0);  // what x will get
  close(lowest);
  Accelerometer chip("lis2dw12@18");
  EXPECT_EQ(readFile(kChip.folder + "/sampling_frequency"), "100\0"s);
  EXPECT_EQ(chip.getX(), 1000);
  EXPECT_EQ(chip.getZ(), 3000);
  show(kChip, {1002, -2002, 3002});  // noise, also to the y that getZ has read
  EXPECT_EQ(chip.getX(), 1000);
  EXPECT_EQ(chip.getY(), -2000);
  show(kChip, {1004, -2004, 3003});
  EXPECT_EQ(chip.getY(), -2004);
  show(kChip, {1006, -2004, 3003});
  EXPECT_EQ(chip.getX(), 1004) << "getY had renewed x";
  EXPECT_EQ(chip.getZ(), 3003);
  EXPECT_EQ(allOf(chip, {1005, -2001, 0}), "1005 -2004 3003") << "compared with the argument";
  fs::resize_file(kChip.folder + "/in_accel_y_raw", 0);  // the device is gone
  EXPECT_EQ(chip.getY(), -2004);
  EXPECT_TRUE(logged(
      kError, format("Failed to read from proc entry 0x%x, num bytes read 0", lowest + 1), 0));
}

TEST(Sysfs, NumbersAsKernelsPrintThem) {
  const std::pair<const char*, int> rows[] = {{"-16384\n", -16384},
                                              {" \t7 \r\n", 7},
                                              {"000000000000123", 123},
                                              {"0000000000001234", 123},  // 15 bytes are read
                                              {"17 g", 17},
                                              {"nonsense", 0},
                                              {"\n", 0},
                                              {"99999999999", INT32_MAX},
                                              {"-9999999999", INT32_MIN}};
  for (const auto& [text, number] : rows) {
    writeFile("/tmp/attribute", text);
    const int fd = open("/tmp/attribute", O_RDONLY | O_CLOEXEC);
    for (int value : {1000, INT32_MIN, INT32_MAX}) {
      EXPECT_TRUE(readSysfs(fd, value)) << text;
      EXPECT_EQ(value, number) << text;
    }
    close(fd);
  }
}

TEST_F(AccelerometerTest, SetUpFailsAtEachStep) {
  host::addSensors({kChip});
  const std::string frequency = kChip.folder + "/sampling_frequency";
  const auto failsWith = [](const std::string& error, int number, std::size_t opened) {
    const std::size_t before = openDescriptors().size();
    const Accelerometer chip("lis2dw12@18");
    EXPECT_TRUE(logged(kError, error, number));
    EXPECT_EQ(openDescriptors().size(), before + opened);
  };
  fs::remove(kChip.folder + "/in_accel_z_raw");
  failsWith("Failed to open proc entry '" + kChip.folder + "/in_accel_z_raw'", ENOENT, 2);
  fs::remove(kChip.folder + "/in_accel_x_raw");
  failsWith("Failed to open proc entry '" + kChip.folder + "/in_accel_x_raw'", ENOENT, 0);
  fs::remove(frequency);
  fs::create_symlink("/dev/full", frequency);
  const int next = dup(0);
  close(next);
  failsWith(format("Failed to write '100' to proc entry 0x%x", next), ENOSPC, 0);
  fs::remove(frequency);

  const int standardInput = dup(0);
  close(0);  // so that the next file would get it
  failsWith("Failed to open proc entry '" + frequency + "'", 0, 0);
  dup2(standardInput, 0);
  close(standardInput);
}

TEST_F(AccelerometerTest, InputModeTakesTheNewestEventOfTheAxis) {
  constexpr char kEvents[] = "/dev/input/event0";
  const std::string folder = addChip("i2c", "1-0018", "lis2de@18");
  mkfifo(kEvents, 0600);
  const int driver = open(kEvents, O_RDWR | O_CLOEXEC);
  fcntl(driver, F_SETFL, O_DIRECT);  // packets: each write is what one read gets
  const auto event = [](int axis, int value, uint16_t type = EV_MSC) {
    input_event result{};
    result.type = type;
    result.code = static_cast<uint16_t>(axis);
    result.value = value;
    return result;
  };
  const auto send = [&](const std::vector<input_event>& events, std::size_t less = 0) {
    const std::size_t size = events.size() * sizeof(input_event) - less;
    ASSERT_EQ(write(driver, events.data(), size), static_cast<ssize_t>(size));
  };

  Accelerometer chip("lis2de@18");
  EXPECT_EQ(readFile(folder + "/pollrate_ms") + readFile(folder + "/enable_device"), "500\0001\0"s);
  EXPECT_TRUE(logged(kInfo, "Input driver version is 0.0.0"));
  EXPECT_TRUE(logged(kInfo, "Input device ID: bus 0x0 vendor 0x0 product 0x0 version 0x0"));
  EXPECT_TRUE(logged(kInfo, "Input device name: \"Unknown\""));

  send({event(0, 100), event(0, 200), event(0, 300), event(1, 7), event(0, 9, EV_ABS)});
  EXPECT_EQ(chip.getX(), 300);
  send({event(0, 330)});  // noise
  EXPECT_EQ(chip.getX(), 300);
  send({event(0, 331)});
  EXPECT_EQ(chip.getX(), 331);
  for (const int extreme : {INT32_MIN, INT32_MAX}) {
    send({event(1, extreme), event(2, 2000)});
    EXPECT_EQ(chip.getY(), extreme);
  }
  int value = 5;
  for (const auto& [count, expected] : {std::pair(1u, 5), {2u, 100}}) {  // half of the last is lost
    send(std::vector(count, event(2, 100)), 1);
    EXPECT_TRUE(chip.readInputEvent(2, value));
    EXPECT_EQ(value, expected);
  }
  for (const int axis : {0, 1, 2}) send({event(axis, 1000 + axis)});  // a read for each
  EXPECT_EQ(allOf(chip, {}), "1000 1001 1002");
  close(driver);
  EXPECT_EQ(allOf(chip, {}), "0 0 0") << "end of file";
  EXPECT_TRUE(logged(
      kError, format("Failed to read to buffer from proc entry 0x%x, num bytes read 0", driver + 1),
      0));
  forgetLog();
  fs::remove(kEvents);
  EXPECT_FALSE(Accelerometer("lis2de@18").init());
  EXPECT_TRUE(logged(kError, "Failed to open proc entry '/dev/input/event0'", ENOENT));
  forgetLog();
}

}  // namespace

}  // namespace vexo::utils
