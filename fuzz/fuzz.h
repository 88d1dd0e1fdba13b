// What the fuzz targets share.
//
// A target takes the bytes of an input apart and gives them to the library, or to files that the
// library reads; it ends the process where the library does not do what its header says. Targets
// change what belongs to the camera: they run in a private world. Each has a process of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vexo::fuzz {

// The bytes of one input, taken from its front. Behind its end there are zeros.
class Input {
 public:
  Input(const uint8_t* data, std::size_t size) : at(data), end(data + size) {}

  bool empty() const { return at == end; }
  uint8_t byte() { return empty() ? uint8_t{0} : *at++; }
  uint64_t number(int bytes);  // least significant byte first

  // As many of the bytes as are there.
  std::string take(std::size_t size);
  std::string part() { return take(byte()); }
  std::string rest() { return take(static_cast<std::size_t>(end - at)); }

 private:
  const uint8_t* at;
  const uint8_t* end;
};

struct Target {
  Target(const char* name, void (*run)(Input& input));

  const char* name;
  void (*run)(Input& input);
  const Target* next;
  static const Target* first;
};

// Once for each input. Nothing that is logged reaches standard error.
void runTarget(const Target& target, const uint8_t* data, std::size_t size);

// Lines that the library logged about this input.
int errors();
int warnings();

[[noreturn]] void fail(const char* file, int line, const char* condition);

// By the system's calls, as these take most of the time.
void write(const char* path, const std::string& contents);

}  // namespace vexo::fuzz

// Begins the function of a target, with its `input`.
#define FUZZ_TARGET(NAME)                              \
  static void run(vexo::fuzz::Input& input);           \
  static const vexo::fuzz::Target kTarget(#NAME, run); \
  static void run([[maybe_unused]] vexo::fuzz::Input& input)

#define MUST(condition) \
  ((condition) ? static_cast<void>(0) : vexo::fuzz::fail(__FILE__, __LINE__, #condition))
