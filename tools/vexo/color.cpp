// vexo color: the difference of two colours.

#include <cstdio>
#include <string>
#include <vector>

#include <stdint.h>

#include <vexo_utils/color.h>
#include <vexo_utils/string_utils.h>

#include "command.h"

namespace {

using namespace vexo::utils::color;

// "yuv:Y,U,V"
bool yuvOf(const std::string& text, RGB& rgb) {
  const std::string label = "yuv:";
  std::vector<std::string> numbers;
  if (!vexo::utils::startsWith(text, label)) return false;
  vexo::utils::split(text.substr(label.size()), ",", numbers);
  YUV yuv{};
  const auto sample = [&](std::size_t at, int16_t& out) {
    return numberOf<int16_t>(numbers[at], 0, UINT8_MAX, out);
  };
  if (numbers.size() != 3 || !sample(0, yuv.y) || !sample(1, yuv.u) || !sample(2, yuv.v)) {
    return false;
  }
  rgb = YUV_to_RGB(yuv);
  return true;
}

// "#RRGGBB"; a shell takes what begins with '#' for a comment, so also without.
bool colourOf(const std::string& text, RGB& rgb) {
  if (yuvOf(text, rgb)) return true;
  const std::string digits = vexo::utils::startsWith(text, "#") ? text.substr(1) : text;
  uint32_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stopped, error] = std::from_chars(digits.data(), end, number, 16);
  if (digits.size() != 6 || error != std::errc() || stopped != end) return false;
  rgb = {static_cast<uint8_t>(number >> 16), static_cast<uint8_t>(number >> 8),
         static_cast<uint8_t>(number)};
  return true;
}

Lab print(const RGB& rgb) {
  const Lab lab = XYZ_to_Lab(RGB_to_XYZ(rgb));
  std::printf("rgb %3d %3d %3d  lab %6.2f %7.2f %7.2f\n", rgb.r, rgb.g, rgb.b, lab.L, lab.a, lab.b);
  return lab;
}

int run(int argc, char** argv) {
  RGB one{};
  RGB other{};
  if (argc != 3 || !colourOf(argv[1], one) || !colourOf(argv[2], other)) {
    return misused("give two colours as RRGGBB or yuv:Y,U,V");
  }
  const Lab first = print(one);
  std::printf("difference %.2f\n", diff_ciede2000<Lab>(first, print(other)));
  return kDone;
}

}  // namespace

const Command colorCommand = {"color", "tell how different two colours look (CIEDE2000)",
                              R"(usage: vexo color A B

Prints both colours as sRGB and CIELAB, and their difference: 1 is just noticeable, 100 is black
and white. A colour is RRGGBB, in hexadecimal, or yuv:Y,U,V, each 0 to 255.

  vexo color ff8000 yuv:158,39,197
)",
                              run};
