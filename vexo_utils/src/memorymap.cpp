#include "vexo_utils/memorymap.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "internal/files.h"
#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"

namespace vexo::utils {

using internal::openAt;
using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr std::size_t kTextSize = 256UL * 1024;
constexpr std::size_t kShortestLine = sizeof "00010000-00011000 rw-p 00000000 00:00 0 ";
constexpr std::size_t kMaxEntries = kTextSize / kShortestLine;
constexpr std::size_t kEntriesSize = kMaxEntries * sizeof(MemoryMap::Entry);

// Takes a line apart from its left. Each step is false when what it wants is not there. By hand:
// sscanf(3) measures all the text behind the line at every call, and may allocate.
class LineReader {
 public:
  explicit LineReader(std::string_view line) : rest(line) {}

  template <typename Number>
  bool number(Number& out, int base) {
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), out, base);
    if (error != std::errc()) return false;
    rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
    return true;
  }

  bool character(char wanted) {
    if (rest.empty() || rest.front() != wanted) return false;
    rest.remove_prefix(1);
    return true;
  }

  bool word(char* out, std::size_t maxLength) {
    const std::size_t length = std::min(rest.find(' '), rest.size());
    if (length == 0 || length > maxLength) return false;
    out[rest.copy(out, length)] = '\0';
    rest.remove_prefix(length);
    return true;
  }

  std::string_view remainder() {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    return rest;
  }

 private:
  std::string_view rest;
};

bool parseLine(std::string_view line, MemoryMap::Entry& entry) {
  LineReader reader(line);
  const bool good =
      reader.number(entry.start, 16) && reader.character('-') && reader.number(entry.end, 16) &&
      reader.character(' ') && reader.word(entry.permissions, sizeof entry.permissions - 1) &&
      reader.character(' ') && reader.number(entry.offset, 16) && reader.character(' ') &&
      reader.number(entry.major, 16) && reader.character(':') && reader.number(entry.minor, 16) &&
      reader.character(' ') && reader.number(entry.inode, 10);
  if (!good) return false;
  const std::string_view behind = reader.remainder();
  // Without a blank, the path would be what is left of a number that is none.
  if (!behind.empty() && *(behind.data() - 1) != ' ') return false;
  entry.path = behind;
  return true;
}

UniqueFd openMap(int pid) {
  if (pid == 0) return openAt(AT_FDCWD, "/proc/self/maps", O_RDONLY);
  char path[40];
  std::snprintf(path, sizeof path, "/proc/%llu/maps", static_cast<unsigned long long>(pid));
  return openAt(AT_FDCWD, path, O_RDONLY);
}

}  // namespace

MemoryMap::~MemoryMap() {
  if (entries != nullptr) munmap(entries, kEntriesSize + kTextSize);
}

bool MemoryMap::Reserve() {
  if (entries != nullptr) return true;
  void* memory = mmap(nullptr, kEntriesSize + kTextSize, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return false;
  entries = static_cast<Entry*>(memory);
  buffer = static_cast<char*>(memory) + kEntriesSize;
  return true;
}

bool MemoryMap::GetMemoryMap(int pid) {
  count = 0;
  textSize = 0;
  if (!Reserve() || !readText(pid)) return false;
  parse();
  return true;
}

// The kernel gives whole lines, at most a page of them at a time.
bool MemoryMap::readText(int pid) {
  const UniqueFd fd = openMap(pid);
  if (!fd.valid()) return false;
  std::size_t used = 0;
  while (used < kTextSize) {
    const ssize_t got =
        retryOnEintr([&] { return read(fd.get(), buffer + used, kTextSize - used); });
    if (got < 0) return false;
    if (got == 0) break;
    used += static_cast<std::size_t>(got);
  }
  if (used == kTextSize) used = std::string_view(buffer, used).rfind('\n') + 1;
  textSize = used;
  return true;
}

void MemoryMap::parse() {
  std::string_view rest = text();
  while (!rest.empty() && count < kMaxEntries) {
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    if (parseLine(line, entries[count])) {
      ++count;
    } else {
      VEXO_LOG_ERROR("The following memory map line could not be parsed `%.*s`",
                     static_cast<int>(line.size()), line.data());
    }
  }
}

}  // namespace vexo::utils
