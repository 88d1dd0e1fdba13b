// What libFuzzer calls, in a program with one target.

#include "fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  vexo::fuzz::runTarget(*vexo::fuzz::Target::first, data, size);
  return 0;
}
