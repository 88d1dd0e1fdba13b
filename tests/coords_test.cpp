#include "vexo_utils/coords.h"

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "camera.h"
#include "files.h"
#include "in_child.h"
#include "log_recorder.h"
#include "vexo_utils/string_utils.h"

namespace vexo::utils {

bool operator==(const coords& a, const coords& b) {
  return a.x == b.x && a.y == b.y && a.w == b.w && a.h == b.h;
}

void PrintTo(const coords& c, std::ostream* out) {
  *out << c.x << ' ' << c.y << ' ' << c.w << ' ' << c.h;
}

namespace {

using namespace test;

constexpr char kPlain[] = R"({"sysid":1,"hwrev":1})";

void calibrate(const std::string& text) {
  std::filesystem::create_directories("/etc/ispserver");
  writeFile("/etc/ispserver/lensbias.conf", text);
}

void calibrate(uint32_t x, uint32_t y, uint32_t radius) {
  calibrate(format("oc_x=%u\noc_y = %u\noc_r=%u\n", x, y, radius));
}

// The window in a picture of `width` x `height` from a frame of 1000 x 800.
coords window(unsigned width, unsigned height, bool mirror = false, bool flip = false) {
  coords out{1, 2, 3, 4};
  fisheyeRemap(width, height, 1000, 800, mirror, flip, out);
  return out;
}

TEST(Coords, ArithmeticWraps) {
  const auto remapped = [](coords from, coords to) {
    coordsCenterRemap(from, to);
    return std::pair(to.x, to.y);
  };
  EXPECT_EQ(remapped({10, 20, 100, 100}, {9, 9, 301, 200}), std::pair(110u, 70u));
  EXPECT_EQ(remapped({10, 20, 101, 100}, {0, 0, 100, 98}),
            std::pair(10u + 0x7fffffffu, 20u + 0x7fffffffu));
  coords c{10, 110, 101, 100};
  coordsMirror(c);
  coordsFlip(c);
  EXPECT_EQ(c, (coords{90, 0u - 10u, 101, 100}));
}

TEST(Coords, FcdIsLookedForOnce) {
  static constexpr char kMarker[] = "/usr/lib/fcd";
  writeFile(kMarker, "");
  const auto stays = [] { return isFCD() && std::filesystem::remove(kMarker) && isFCD() ? 7 : 0; };
  EXPECT_EQ(inChild(stays), 7);
  EXPECT_FALSE(isFCD());
  writeFile(kMarker, "");
  EXPECT_FALSE(isFCD());
}

TEST(Fisheye, FrameOfEachBoard) {
  const auto with3B23 = [](const std::string& lens) {
    return R"({"sysid":15139,"hwrev":9,"features":{"hotplug":{"video0":{"lensmodel":")" + lens +
           R"("}}}})";
  };
  const std::pair<std::string, unsigned> frames[] = {{R"({"sysid":15136,"hwrev":9})", 1920},
                                                     {with3B23("Kalvent360"), 2160},
                                                     {with3B23("Orvane360"), 2560},
                                                     {with3B23("orvane360"), 0},
                                                     {kPlain, 0}};
  for (const auto& [json, side] : frames) {
    describeCamera(json);
    calibrate("");
    EXPECT_EQ(window(4000, 3000), (coords{500, 0, 3000, 3000})) << json;
    calibrate(700, 600, 100);  // a measured centre shows what frame it is in
    EXPECT_EQ(window(4000, 3000), (coords{600 + (4000 - (side > 0 ? side : 1000)) / 2,
                                          500 + (3000 - (side > 0 ? side : 800)) / 2, 200, 200}))
        << json;
  }
  const char* const missing =
      "No complete lens calibration in '/etc/ispserver/lensbias.conf', using the frame's centre";
  EXPECT_TRUE(logged(kInfo, missing));
  EXPECT_FALSE(logged(kInfo, missing)) << "once in a process";
}

