// crash_child APP WORD...: installs the crash dump handler and crashes; the words say how.

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include "vexo/host/log_sink.h"
#include "vexo/log.h"
#include "vexo_utils/crashdumps.h"

namespace {

volatile std::uintptr_t zero = 0;
volatile int sink = 0;
std::atomic<int> crashing{0};
stack_t painted;

void writeNull() {
  *reinterpret_cast<volatile int*>(zero) = 1;  // the guilty line
}

// The heap's lock is held when its damage is found.
void spoilHeap() {
  auto* block = static_cast<char*>(malloc(20000));
  std::memset(block + malloc_usable_size(block), 0xff, 2 * sizeof(void*));
  for (int i = 0; i < 2; ++i) sink = *static_cast<volatile char*>(malloc(30000));
}

void readPastEnd() {
  const int fd = open("/tmp", O_RDWR | O_TMPFILE, 0600);
  sink = ftruncate(fd, 4096);
  auto* mapped = static_cast<volatile char*>(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0));
  sink = ftruncate(fd, 0);
  sink = mapped[0];
}

int overflow(int depth) {
  volatile char block[1024];
  block[0] = static_cast<char>(depth);
  return depth < 0 ? 0 : overflow(depth + 1) + block[0];
}

void writeNullTogether() {
  for (++crashing; crashing < 2;) {
  }
  writeNull();
}

void handleBefore(void (*one)(int), void (*three)(int, siginfo_t*, void*)) {
  struct sigaction action {};
  action.sa_handler = one;
  if (three != nullptr) action.sa_flags = SA_SIGINFO, action.sa_sigaction = three;
  for (const int signo : {SIGSEGV, SIGABRT}) sigaction(signo, &action, nullptr);
}

int openDescriptors() {
  int count = 0;
  for (int fd = 0; fd < 64; ++fd) count += fcntl(fd, F_GETFD) != -1;
  return count;
}

void tell(const char* text) {
  sink = static_cast<int>(write(STDOUT_FILENO, text, std::strlen(text)));
}

void reportStack(int, siginfo_t*, void*) {
  const auto* bottom = static_cast<const unsigned char*>(painted.ss_sp);
  std::size_t left = 0;
  while (bottom[left] == 0xA5) ++left;
  char text[64];
  std::snprintf(text, sizeof text, "%zu of %zu", left, painted.ss_size);
  tell(text);
}

}  // namespace

int main(int argc, char** argv) {
  const std::set<std::string> words(argv + 2, argv + argc);
  const auto is = [&](const char* word) { return words.count(word) != 0; };

  if (is("three"))
    handleBefore(nullptr, [](int, siginfo_t* info, void* context) {
      tell(info->si_signo == SIGSEGV && context != nullptr ? "three" : "wrong");
    });
  if (is("one")) handleBefore([](int signo) { tell(signo == SIGSEGV ? "one" : "wrong"); }, nullptr);
  if (is("exit")) handleBefore([](int) { exit(7); }, nullptr);
  if (is("ignored")) handleBefore(SIG_IGN, nullptr);
  if (is("paint")) handleBefore(nullptr, reportStack);

  if (!InstallCrashDumpHandler(argv[1])) return 80;
  if (is("again")) {
    const int before = openDescriptors();
    if (!InstallCrashDumpHandler("again")) return 81;
    if (openDescriptors() != before) return 82;
  }

  if (is("paint")) {
    sigaltstack(nullptr, &painted);
    std::memset(painted.ss_sp, 0xA5, painted.ss_size);
  }
  const rlimit none{};
  if (is("close") || is("reuse")) closefrom(3);
  if (is("reuse")) sink = open("/tmp/other", O_WRONLY | O_CREAT, 0600);
  if (is("no-files")) setrlimit(RLIMIT_NOFILE, &none);
  if (is("no-children")) signal(SIGCHLD, SIG_IGN);
  if (is("log-faults")) vexo::host::setLogSink([](void*, const auto&) { writeNull(); }, nullptr);
  if (is("log-hangs")) vexo::host::setLogSink([](void*, const auto&) { pause(); }, nullptr);
  for (int i = 1; is("threads") && i < 4; ++i)
    std::thread([] {
      for (;;) pause();
    }).detach();

  if (is("null")) writeNull();
  if (is("abort")) forceCrash();
  if (is("divide")) sink = 1 / static_cast<int>(zero), raise(SIGFPE);  // some CPUs have a result
  if (is("illegal")) __builtin_trap();
  if (is("bus")) readPastEnd();
  if (is("heap")) spoilHeap();
  if (is("overflow")) sink = overflow(0);
  if (is("thread")) std::thread(writeNull).join();
  if (is("thread-overflow"))
    std::thread([] { sink = PrepareThreadForCrashDump() ? overflow(0) : 0; }).join();
  if (is("two")) std::thread(writeNullTogether).detach(), writeNullTogether();
}
