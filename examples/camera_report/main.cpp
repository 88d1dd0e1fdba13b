// What a camera knows of its surroundings: how it hangs, where its lens leaves a picture, and
// whether two colours of that picture look the same.

#include <cstdio>

#include <vexo_utils/CameraAttitude.h>
#include <vexo_utils/color.h>
#include <vexo_utils/coords.h>

int main() {
  using namespace vexo::utils;

  // A daemon calls service from its loop; one pass is enough to tell where a resting camera is.
  CameraAttitude camera;
  const auto changed = [](Attitude now, const RPAttitude*) {
    std::printf("it hangs as: %s\n", toString(now).c_str());
    return true;
  };
  camera.init(changed);
  if (!camera.service() || camera.attitude() == Attitude::unknown) return 1;

  // On a ceiling the picture is upside down, both ways.
  const bool turned = camera.attitude() == Attitude::ceiling;
  coords window{};
  fisheyeRemap(1280, 720, 1280, 720, turned, turned, window);
  std::printf("its window: %ux%u at %u,%u\n", window.w, window.h, window.x, window.y);

  const color::YUV grass{120, 100, 110};
  const color::YUV shadedGrass{114, 101, 111};
  const color::YUV sky{190, 150, 110};
  const double same = color::diff_ciede2000<color::YUV>(grass, shadedGrass);
  const double other = color::diff_ciede2000<color::YUV>(grass, sky);
  std::printf("grass and its shade: %.1f, grass and sky: %.1f\n", same, other);
  return same < 5 && other > 20 ? 0 : 1;
}
