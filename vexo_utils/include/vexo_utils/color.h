// Colours of camera pictures: conversions from video samples up to CIELAB, and the CIEDE2000
// difference of two colours.
//
// Differences around 1 are just noticeable to people; black and white differ by 100.
//
// Threads:   any. Nothing here keeps state that a caller can see.
// Failure:   none. Every RGB and every YUV gives finite numbers; NaN and infinity in an XYZ or Lab
//            give such numbers again.
#pragma once

#include <stdint.h>

#include <vexo_utils/export.h>

namespace vexo::utils::color {

// sRGB, 0 to 255 a channel.
struct RGB {
  uint8_t r;
  uint8_t g;
  uint8_t b;
};

// 8-bit video, full range: y from 0 to 255, u and v with 128 for no colour. Wider, so that sums and
// differences of samples fit; any value can be converted.
struct YUV {
  int16_t y;
  int16_t u;
  int16_t v;
};

// CIE XYZ for the 2 degree observer, scaled so that white has Y = 100.
struct XYZ {
  double X;
  double Y;
  double Z;
};

// CIELAB: L from 0 (black) to 100 (white); a towards red, b towards yellow, both 0 for grey.
struct Lab {
  double L;
  double a;
  double b;
};

// Relative to the white D65 (95.047, 100, 108.883), with the rounded constants 0.008856 and 7.787
// of the older tables: programs that use the exact fractions differ slightly for dark colours.
VEXO_UTILS_API Lab XYZ_to_Lab(const XYZ& xyz);

// From sRGB's curve and primaries. White is (95.047, 100.00001, 108.883): the rows of the matrix
// are rounded, so that grey gets an a and b of up to 2e-5 in Lab.
VEXO_UTILS_API XYZ RGB_to_XYZ(const RGB& rgb);

// Each channel is truncated towards zero, then clamped to 0 to 255.
VEXO_UTILS_API RGB YUV_to_RGB(const YUV& yuv);

// CIEDE2000 (CIE 142-2001) with all weights 1: 0 for equal colours, the same in both directions.
// For Lab and YUV, which is taken through RGB and XYZ first; other types do not compile.
template <typename Color>
double diff_ciede2000(const Color& one, const Color& other) = delete;
template <>
VEXO_UTILS_API double diff_ciede2000<Lab>(const Lab& one, const Lab& other);
template <>
VEXO_UTILS_API double diff_ciede2000<YUV>(const YUV& one, const YUV& other);

}  // namespace vexo::utils::color
