// A subcommand of vexo, and what the subcommands share.
#pragma once

#include <charconv>
#include <string>
#include <string_view>
#include <system_error>

#include <vexo_utils/timer.h>

enum Status : int {
  kDone = 0,
  kFailed = 1,  // also: the answer is no
  kMisused = 2,
};

struct Command {
  const char* name;
  const char* help;   // its line in the list
  const char* usage;  // what --help prints, with an example
  // `argv[0]` is "vexo NAME", also for the messages of getopt(3). Returns the exit status.
  int (*run)(int argc, char** argv);
};

extern const Command attitudeCommand;
extern const Command b64Command;
extern const Command checkCommand;
extern const Command colorCommand;
extern const Command crashCommand;
extern const Command fisheyeCommand;
extern const Command hexCommand;
extern const Command logreadCommand;
extern const Command psCommand;
extern const Command runCommand;
extern const Command tzCommand;
extern const Command watchCommand;
extern const Command wavCommand;

// Whose name is before the messages from here on; at first "vexo".
void speakAs(const std::string& name);
// "vexo NAME: TEXT" on standard error.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The same; gives kFailed, or kMisused with a hint to --help.
int failed(const char* format, ...) __attribute__((format(printf, 1, 2)));
int misused(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Of the library's log, leaves the errors, and these in the form of complain, where the platform
// lets a program do that.
void quietLog();

// A whole decimal number from `least` to `most`, and nothing else. `out` is untouched on failure.
template <typename T>
bool numberOf(std::string_view text, T least, T most, T& out) {
  T number{};
  const char* const end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || stopped != end || number < least || number > most) return false;
  out = number;
  return true;
}

// A program's path, as a shell finds it; "" when there is none.
std::string programOf(const std::string& name);

// Reads standard input to its end. False, told: it cannot be read, or is larger than 64 MiB.
bool readInput(std::string& text);

// Whether there is a camera's description; complains when there is none.
bool hasCamera();

// A line about long work, which changes in its place. Only on a terminal, five times a second at
// most.
class Progress {
 public:
  Progress();
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(const std::string& text);
  // Before anything else is written to the terminal.
  void erase();

 private:
  bool terminal;
  bool shown = false;
  vexo::utils::RateLimit rate{200};  // ms
};
