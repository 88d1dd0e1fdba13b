// The Base64 and hexadecimal functions of auth.h.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "vexo_utils/auth.h"

namespace vexo::utils {

namespace {

using Byte = unsigned char;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// The two characters of every 12 bits: half the steps of one character at a time, for 8 KiB.
constexpr auto kPairs = [] {
  std::array<std::array<Byte, 2>, 4096> pairs{};
  for (std::size_t bits = 0; bits < pairs.size(); ++bits) {
    pairs[bits][0] = static_cast<Byte>(kAlphabet[bits >> 6]);
    pairs[bits][1] = static_cast<Byte>(kAlphabet[bits & 63]);
  }
  return pairs;
}();

// The 6 bits of every character, at its place in a group of four: no shifts, for 4 KiB. What is
// none of the alphabet has bits above those of a group.
constexpr std::uint32_t kNone = 0xFF000000;
constexpr auto kSextets = [] {
  std::array<std::array<std::uint32_t, 256>, 4> sextets{};
  for (unsigned place = 0; place < 4; ++place) {
    for (std::uint32_t& sextet : sextets[place]) sextet = kNone;
    for (std::uint32_t i = 0; i < 64; ++i) {
      sextets[place][static_cast<Byte>(kAlphabet[i])] = i << (18 - 6 * place);
    }
  }
  return sextets;
}();

constexpr auto kHexPairs = [] {
  constexpr char kDigits[] = "0123456789abcdef";
  std::array<std::array<char, 2>, 256> pairs{};
  for (std::size_t byte = 0; byte < pairs.size(); ++byte) {
    pairs[byte][0] = kDigits[byte >> 4];
    pairs[byte][1] = kDigits[byte & 15];
  }
  return pairs;
}();

constexpr unsigned kNoDigit = 16;
constexpr auto kHexValues = [] {
  std::array<Byte, 256> values{};
  for (Byte& value : values) value = kNoDigit;
  for (Byte i = 0; i < 10; ++i) values[static_cast<Byte>('0' + i)] = i;
  for (Byte i = 10; i < 16; ++i) {
    values[static_cast<Byte>('a' + i - 10)] = i;
    values[static_cast<Byte>('A' + i - 10)] = i;
  }
  return values;
}();

// False: `out` is no place for `needed`, which the caller is told.
bool hasRoom(const Byte* out, unsigned int& outLength, std::uint64_t needed) {
  if (out != nullptr && outLength >= needed) return true;
  constexpr std::uint64_t kMost = std::numeric_limits<unsigned int>::max();
  outLength = static_cast<unsigned int>(needed < kMost ? needed : kMost);
  return false;
}

void encodeBits(std::uint32_t bits, Byte* out) {
  std::memcpy(out, kPairs[bits >> 12].data(), 2);
  std::memcpy(out + 2, kPairs[bits & 4095].data(), 2);
}

// The 24 bits of a group; kNone or more when it is not four characters of the alphabet.
std::uint32_t decodeBits(const Byte* group) {
  return kSextets[0][group[0]] | kSextets[1][group[1]] | kSextets[2][group[2]] |
         kSextets[3][group[3]];
}

// The number of bytes in such a group: 1 or 2 when it is padded, 0 when it is no Base64.
unsigned int decodePadded(const Byte* group, Byte* out) {
  std::uint32_t bits = kSextets[0][group[0]] | kSextets[1][group[1]];
  const unsigned int size = group[2] == '=' ? 1 : 2;
  if (size == 2) bits |= kSextets[2][group[2]];
  if (bits >= kNone || (size == 2 && group[3] != '=')) return 0;
  out[0] = static_cast<Byte>(bits >> 16);
  if (size == 2) out[1] = static_cast<Byte>(bits >> 8);
  return size;
}

}  // namespace

unsigned int b64(const unsigned char* in, unsigned int length, unsigned char* out,
                 unsigned int& outLength) {
  if (in == nullptr || length == 0) return 0;
  const std::uint64_t needed = (std::uint64_t{length} + 2) / 3 * 4;
  if (!hasRoom(out, outLength, needed)) return 0;

  const Byte* const whole = in + std::size_t{length} / 3 * 3;
  for (; in != whole; in += 3, out += 4) {
    encodeBits(std::uint32_t{in[0]} << 16 | std::uint32_t{in[1]} << 8 | in[2], out);
  }
  const unsigned int rest = length % 3;
  if (rest == 1) {
    encodeBits(std::uint32_t{in[0]} << 16, out);
    out[2] = '=';
  }
  if (rest == 2) encodeBits(std::uint32_t{in[0]} << 16 | std::uint32_t{in[1]} << 8, out);
  if (rest != 0) out[3] = '=';
  return static_cast<unsigned int>(needed);
}

unsigned int unb64(const unsigned char* in, unsigned int length, unsigned char* out,
                   unsigned int& outLength) {
  if (in == nullptr || length == 0 || length % 4 != 0) return 0;
  if (!hasRoom(out, outLength, std::uint64_t{length / 4} * 3)) return 0;

  const Byte* const begin = out;
  const auto written = [&] { return static_cast<unsigned int>(out - begin); };
  for (const Byte* const end = in + length; in != end; in += 4, out += 3) {
    const std::uint32_t bits = decodeBits(in);
    if (bits >= kNone) {
      const unsigned int last = decodePadded(in, out);
      return last == 0 ? 0 : written() + last;
    }
    out[0] = static_cast<Byte>(bits >> 16);
    out[1] = static_cast<Byte>(bits >> 8);
    out[2] = static_cast<Byte>(bits);
  }
  return written();
}

std::string bin2hex(const unsigned char* data, unsigned int length, const std::string& separator,
                    char fill) {
  std::string text;
  if (data == nullptr || length == 0) return text;
  const std::uint64_t size =
      std::uint64_t{length} * 2 + std::uint64_t{length - 1} * separator.size();
  if (size > text.max_size()) return text;
  text.resize(static_cast<std::size_t>(size));
  char* to = text.data();
  for (unsigned int i = 0; i < length; ++i, to += 2) {
    if (i != 0 && !separator.empty()) to = std::copy(separator.begin(), separator.end(), to);
    const Byte byte = data[i];
    std::memcpy(to, kHexPairs[byte].data(), 2);
    if (byte < 16) *to = fill;
  }
  return text;
}

void bin2Hex(const unsigned char* data, unsigned int length, std::string& out) {
  out = bin2hex(data, length, "", '0');
}

std::vector<unsigned char> hex2bin(std::string text) {
  std::vector<unsigned char> bytes;
  bytes.reserve((text.size() + 1) / 2);
  for (std::size_t i = 0; i < text.size(); ++i) {
    const unsigned first = kHexValues[static_cast<Byte>(text[i])];
    if (first == kNoDigit) continue;
    // The text ends with a NUL, which is no digit.
    const unsigned second = kHexValues[static_cast<Byte>(text[i + 1])];
    if (second == kNoDigit) {
      bytes.push_back(static_cast<Byte>(first));
      continue;
    }
    bytes.push_back(static_cast<Byte>(first << 4 | second));
    ++i;
  }
  return bytes;
}

}  // namespace vexo::utils
