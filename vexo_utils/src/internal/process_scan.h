// The processes that /proc lists, by name, and the reading of its files.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace vexo::utils::internal {

struct Process {
  int pid;
  std::string commandLine;  // as in /proc: a NUL after each element
};

// All processes whose program matches `name` as process.h describes it. Nothing when the search
// failed, with errno, logged. Processes that end meanwhile are passed over.
std::optional<std::vector<Process>> findProcesses(const std::string& name);

// The elements of a command line; one that is empty when there are none.
std::vector<std::string> splitCommandLine(std::string commandLine);

// Appends what `fd` gives, in steps, until it ends or `out` has `maxSize` bytes. 0, or the size of
// the step that failed, with errno, not logged.
std::size_t readInSteps(int fd, std::string& out, unsigned int maxSize);

}  // namespace vexo::utils::internal
