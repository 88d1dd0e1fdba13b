// Rectangles of a picture and the window that a fisheye lens leaves of it.
//
// Units:     pixels, from the top left corner. All arithmetic is unsigned: what does not fit into
//            32 bits wraps silently, as noted where it matters.
// Threads:   any; fisheyeRemap reads the camera's description, which must not be changed meanwhile.
#pragma once

#include <stdint.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

// A point or top left corner, and a size.
struct coords {
  uint32_t x;
  uint32_t y;
  uint32_t w;
  uint32_t h;
};

// True when /usr/lib/fcd exists. Looked for at the first call only: a file that comes or goes later
// is not seen by this process.
VEXO_UTILS_API bool isFCD();

// Puts the point of `from`, which lies in a frame of from.w x from.h, where it is in a frame of
// to.w x to.h with the same middle. A target smaller than the source gives a point about 2^31 too
// far, since half of a wrapped difference is taken; callers rely on that.
VEXO_UTILS_API void coordsCenterRemap(coords& from, coords& to);

// Mirror left and right, or flip upside down, a point within its w x h. An odd size counts as one
// less. A point beyond the size wraps.
VEXO_UTILS_API void coordsMirror(coords& c);
VEXO_UTILS_API void coordsFlip(coords& c);

// The square window around the circle that the lens draws, in a picture of `width` x `height`:
// `out` gets its corner (0 or a multiple of 4) and its side (a multiple of 8) in w and h.
// `frameWidth` x `frameHeight` is the sensor's frame, on boards that do not have a fixed one, and
// `mirror` and `flip` are done to the picture.
//
// The circle's centre and radius in the frame were measured for each unit: "oc_x", "oc_y" and
// "oc_r" in /etc/ispserver/lensbias.conf, a file of key=value lines. If it, a key or a number is
// missing, the frame's centre and half of the height stand in, which is logged once in a process as
// info. So they do, with the info "hwrev N, oc_x N, oc_y N, reject this oc", for early units of one
// board that were delivered with values that were never measured.
//
// A window that sticks out of the picture is not cut: where the radius does not fit, x, y or the
// side do not lie within it. Sizes of 0 are allowed. Ends the process by forceCrash, after an
// error, when the camera's description has no unsigned "sysid" or "hwrev", or no map "features" on
// a board whose frame depends on its lens.
VEXO_UTILS_API void fisheyeRemap(unsigned width, unsigned height, unsigned frameWidth,
                                 unsigned frameHeight, bool mirror, bool flip, coords& out);

}  // namespace vexo::utils
