// The lens calibration, which each camera got in the factory, and sizes from the settings.

#include <cstdio>
#include <cstring>
#include <iterator>

#include <sys/stat.h>

#include "fuzz.h"
#include "vexo/variant/CameraInfo.h"
#include "vexo_utils/coords.h"

namespace {

using vexo::utils::coords;
using vexo::variant::Variant;

constexpr char kPath[] = "/etc/ispserver/lensbias.conf";

constexpr const char* kBoards[] = {
    R"({"sysid":15136,"hwrev":3})", R"({"sysid":15136,"hwrev":4})",
    R"({"sysid":15139,"hwrev":1,"features":{"hotplug":{"video0":{"lensmodel":"Kalvent360"}}}})",
    R"({"sysid":15139,"hwrev":1,"features":{}})", R"({"sysid":1,"hwrev":1})"};

// False unless the file has a number of 32 bits for each.
bool readCircle(unsigned (&circle)[3]) {
  Variant file;
  MUST(Variant::FromKVPFile(kPath, file));
  const char* const keys[] = {"oc_x", "oc_y", "oc_r"};
  for (int i = 0; i < 3; ++i) {
    uint64_t number = 0;
    if (!file[keys[i]].read(number) || number > UINT32_MAX) return false;
    circle[i] = static_cast<unsigned>(number);
  }
  return true;
}

}  // namespace

FUZZ_TARGET(lens) {
  const char* const board = kBoards[input.byte() % std::size(kBoards)];
  MUST(Variant::fromJson(board, vexo::variant::CameraInfo::instance().description()));
  const unsigned flags = input.byte();
  unsigned sizes[4];
  for (unsigned& size : sizes) size = static_cast<unsigned>(input.number(4));
  const auto remap = [&] {
    coords out{1, 1, 1, 1};
    vexo::utils::fisheyeRemap(sizes[0], sizes[1], sizes[2], sizes[3], (flags & 1) != 0,
                              (flags & 2) != 0, out);
    MUST(out.x % 4 == 0 && out.y % 4 == 0 && out.w % 8 == 0 && out.w == out.h);
    return out;
  };
  mkdir("/etc/ispserver", 0755);
  vexo::fuzz::write(kPath, input.rest());
  const coords window = remap();

  // The same as with its numbers alone, or none.
  unsigned circle[3];
  char text[80] = "";
  if (readCircle(circle)) {
    std::snprintf(text, sizeof text, "oc_r=%u\noc_y=%u\noc_x=%u\n", circle[2], circle[1],
                  circle[0]);
  }
  vexo::fuzz::write(kPath, text);
  const coords plain = remap();
  MUST(std::memcmp(&window, &plain, sizeof window) == 0);
}
