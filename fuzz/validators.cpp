// The checks of configuration values, beside the same by hand; search and replacement of a text.

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz.h"
#include "vexo_utils/string_utils.h"
#include "vexo_utils/validation.h"

namespace {

using namespace vexo::utils;
using Strings = std::vector<std::string>;

template <typename Is>
bool all(const std::string& text, std::size_t least, std::size_t most, Is is) {
  return text.size() >= least && text.size() <= most && std::all_of(text.begin(), text.end(), is);
}

// In the C locale, as the patterns are.
bool isLetter(char c) {
  return std::isalpha(static_cast<unsigned char>(c)) != 0;
}
bool isDigit(char c) {
  return std::isdigit(static_cast<unsigned char>(c)) != 0;
}
bool isHex(char c) {
  return std::isxdigit(static_cast<unsigned char>(c)) != 0;
}
bool isLowHex(char c) {
  return isHex(c) && std::isupper(static_cast<unsigned char>(c)) == 0;
}
bool isLow(char c) {
  return isLetter(c) && std::islower(static_cast<unsigned char>(c)) != 0;
}
bool isAlnum(char c) {
  return isLetter(c) || isDigit(c);
}

Strings cut(const std::string& text, const std::string& delimiter) {
  Strings pieces;
  split(text, delimiter, pieces);
  return pieces;
}

bool isPsk(const std::string& text) {
  return all(text, 8, 64, [](char c) { return c >= ' ' && c <= '~'; });
}

bool isSsid(const std::string& text) {
  return all(text, 1, 32, [](char c) { return c != '\0'; });
}

bool isDomain(const std::string& text) {
  Strings labels = cut(text, ".");
  if (text.size() > 253 || labels.size() < 2 || !all(labels.back(), 1, 6, isLetter)) return false;
  labels.pop_back();
  return std::all_of(labels.begin(), labels.end(), [](const std::string& label) {
    const auto isInner = [](char c) { return isAlnum(c) || c == '-' || c == '\\'; };
    return all(label, 1, 63, isInner) && isAlnum(label.front()) && isAlnum(label.back());
  });
}

bool isAddress(const std::string& text) {
  const Strings numbers = cut(text, ".");
  return numbers.size() == 4 &&
         std::all_of(numbers.begin(), numbers.end(), [](const std::string& number) {
           return all(number, 1, 3, isDigit) && std::atoi(number.c_str()) < 256;
         });
}

bool isMask(const std::string& text) {
  for (int bits = 1; bits <= 8; ++bits) {
    const std::string number = std::to_string(256 - (1 << (8 - bits)));  // 128 to 255
    if (bits < 8 && text.rfind(number + ".0.0.0", 0) == 0) return true;
    for (const std::string& last : {number, std::string("0")}) {
      if (last == "255") continue;
      for (const std::string& mask :
           {"255." + last + ".0.0", "255.255." + last + ".0", "255.255.255." + last}) {
        if (text.find(mask) != std::string::npos) return true;
      }
    }
  }
  return false;
}

bool isMac(const std::string& text) {
  if (text.size() != 17) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (i % 3 == 2 ? c != ':' && c != '-' : !isHex(c)) return false;
  }
  return true;
}

bool hasUuid(const std::string& text) {
  const std::string form = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  const auto fits = [](char c, char place) { return place == '-' ? c == '-' : isLowHex(c); };
  return std::search(text.begin(), text.end(), form.begin(), form.end(), fits) != text.end();
}

bool isUsername(const std::string& text) {
  const auto isInner = [](char c) { return isLow(c) || isDigit(c) || c == '-'; };
  return all(text, 1, 64, isInner) && isLow(text.front());
}

// A pattern that matches this text only.
std::string literal(const std::string& text) {
  std::string pattern;
  for (const char c : text) {
    if (std::strchr("\\^$.[]|()?*+{}", c) != nullptr) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

}  // namespace

FUZZ_TARGET(validators) {
  const std::string needle = input.take(input.byte() % 32).c_str();
  const std::string text = input.rest();
  MUST(psk_valid(text, true) == isPsk(text));
  MUST(ssid_valid(text, true) == isSsid(text));
  MUST(domain_name_valid(text, true) == isDomain(text));
  MUST(ipv4_address_valid(text, true, true) == isAddress(text));
  MUST(ipv4_address_valid(text, true, false) == (isAddress(text) && text != "0.0.0.0"));
  MUST(ipv4_netmask_valid(text, true) == isMask(text));
  MUST(mac_address_valid(text, true) == isMac(text));
  MUST(uuid_valid(text, true) == hasUuid(text));
  MUST(vexo::fuzz::errors() == 0);
  MUST(username_valid(text, false) == isUsername(text));
  MUST(vexo::fuzz::errors() == (isUsername(text) ? 0 : 1));

  const std::string pattern = literal(needle);
  MUST(regex_match(pattern.c_str(), text, true) == (text.find(needle) != std::string::npos));
  const std::size_t at = lowerCase(text).find(lowerCase(needle));
  const std::string replaced = regex_replace(text, pattern.c_str(), "\\0&", true);
  if (at == std::string::npos) {
    MUST(replaced.empty());
  } else {
    MUST(replaced == text.substr(0, at) + "\\0&" + text.substr(at + needle.size()));
  }
}
