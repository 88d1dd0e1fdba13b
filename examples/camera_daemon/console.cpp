#include "console.h"

#include <cstdio>
#include <map>

#include <unistd.h>

#include <vexo_utils/timer.h>

namespace console {

namespace {

const long long startMs = nowMs();

const char* colourOf(const std::string& who) {
  static const std::map<std::string, const char*> colours = {
      {"access", "\033[32m"},  {"clock", "\033[34m"},    {"config", "\033[32m"},
      {"crash", "\033[31m"},   {"daemon", "\033[1m"},    {"farewell", "\033[31m"},
      {"log", "\033[33m"},     {"mounting", "\033[33m"}, {"motion", "\033[35m"},
      {"network", "\033[36m"}, {"process", "\033[36m"},  {"settings", "\033[32m"},
      {"signal", "\033[31m"},  {"tenant", "\033[36m"},   {"timer", "\033[34m"},
      {"worker", "\033[36m"},
  };
  const auto found = colours.find(who);
  return found != colours.end() ? found->second : "";
}

}  // namespace

void say(const std::string& who, const std::string& what) {
  static const bool colour = isatty(STDOUT_FILENO) == 1;
  std::printf("%8.3f  %s%-8s%s %s\n", static_cast<double>(nowMs() - startMs) / 1000.0,
              colour ? colourOf(who) : "", who.c_str(), colour ? "\033[0m" : "", what.c_str());
  std::fflush(stdout);
}

void print(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

}  // namespace console
