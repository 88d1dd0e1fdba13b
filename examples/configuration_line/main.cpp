// Takes a line of a configuration apart: names and values, a duration, a time stamp, and what of it
// may be handed to a shell.

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <vexo_utils/string_utils.h>
#include <vexo_utils/timer.h>

namespace {

using namespace vexo::utils;

using Settings = std::map<std::string, std::string>;

// "Name = value; ..."; false when a piece has no "=" or no name.
bool parse(const std::string& line, Settings& settings) {
  std::vector<std::string> pieces;
  tokenize(line, pieces, ";", true);
  for (std::string& piece : pieces) {
    if (trim(piece).empty()) continue;  // after the last ";"
    std::vector<std::string> sides;
    split(piece, "=", sides);
    if (sides.size() != 2) return false;
    const std::string name = lowerCase(trim(sides[0]));
    if (name.empty()) return false;
    settings[name] = trim(sides[1]);
  }
  return true;
}

}  // namespace

int main() {
  Settings settings;
  const std::string line =
      " Title = Ann's door; Length = 4530 ;since=2024-02-29T23:59:59.123+02:00; ";
  if (!parse(line, settings)) return 1;
  for (const auto& [name, value] : settings) std::printf("%-7s %s\n", name.c_str(), value.c_str());

  timeval since{};
  const std::string& stamp = settings["since"];
  if (!stringToTimeval(stamp.data(), static_cast<unsigned>(stamp.size()), &since)) return 1;
  std::printf("in UTC: %s\n", timevalToString(&since).c_str());
  std::printf("as a clock: %s\n", timeToString(std::stoi(settings["length"])).c_str());
  std::printf("for a shell: echo %s\n", escapeShellArg(settings["title"]).c_str());

  if (parse("no value here", settings)) return 1;
  std::puts("a piece without a value is refused");
  return 0;
}
