// Files of key=value lines.

#include <algorithm>
#include <optional>
#include <vector>

#include "fuzz.h"
#include "vexo/variant/Variant.h"

namespace {

using vexo::variant::Variant;

constexpr char kPath[] = "/tmp/input.conf";
constexpr char kBlanks[] = " \t\r";

bool isTrimmed(const std::string& text) {
  return text.empty() || (text.find_first_not_of(kBlanks) == 0 &&
                          text.find_last_not_of(kBlanks) == text.size() - 1);
}

Variant read(const std::string& file) {
  vexo::fuzz::write(kPath, file);
  Variant value;
  MUST(Variant::FromKVPFile(kPath, value) && value.map() != nullptr);
  return value;
}

}  // namespace

FUZZ_TARGET(kvp) {
  const std::string file = input.rest();
  const Variant value = read(file);
  std::string again;
  for (const auto& [key, entry] : *value.map()) {
    MUST(!key.empty() && isTrimmed(key) && key.front() != '#');
    MUST(key.find_first_of("=\n") == std::string::npos && file.find(key) != std::string::npos);
    std::string text = entry.toJson();
    if (entry.read(text)) {
      MUST(isTrimmed(text) && text.find('\n') == std::string::npos);
      MUST(file.find(text) != std::string::npos);
    }
    again += key + "=" + text + "\n";
  }
  const auto lines = std::count(file.begin(), file.end(), '\n') + 1;
  MUST(static_cast<std::ptrdiff_t>(value.map()->size()) <= lines);
  MUST(read(again) == value && vexo::fuzz::errors() == 0);
  // The last one counts.
  for (const auto& [key, entry] : *value.map()) again.insert(0, key + " =\tother\r\n");
  MUST(read(again) == value);
}
