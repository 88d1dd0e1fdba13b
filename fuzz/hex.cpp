// Hexadecimal text from outside, and any bytes as such text.

#include <cctype>
#include <cstdlib>
#include <vector>

#include "fuzz.h"
#include "vexo_utils/auth.h"

namespace {

using Bytes = std::vector<unsigned char>;

// By strtoul(3): runs of digits, two by two.
Bytes decoded(const std::string& text) {
  Bytes bytes;
  for (std::size_t at = 0; at < text.size();) {
    std::string digits;
    while (at < text.size() && digits.size() < 2 &&
           std::isxdigit(static_cast<unsigned char>(text[at])) != 0) {
      digits += text[at++];
    }
    if (digits.empty()) {
      ++at;
    } else {
      bytes.push_back(static_cast<unsigned char>(std::strtoul(digits.c_str(), nullptr, 16)));
    }
  }
  return bytes;
}

}  // namespace

FUZZ_TARGET(hex) {
  const std::string separator = input.take(input.byte() % 4);
  const char fill = static_cast<char>(input.byte());
  const std::string text = input.rest();
  MUST(vexo::utils::hex2bin(text) == decoded(text));

  const Bytes bytes(text.begin(), text.end());
  const auto size = static_cast<unsigned int>(bytes.size());
  std::string plain = "before";
  vexo::utils::bin2Hex(bytes.data(), size, plain);
  MUST(plain.size() == 2 * bytes.size() && vexo::utils::hex2bin(plain) == bytes);
  // Each byte's two digits by themselves, filled as asked for.
  std::string expected;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0) expected += separator;
    expected += plain[2 * i] == '0' ? fill : plain[2 * i];
    expected += plain[2 * i + 1];
  }
  MUST(vexo::utils::bin2hex(bytes.data(), size, separator, fill) == expected);
}
