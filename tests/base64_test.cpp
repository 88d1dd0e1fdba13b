#include <climits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "vexo_utils/auth.h"

namespace vexo::utils {
namespace {

using Bytes = std::vector<unsigned char>;

Bytes bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

// Through a buffer of exactly `room` bytes, so that the sanitizer sees a step outside.
std::string convert(decltype(&b64) function, const Bytes& in, std::size_t room) {
  Bytes out(room);
  auto length = static_cast<unsigned int>(room);
  const auto size = static_cast<unsigned int>(in.size());
  const unsigned int written = function(in.data(), size, out.data(), length);
  EXPECT_EQ(length, room);
  return {out.begin(), out.begin() + written};
}

std::string encoded(const Bytes& in) {
  return convert(b64, in, (in.size() + 2) / 3 * 4);
}

std::string decoded(const std::string& text) {
  return convert(unb64, bytesOf(text), text.size() / 4 * 3);
}

TEST(Base64, IsThatOfTheStandardAndOfOpenSsl) {
  const std::string text = "foobar";
  const char* const expected[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};
  for (std::size_t size = 0; size <= text.size(); ++size) {
    EXPECT_EQ(encoded(bytesOf(text.substr(0, size))), expected[size]);
    EXPECT_EQ(decoded(expected[size]), text.substr(0, size));
  }
  std::minstd_rand random(1);
  for (std::size_t step = 0; step <= 301; ++step) {
    Bytes data(step <= 300 ? step : 1 << 20);
    for (unsigned char& byte : data) byte = static_cast<unsigned char>(random() >> 8);
    Bytes theirs((data.size() + 2) / 3 * 4 + 1);
    const int length = EVP_EncodeBlock(theirs.data(), data.data(), static_cast<int>(data.size()));
    const std::string code = encoded(data);
    ASSERT_EQ(code, std::string(theirs.begin(), theirs.begin() + length)) << step;
    ASSERT_EQ(bytesOf(decoded(code)), data) << step;
  }
}

TEST(Base64, TellsTheRoomThatItNeeds) {
  const Bytes in(8, 'A');
  const auto refused = [](auto function, const Bytes& from, unsigned int length,
                          unsigned int room) {
    unsigned char out[8] = "before";
    EXPECT_EQ(function(from.data(), length, out, room), 0U);
    EXPECT_STREQ(reinterpret_cast<const char*>(out), "before");
    const unsigned int needed = room;
    EXPECT_EQ(function(from.data(), length, nullptr, room), 0U);
    EXPECT_EQ(room, needed);
    return needed;
  };
  EXPECT_EQ(refused(b64, in, 1, 3), 4U);
  EXPECT_EQ(refused(b64, in, 4, 0), 8U);
  EXPECT_EQ(refused(unb64, in, 8, 5), 6U);
  // Before a byte is read.
  EXPECT_EQ(refused(b64, in, 3221225469U, UINT_MAX - 4), UINT_MAX - 3);
  EXPECT_EQ(refused(b64, in, 3221225470U, UINT_MAX), UINT_MAX);
  EXPECT_EQ(refused(b64, in, UINT_MAX, UINT_MAX), UINT_MAX);
  EXPECT_EQ(refused(unb64, in, UINT_MAX - 3, 3221225468U), 3221225469U);
  // Nothing to say.
  for (const unsigned int length : {0U, 1U, 6U, UINT_MAX}) {
    EXPECT_EQ(refused(unb64, in, length, 1), 1U);
  }
  EXPECT_EQ(refused(b64, in, 0, 1), 1U);
  EXPECT_EQ(refused(b64, Bytes(), 4, 1), 1U);
  EXPECT_EQ(refused(unb64, Bytes(), 4, 1), 1U);
}

TEST(Hexadecimal, ThereAndBack) {
  Bytes all(256);
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<unsigned char>(i);
  std::string text = "before";
  bin2Hex(all.data(), 256, text);
  EXPECT_EQ(text.substr(0, 6) + text.substr(506), "000102fdfeff");
  EXPECT_EQ(hex2bin(text), all);
  EXPECT_EQ(hex2bin(bin2hex(all.data(), 256, "::", '0')), all);

  const unsigned char data[] = {0x0A, 0xFF, 0x00};
  EXPECT_EQ(bin2hex(data, 3, ", ", '0'), "0a, ff, 00");
  EXPECT_EQ(bin2hex(data, 3, "", ' '), " aff 0");
  EXPECT_EQ(bin2hex(data, 0, ":", '0') + bin2hex(nullptr, UINT_MAX, ":", '0'), "");
}

TEST(Hexadecimal, AnythingElseSeparates) {
  const std::pair<std::string, Bytes> rows[] = {
      {"", {}},
      {"0a:ff:1", {0x0A, 0xFF, 0x01}},
      {"abCDe", {0xAB, 0xCD, 0x0E}},
      {std::string("1\0002\xFF", 4) + "3g@`G/", {1, 2, 3}},
      {std::string(4 << 20, 'f') + '-', Bytes(2 << 20, 0xFF)}};
  for (const auto& [text, bytes] : rows) EXPECT_EQ(hex2bin(text), bytes);
}

}  // namespace
}  // namespace vexo::utils
