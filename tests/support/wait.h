// Waiting for a condition, in the place of sleeping for a time.
#pragma once

#include <chrono>
#include <thread>

namespace vexo::test {

// Asks until `condition` holds; false after a time that only a fault or a stuck machine takes.
template <typename Condition>
bool eventually(Condition condition) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace vexo::test
