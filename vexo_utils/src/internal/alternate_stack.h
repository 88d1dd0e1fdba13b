// Alternate signal stacks, see sigaltstack(2), that a crash handler fits on.
#pragma once

namespace vexo::utils::internal {

// Registers a new stack, with a guard page below, for the calling thread. Null with errno.
void* registerAlternateStack();

// True when `stack` is the calling thread's.
bool isRegistered(const void* stack);

// Takes the stack back. One that is not, or not any more, the calling thread's is left as it is:
// another thread may be on it.
void releaseAlternateStack(void* stack);

}  // namespace vexo::utils::internal
