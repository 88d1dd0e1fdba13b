// What the daemon tells a person: one line an event, with the seconds since start and who speaks.
#pragma once

#include <string>

namespace console {

// Lines are in colour on a terminal, plain elsewhere.
void say(const std::string& who, const std::string& what);

// A line without time and speaker.
void print(const std::string& line);

}  // namespace console
