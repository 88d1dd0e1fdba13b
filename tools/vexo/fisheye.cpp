// vexo fisheye: the window that a fisheye lens leaves of a picture.

#include <cmath>
#include <cstdio>
#include <string>

#include <stdint.h>
#include <unistd.h>

#include <vexo_utils/coords.h>

#include "command.h"

namespace {

using vexo::utils::coords;

struct Size {
  uint32_t width;
  uint32_t height;
};

constexpr uint32_t kColumns = 64;

// "1280x720"
bool sizeOf(const std::string& text, Size& size) {
  constexpr uint32_t kLeast = 1;
  constexpr uint32_t kMost = 65535;
  const std::size_t cross = text.find('x');
  return cross != std::string::npos && numberOf(text.substr(0, cross), kLeast, kMost, size.width) &&
         numberOf(text.substr(cross + 1), kLeast, kMost, size.height);
}

// The lens draws a circle; a character is twice as high as it is wide.
void draw(const Size& picture, const coords& window) {
  const double cell = static_cast<double>(picture.width) / kColumns;
  const auto rows = static_cast<unsigned>(std::lround(picture.height / cell / 2));
  const double radius = window.w / 2.0;
  for (unsigned row = 0; row < rows; ++row) {
    std::string line;
    for (unsigned column = 0; column < kColumns; ++column) {
      const double right = (column + 0.5) * cell - window.x;
      const double down = (row + 0.5) * 2 * cell - window.y;
      const bool inWindow = right >= 0 && right < window.w && down >= 0 && down < window.h;
      const bool inCircle = std::hypot(right - radius, down - radius) <= radius;
      line += inCircle ? 'o' : inWindow ? '+' : '.';
    }
    std::puts(line.c_str());
  }
}

int run(int argc, char** argv) {
  bool mirror = false;
  bool flip = false;
  for (int option = 0; (option = getopt(argc, argv, "mf")) != -1;) {
    if (option == '?') return misused("wrong option -%c", optopt);
    (option == 'm' ? mirror : flip) = true;
  }
  Size picture{1280, 720};
  if (argc - optind > 2 || (optind < argc && !sizeOf(argv[optind], picture))) {
    return misused("give sizes as WIDTHxHEIGHT");
  }
  Size frame = picture;
  if (argc - optind == 2 && !sizeOf(argv[optind + 1], frame)) {
    return misused("give sizes as WIDTHxHEIGHT");
  }
  if (!hasCamera()) return kFailed;
  coords window{};
  vexo::utils::fisheyeRemap(picture.width, picture.height, frame.width, frame.height, mirror, flip,
                            window);
  std::printf("window %ux%u at %u,%u of %ux%u\n", window.w, window.h, window.x, window.y,
              picture.width, picture.height);
  draw(picture, window);
  return kDone;
}

}  // namespace

const Command fisheyeCommand = {"fisheye", "draw the window of the fisheye lens in a picture",
                                R"(usage: vexo fisheye [-m] [-f] [PICTURE [FRAME]]

Prints the square window around the circle that this camera's lens draws, and draws it: "o" the
circle, "+" the rest of the window, "." the rest of the picture. PICTURE is the size of the picture
(default 1280x720); FRAME that of the sensor's frame (default: the same), where the board does not
have a fixed one. Reads the calibration in /etc/ispserver/lensbias.conf.

  -m        the picture is mirrored, -f: flipped upside down

  vexo fisheye -m 1920x1080
)",
                                run};
