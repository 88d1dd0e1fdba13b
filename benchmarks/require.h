// A contestant that fails must not look fast: it ends the program.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace vexo::bench {

// Ends the program unless `done`; `what` tells what could not be done.
inline void require(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "Failed to %s, last error: ", what);
  std::perror(nullptr);
  std::abort();
}

}  // namespace vexo::bench
