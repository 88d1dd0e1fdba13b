// The memory map of another process.

#include <algorithm>
#include <cstdio>
#include <vector>

#include <sys/mount.h>

#include "fuzz.h"
#include "vexo_utils/memorymap.h"

namespace {

using vexo::utils::MemoryMap;

constexpr char kFolder[] = "/proc/1";
constexpr char kPath[] = "/proc/1/maps";

std::string lineOf(const MemoryMap::Entry& entry) {
  char numbers[160];
  const auto wide = [](uint64_t number) { return static_cast<unsigned long long>(number); };
  std::snprintf(numbers, sizeof numbers, "%08llx-%08llx %s %08llx %02x:%02x %llu ",
                wide(entry.start), wide(entry.end), entry.permissions, wide(entry.offset),
                entry.major, entry.minor, wide(entry.inode));
  return numbers + std::string(entry.path) + "\n";
}

std::string linesOf(const MemoryMap& map) {
  std::string text;
  for (const MemoryMap::Entry& entry : map) text += lineOf(entry);
  return text;
}

bool isWithin(std::string_view part, std::string_view whole) {
  return part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size();
}

}  // namespace

FUZZ_TARGET(memorymap) {
  static const bool mounted = mount("tmpfs", kFolder, "tmpfs", 0, nullptr) == 0;
  MUST(mounted);
  const std::string file = input.rest();
  vexo::fuzz::write(kPath, file);
  MemoryMap map;
  MUST(map.GetMemoryMap(1));
  MUST(map.text() == file);
  const auto lines =
      std::count(file.begin(), file.end(), '\n') + (!file.empty() && file.back() != '\n' ? 1 : 0);
  MUST(map.end() - map.begin() + vexo::fuzz::errors() == lines);
  for (const MemoryMap::Entry& entry : map) {
    MUST(isWithin(entry.path, map.text()) && entry.path.find('\n') == std::string_view::npos);
    MUST(std::find(entry.permissions, entry.permissions + 5, '\0') != entry.permissions + 5);
    if (entry.permissions[0] == '\0') return;  // not to be written as text
  }
  // Written as the kernel does it, they are the same.
  const std::string text = linesOf(map);
  vexo::fuzz::write(kPath, text);
  MUST(map.GetMemoryMap(1) && linesOf(map) == text);
}