TEST(Fisheye, CalibrationThatDoesNotCount) {
  describeCamera(kPlain);
  for (const char* text : {"", "oc_x=1\noc_y=1", "oc_x=1\noc_r=1", "oc_x=-1\noc_y=1\noc_r=1",
                           "oc_x=1\noc_y=4294967296\noc_r=1", "oc_x=1\noc_y=one\noc_r=1"}) {
    calibrate(text);
    EXPECT_EQ(window(1000, 800), (coords{100, 0, 800, 800})) << text;
  }
  const struct {
    int sysid, hwrev, x, y;
    bool rejected;
  } rows[] = {{0x3B20, 2, 931, 900, true},  {0x3B20, 3, 900, 978, true},
              {0x3B20, 0, 0, 900, true},    {0x3B20, 2, 900, 0, true},
              {0x3B20, 2, 978, 931, false}, {0x3B20, 4, 931, 978, false},
              {0x3B21, 2, 931, 978, false}};
  for (const auto& row : rows) {
    describeCamera(format(R"({"sysid":%d,"hwrev":%d})", row.sysid, row.hwrev));
    calibrate(static_cast<uint32_t>(row.x), static_cast<uint32_t>(row.y), 400);
    EXPECT_EQ(window(1920, 1920).w, row.rejected ? 1920u : 800u) << row.hwrev << ' ' << row.x;
    const char* const line = "hwrev %d, oc_x %d, oc_y %d, reject this oc";
    EXPECT_EQ(logged(kInfo, format(line, row.hwrev, row.x, row.y)), row.rejected);
  }
}

TEST(Fisheye, WindowHoldsTheCircle) {
  describeCamera(kPlain);
  for (const uint32_t radius : {0u, 1u, 50u, 239u, 540u}) {
    for (const uint32_t centre : {0u, 49u, 50u, 240u, 500u, 900u}) {
      calibrate(centre, centre, radius);
      for (const uint32_t size : {0u, 1u, 4u, 99u, 480u, 1080u, 2160u}) {
        coords out{};
        fisheyeRemap(size, size, size, size, false, false, out);
        EXPECT_TRUE(out.x == out.y && out.x % 4 == 0 && out.w == out.h && out.w % 8 == 0);
        EXPECT_TRUE(out.w <= 2 * radius + 6 && out.w + 2 > 2 * radius) << radius;
        const uint32_t nearest = centre < radius          ? 0
                                 : centre + radius < size ? centre - radius
                                                          : size - 2 * radius;  // may wrap
        if (radius > size && centre >= radius) continue;                        // see below
        EXPECT_LT(out.x - nearest, 4u) << radius << ' ' << centre << ' ' << size;
      }
    }
  }
  const struct {
    uint32_t x, y, radius;
    unsigned width, height;
    bool turned;
    coords out;
  } rows[] = {{500, 400, 539, 1000, 800, false, {0, 0, 1080, 1080}},
              {500, 400, 540, 1000, 800, false, {0, 0, 1080, 1080}},
              {500, 400, 541, 1000, 800, false, {0, 0, 1088, 1088}},
              {301, 302, 200, 1000, 800, true, {500, 300, 400, 400}},
              {301, 302, 200, 1201, 1001, true, {600, 400, 400, 400}},
              {801, 599, 199, 1000, 800, false, {604, 400, 400, 400}},
              // A picture smaller than the frame: the centre wraps to 2^31 and more, beyond the
              // last window.
              {500, 400, 100, 600, 400, false, {400, 200, 200, 200}},
              // A radius larger than the picture: its last window wraps.
              {500, 400, 300, 500, 400, false, {0u - 100u, 0u - 200u, 600, 600}},
              {500, 400, 1, 0, 0, false, {1u << 31, 1u << 31, 8, 8}},
              {0, 0, UINT32_MAX, 1000, 800, false, {0, 0, 0, 0}}};
  for (const auto& row : rows) {
    calibrate(row.x, row.y, row.radius);
    EXPECT_EQ(window(row.width, row.height, row.turned, row.turned), row.out) << row.radius;
  }
}

TEST(FisheyeDeathTest, DescriptionWithoutTheKeys) {
  expectCrashes([] { window(10, 10); },
                {{R"({"sysid":1,"features":{}})", "Key \"hwrev\" not available"},
                 {R"({"sysid":15139,"hwrev":1,"features":[]})",
                  "Key \"features\" has a different type than expected"}});
}

}  // namespace

}  // namespace vexo::utils
