#include "internal/alternate_stack.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include <signal.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>

#ifndef AT_MINSIGSTKSZ
#define AT_MINSIGSTKSZ 51
#endif

namespace vexo::utils::internal {

namespace {

constexpr std::size_t kSmallest = 8192;
// What the kernel pushes for a signal where it does not tell, as on ARM: 0.7 KiB with all
// registers.
constexpr std::size_t kUsualFrame = 1024;
// What the handler needs beside that frame: 4.0 KiB were measured on x86-64, most of it for the
// unwinder and for printf in the log, 3.4 KiB on ARM.
constexpr std::size_t kHandlerNeeds = 4608;

std::size_t pageSize() {
  return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Twice the frame, whose size depends on the CPU's registers: a fault or the watchdog may come in
// the handler.
std::size_t stackSize() {
  const std::size_t told = getauxval(AT_MINSIGSTKSZ);
  const std::size_t frame = told != 0 ? told : kUsualFrame;
  const std::size_t size = std::max(kSmallest, 2 * frame + kHandlerNeeds);
  return (size + pageSize() - 1) / pageSize() * pageSize();
}

char* mappingOf(void* stack) {
  return static_cast<char*>(stack) - pageSize();
}

}  // namespace

void* registerAlternateStack() {
  const std::size_t size = stackSize();
  void* memory = mmap(nullptr, pageSize() + size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) return nullptr;
  stack_t stack{};
  stack.ss_sp = static_cast<char*>(memory) + pageSize();
  stack.ss_size = size;
  if (mprotect(stack.ss_sp, size, PROT_READ | PROT_WRITE) == 0 &&
      sigaltstack(&stack, nullptr) == 0) {
    return stack.ss_sp;
  }
  const int savedErrno = errno;
  munmap(memory, pageSize() + size);
  errno = savedErrno;
  return nullptr;
}

bool isRegistered(const void* stack) {
  stack_t current{};
  return stack != nullptr && sigaltstack(nullptr, &current) == 0 && current.ss_sp == stack;
}

void releaseAlternateStack(void* stack) {
  if (!isRegistered(stack)) return;
  stack_t none{};
  none.ss_flags = SS_DISABLE;
  if (sigaltstack(&none, nullptr) != 0) return;  // the thread runs on it
  munmap(mappingOf(stack), pageSize() + stackSize());
}

}  // namespace vexo::utils::internal
