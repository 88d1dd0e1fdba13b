// Base64 text from outside, and any bytes as Base64.

#include <vector>

#include "fuzz.h"
#include "vexo_utils/auth.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Into exactly the room that is asked for, which less of is refused.
Bytes convert(decltype(&vexo::utils::b64) function, const Bytes& in) {
  const auto size = static_cast<unsigned int>(in.size());
  unsigned int room = 0;
  MUST(function(in.data(), size, nullptr, room) == 0);
  Bytes out(room);
  unsigned int less = room - 1;
  MUST(room == 0 || (function(in.data(), size, out.data(), less) == 0 && less == room));
  const unsigned int written = function(in.data(), size, out.data(), room);
  MUST(room == out.size() && written <= room);
  out.resize(written);
  return out;
}

// A character at a time.
Bytes decoded(const Bytes& text) {
  const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  if (text.size() % 4 != 0) return {};
  Bytes bytes;
  unsigned bits = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '=' && i % 4 >= 2) return bytes;
    const std::size_t value = alphabet.find(static_cast<char>(text[i]));
    if (value == std::string::npos) return {};
    bits = bits << 6 | static_cast<unsigned>(value);
    if (i % 4 > 0) bytes.push_back(static_cast<unsigned char>(bits >> (6 - 2 * (i % 4))));
  }
  return bytes;
}

}  // namespace

FUZZ_TARGET(base64) {
  const std::string text = input.rest();
  const Bytes bytes(text.begin(), text.end());
  MUST(convert(vexo::utils::unb64, bytes) == decoded(bytes));
  // One that is none spoils all the others.
  for (std::size_t at = 0; at + 4 <= bytes.size(); at += 4) {
    const Bytes group(&bytes[at], &bytes[at] + 4);
    MUST(convert(vexo::utils::unb64, group) == decoded(group));
  }
  const Bytes code = convert(vexo::utils::b64, bytes);
  MUST(code.size() == (bytes.size() + 2) / 3 * 4);
  MUST(convert(vexo::utils::unb64, code) == bytes && decoded(code) == bytes);
}
