// Repeats a system call that a signal interrupted.
#pragma once

#include <cerrno>

namespace vexo::utils::internal {

// Calls `call` until it gives something else than -1 with EINTR; returns that.
template <typename Call>
auto retryOnEintr(Call call) -> decltype(call()) {
  for (;;) {
    const auto result = call();
    if (result != -1 || errno != EINTR) return result;
  }
}

}  // namespace vexo::utils::internal
