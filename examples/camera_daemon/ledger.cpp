#include "ledger.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <iterator>

#include <sys/wait.h>

#include "console.h"

namespace {

int openDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<int>(std::distance(begin(all), end(all)));
}

// Children that run or were not waited for.
int children() {
  int count = 0;
  while (waitpid(-1, nullptr, WNOHANG) > 0) ++count;
  return errno == ECHILD ? count : count + 1;
}

}  // namespace

Ledger::Ledger() : descriptorsAtStart(openDescriptors()) {}

void Ledger::expect(const std::string& what, int least, int most) {
  rows.push_back({what, least, most, 0});
}

void Ledger::count(const std::string& what) {
  for (Row& row : rows) row.served += row.what == what ? 1 : 0;
}

int Ledger::counted(const std::string& what) const {
  for (const Row& row : rows) {
    if (row.what == what) return row.served;
  }
  return 0;
}

bool Ledger::allReached() const {
  return std::all_of(rows.begin(), rows.end(),
                     [](const Row& row) { return row.served >= row.least; });
}

bool Ledger::close() const {
  bool good = true;
  char line[80];
  console::print("");
  console::print("  served                                 times  expected");
  for (const Row& row : rows) {
    const bool asExpected = row.served >= row.least && (row.most == 0 || row.served <= row.most);
    const std::string expected = (row.most == 0 ? "at least " : "") + std::to_string(row.least);
    std::snprintf(line, sizeof line, "  %-38s %5d  %s%s", row.what.c_str(), row.served,
                  expected.c_str(), asExpected ? "" : "  <- not met");
    console::print(line);
    good = good && asExpected;
  }
  const int descriptors = openDescriptors() - descriptorsAtStart;
  const int left = children();
  console::print("");
  console::print("descriptors left " + std::to_string(descriptors) + ", children left " +
                 std::to_string(left));
  return good && descriptors == 0 && left == 0;
}
