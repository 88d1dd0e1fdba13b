#include "vexo_utils/color.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>

namespace vexo::utils::color {

namespace {

// ---- XYZ and RGB ----

// The white of D65.
constexpr double kXn = 95.047;
constexpr double kYn = 100.0;
constexpr double kZn = 108.883;

double labCurve(double t) {
  return t > 0.008856 ? std::cbrt(t) : 7.787 * t + 16.0 / 116.0;
}

double linearOf(std::size_t channel) {
  const double c = static_cast<double>(channel) / 255.0;
  return 100.0 * (c > 0.04045 ? std::pow((c + 0.055) / 1.055, 2.4) : c / 12.92);
}

// Linear light, 0 to 100, of the 256 values of a channel. Made on first use: a lookup takes a tenth
// of the time of pow(3), and three are needed a pixel.
const std::array<double, 256>& linearLight() {
  static const std::array<double, 256> table = [] {
    std::array<double, 256> values{};
    for (std::size_t i = 0; i < values.size(); ++i) values[i] = linearOf(i);
    return values;
  }();
  return table;
}

uint8_t channelOf(double value) {
  return static_cast<uint8_t>(std::clamp(static_cast<int32_t>(value), 0, 255));
}

// ---- CIEDE2000; angles are in degrees ----

constexpr double kDegrees = 57.29577951308232;
constexpr double kRadians = 0.017453292519943295;

double cosOf(double degrees) {
  return std::cos(degrees * kRadians);
}
double sinOf(double degrees) {
  return std::sin(degrees * kRadians);
}

double chromaOf(double a, double b) {
  return std::sqrt(a * a + b * b);
}

double hueOf(double a, double b) {
  if (a == 0.0 && b == 0.0) return 0.0;
  const double hue = std::atan2(b, a) * kDegrees;
  return hue < 0.0 ? hue + 360.0 : hue;
}

// From 0 for grey towards 1 for strong colours.
double saturation(double chroma) {
  const double squared = chroma * chroma;
  const double seventh = squared * squared * squared * chroma;
  return std::sqrt(seventh / (seventh + 6103515625.0));
}

double hueDifference(double hue1, double hue2) {
  const double difference = hue2 - hue1;
  if (difference > 180.0) return difference - 360.0;
  if (difference < -180.0) return difference + 360.0;
  return difference;
}

// On the shorter way around.
double meanHue(double hue1, double hue2) {
  const double sum = hue1 + hue2;
  if (std::fabs(hue1 - hue2) <= 180.0) return sum / 2.0;
  return (sum < 360.0 ? sum + 360.0 : sum - 360.0) / 2.0;
}

double hueWeight(double hue) {
  return 1.0 - 0.17 * cosOf(hue - 30.0) + 0.24 * cosOf(2.0 * hue) + 0.32 * cosOf(3.0 * hue + 6.0) -
         0.20 * cosOf(4.0 * hue - 63.0);
}

// Couples chroma and hue in the blue.
double rotation(double hue, double chroma) {
  const double fromBlue = (hue - 275.0) / 25.0;
  const double angle = 30.0 * std::exp(-fromBlue * fromBlue);
  return -sinOf(2.0 * angle) * 2.0 * saturation(chroma);
}

Lab labOf(const YUV& yuv) {
  return XYZ_to_Lab(RGB_to_XYZ(YUV_to_RGB(yuv)));
}

}  // namespace

Lab XYZ_to_Lab(const XYZ& xyz) {
  const double x = labCurve(xyz.X / kXn);
  const double y = labCurve(xyz.Y / kYn);
  const double z = labCurve(xyz.Z / kZn);
  return {116.0 * y - 16.0, 500.0 * (x - y), 200.0 * (y - z)};
}

XYZ RGB_to_XYZ(const RGB& rgb) {
  const std::array<double, 256>& light = linearLight();
  const double r = light[rgb.r];
  const double g = light[rgb.g];
  const double b = light[rgb.b];
  return {0.4124564 * r + 0.3575761 * g + 0.1804375 * b,
          0.2126729 * r + 0.7151522 * g + 0.072175 * b,
          0.0193339 * r + 0.119192 * g + 0.9503041 * b};
}

RGB YUV_to_RGB(const YUV& yuv) {
  const double y = yuv.y;
  const double u = yuv.u - 128;
  const double v = yuv.v - 128;
  return {channelOf(y + 1.4075 * v), channelOf(y - 0.3455 * u - 0.7169 * v),
          channelOf(y + 1.779 * u)};
}

template <>
double diff_ciede2000<Lab>(const Lab& one, const Lab& other) {
  const double plainChroma1 = chromaOf(one.a, one.b);
  const double plainChroma2 = chromaOf(other.a, other.b);
  const double stretch = 1.0 + 0.5 * (1.0 - saturation((plainChroma1 + plainChroma2) / 2.0));
  const double a1 = one.a * stretch;
  const double a2 = other.a * stretch;
  const double chroma1 = chromaOf(a1, one.b);
  const double chroma2 = chromaOf(a2, other.b);
  const double hue1 = hueOf(a1, one.b);
  const double hue2 = hueOf(a2, other.b);

  // A grey has no hue: the other colour's counts alone.
  const bool grey = plainChroma1 * plainChroma2 == 0.0;
  const double turn = grey ? 0.0 : hueDifference(hue1, hue2);
  const double hue = grey ? hue1 + hue2 : meanHue(hue1, hue2);
  const double chroma = (chroma1 + chroma2) / 2.0;
  const double fromMiddle = (one.L + other.L) / 2.0 - 50.0;
  const double fromMiddleSquared = fromMiddle * fromMiddle;

  const double lightnessScale =
      1.0 + 0.015 * fromMiddleSquared / std::sqrt(20.0 + fromMiddleSquared);
  const double chromaScale = 1.0 + 0.045 * chroma;
  const double hueScale = 1.0 + 0.015 * chroma * hueWeight(hue);

  const double dL = (other.L - one.L) / lightnessScale;
  const double dC = (chroma2 - chroma1) / chromaScale;
  const double dH = 2.0 * std::sqrt(chroma1 * chroma2) * sinOf(turn / 2.0) / hueScale;
  return std::sqrt(dL * dL + dC * dC + dH * dH + rotation(hue, chroma) * dC * dH);
}

template <>
double diff_ciede2000<YUV>(const YUV& one, const YUV& other) {
  return diff_ciede2000<Lab>(labOf(one), labOf(other));
}

}  // namespace vexo::utils::color
