#include "vexo_utils/color.h"

#include <cmath>
#include <sstream>

#include <gtest/gtest.h>

namespace vexo::utils::color {

namespace {

// L, a, b twice and the difference: the pairs of Sharma, Wu and Dalal, "The CIEDE2000
// Color-Difference Formula" (2005), which between them show every branch of the formula.
constexpr char kPairs[] = R"(
50 2.6772 -79.7751 50 0 -82.7485 2.0425   50 3.1571 -77.2803 50 0 -82.7485 2.8615
50 2.8361 -74.0200 50 0 -82.7485 3.4412   50 -1.3802 -84.2814 50 0 -82.7485 1.0000
50 -1.1848 -84.8006 50 0 -82.7485 1.0000  50 -0.9009 -85.5211 50 0 -82.7485 1.0000
50 0 0 50 -1 2 2.3669                     50 -1 2 50 0 0 2.3669
50 2.49 -0.001 50 -2.49 0.0009 7.1792     50 2.49 -0.001 50 -2.49 0.0010 7.1792
50 2.49 -0.001 50 -2.49 0.0011 7.2195     50 2.49 -0.001 50 -2.49 0.0012 7.2195
50 -0.001 2.49 50 0.0009 -2.49 4.8045     50 -0.001 2.49 50 0.0010 -2.49 4.8045
50 -0.001 2.49 50 0.0011 -2.49 4.7461     50 2.5 0 50 0 -2.5 4.3065
50 2.5 0 73 25 -18 27.1492                50 2.5 0 61 -5 29 22.8977
50 2.5 0 56 -27 -3 31.9030                50 2.5 0 58 24 15 19.4535
50 2.5 0 50 3.1736 0.5854 1.0000          50 2.5 0 50 3.2972 0 1.0000
50 2.5 0 50 1.8634 0.5757 1.0000          50 2.5 0 50 3.2592 0.3350 1.0000
60.2574 -34.0099 36.2677 60.4626 -34.1751 39.4387 1.2644
63.0109 -31.0961 -5.8663 62.8187 -29.7946 -4.0864 1.2630
61.2901 3.7196 -5.3901 61.4292 2.2480 -4.9620 1.8731
35.0831 -44.1164 3.7933 35.0232 -40.0716 1.5901 1.8645
22.7233 20.0904 -46.6940 23.0331 14.9730 -42.5619 2.0373
36.4612 47.8580 18.3852 36.2715 50.5065 21.2231 1.4146
90.8027 -2.0831 1.4410 91.1528 -1.6435 0.0447 1.4441
90.9257 -0.5406 -0.9208 88.6381 -0.8985 -0.7239 1.5381
6.7747 -0.2908 -2.4247 5.8714 -0.0985 -2.2286 0.6377
2.0776 0.0795 -1.1350 0.9033 -0.0636 -0.5514 0.9082)";

TEST(Ciede2000, PublishedPairs) {
  std::istringstream pairs(kPairs);
  int count = 0;
  Lab one{};
  Lab other{};
  double difference = 0;
  while (pairs >> one.L >> one.a >> one.b >> other.L >> other.a >> other.b >> difference) {
    ++count;
    EXPECT_NEAR(diff_ciede2000(one, other), difference, 1e-4) << "pair " << count;
    EXPECT_NEAR(diff_ciede2000(other, one), difference, 1e-4) << "pair " << count;
    EXPECT_EQ(diff_ciede2000(one, one), 0.0);
  }
  EXPECT_EQ(count, 34);
}

Lab labOf(const RGB& rgb) {
  return XYZ_to_Lab(RGB_to_XYZ(rgb));
}

TEST(Color, KnownConversions) {
  const struct {
    RGB rgb;
    Lab lab;
  } colors[] = {{{0, 0, 0}, {0, 0, 0}},
                {{255, 255, 255}, {100, 0, 0}},
                {{255, 0, 0}, {53.2408, 80.0925, 67.2032}},
                {{0, 255, 0}, {87.7347, -86.1827, 83.1793}},
                {{0, 0, 255}, {32.2970, 79.1875, -107.8602}},
                {{5, 10, 15}, {2.5637, -0.5096, -2.6323}}};  // below the knees of both curves
  for (const auto& [rgb, lab] : colors) {
    const Lab got = labOf(rgb);
    EXPECT_LT(std::fabs(got.L - lab.L) + std::fabs(got.a - lab.a) + std::fabs(got.b - lab.b), 2e-4)
        << got.L << ' ' << got.a << ' ' << got.b;
  }
  const struct {
    YUV yuv;
    RGB rgb;
  } samples[] = {{{0, 128, 128}, {0, 0, 0}},
                 {{300, 128, 128}, {255, 255, 255}},
                 {{-1, 128, 128}, {0, 0, 0}},
                 {{100, 128, 129}, {101, 99, 100}},
                 {{100, 129, 128}, {100, 99, 101}},
                 {{100, 127, 127}, {98, 101, 98}},
                 {{128, 255, 0}, {0, 175, 255}},
                 {{INT16_MAX, INT16_MAX, INT16_MAX}, {255, 0, 255}},
                 {{INT16_MIN, 0, INT16_MIN}, {0, 0, 0}}};
  for (const auto& [yuv, rgb] : samples) {
    const RGB got = YUV_to_RGB(yuv);
    EXPECT_TRUE(got.r == rgb.r && got.g == rgb.g && got.b == rgb.b) << yuv.y << ' ' << yuv.u;
  }
}

TEST(Color, EveryRgbIsALab) {
  // Emulated targets take every fifth value of a channel, which has 0 and 255.
  constexpr int kStep = sizeof(void*) == 4 ? 5 : 1;
  int bad = 0;
  for (int i = 0; i < 256 * 256; i += kStep) {
    for (int b = 0; b < 256; b += kStep) {
      const Lab lab = labOf(
          {static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i & 255), static_cast<uint8_t>(b)});
      const bool good = lab.L >= 0 && lab.L < 100.001 && std::fabs(lab.a) < 100 &&
                        std::fabs(lab.b) < 110;  // false for NaN
      bad += good ? 0 : 1;
    }
  }
  EXPECT_EQ(bad, 0);
}

TEST(Ciede2000, VideoSamplesDifferFinitelyAndSymmetrically) {
  const int16_t values[] = {INT16_MIN, -1, 0, 16, 64, 127, 128, 129, 192, 255, INT16_MAX};
  for (const int16_t y : values) {
    for (const int16_t u : values) {
      for (const int16_t v : values) {
        const YUV one{y, u, v};
        const YUV other{u, v, y};
        const double difference = diff_ciede2000(one, other);
        EXPECT_TRUE(difference >= 0 && difference < 200) << y << ' ' << u << ' ' << v;
        EXPECT_NEAR(difference, diff_ciede2000(other, one), 1e-9);
        EXPECT_EQ(difference, diff_ciede2000(labOf(YUV_to_RGB(one)), labOf(YUV_to_RGB(other))));
      }
    }
  }
}

}  // namespace

}  // namespace vexo::utils::color
