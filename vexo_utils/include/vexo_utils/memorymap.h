// MemoryMap: what a process has mapped where, from proc_pid_maps(5), as text and as records.
//
// Threads:   one object belongs to one thread at a time.
// Ownership: owns its buffers. Entries, paths and text are valid until the next GetMemoryMap or
//            the destructor.
// Memory:    Reserve maps less than 1 MiB, of which only what a map fills becomes resident. After
//            it, nothing is allocated any more, and GetMemoryMap(0) may run in a signal handler.
// Failure:   false, with errno, not logged.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <vexo_utils/export.h>

namespace vexo::utils {

class VEXO_UTILS_API MemoryMap {
 public:
  // One line. Offsets and inodes have 64 bits whatever the width of an address is.
  struct Entry {
    std::uint64_t start;  // the first byte and the one after the last
    std::uint64_t end;
    std::uint64_t offset;  // in the file, bytes
    std::uint64_t inode;   // 0: no file
    unsigned int major;    // of the file's device
    unsigned int minor;
    char permissions[5];    // "r-xp", with a NUL
    std::string_view path;  // to the line's end, also with blanks; empty: none
  };

  constexpr MemoryMap() = default;
  MemoryMap(const MemoryMap&) = delete;
  MemoryMap& operator=(const MemoryMap&) = delete;
  ~MemoryMap();

  // Takes all memory that is ever needed; true at once when it was done before.
  bool Reserve();

  // Reads the map of a process, 0 for the own one, in the place of what was there; reserves if that
  // was not done. Of a map with more than 256 KiB of text, the lines that fit are kept. A line that
  // is not understood stays in the text, has no entry, and is logged as an error: "The following
  // memory map line could not be parsed `%s`". On failure the map is empty.
  bool GetMemoryMap(int pid);

  // The lines as the kernel wrote them, each with its line feed; no NUL follows.
  std::string_view text() const { return {buffer, textSize}; }

  // The entries in the order of their addresses, for range-based for.
  const Entry* begin() const { return entries; }
  const Entry* end() const { return entries + count; }

 private:
  bool readText(int pid);
  void parse();

  Entry* entries = nullptr;  // one mapping with the buffer, which comes after them
  std::size_t count = 0;
  char* buffer = nullptr;
  std::size_t textSize = 0;
};

}  // namespace vexo::utils
