// Crash dumps: what is left of a process that ended by a fatal signal.
//
//   int main() {
//     InstallCrashDumpHandler("streamer");
//     ...
//
// makes the folder /tmp/crashdumps/streamer/0000000001 with an empty file "stack"; each start makes
// the next one. On SIGSEGV, SIGABRT, SIGFPE, SIGILL or SIGBUS, that file gets
//
//   SIGNAL: 0x0000000B
//                                            an empty line
//   --- STACK TRACE ---
//   /usr/bin/streamer(+0x1234)[0x401234]     a line for each of at most 128 frames, innermost first
//   --- MEMORY MAP ---
//   00400000-00410000 r-xp ...               /proc/self/maps
//                                            two empty lines
//
// Then "/usr/bin/crash-collect app PID FOLDER SIGNAL" is run, both numbers decimal, and killed if
// it has not ended after about 10 s; then the handler that was there before is called; then the
// process ends with status 1. tools/read-crash-dump turns the trace into functions and lines.
//
// To have a trace on ARM, everything that a crash may happen in needs unwind tables: the library's
// package brings -funwind-tables to its users. To have function names in the file itself, link
// programs with -rdynamic.
//
// Folders:   by default only the newest is kept, so that the start after a crash removes the dump:
//            let the collector copy it, or set the environment variable CRASH_DUMPS_COUNT (1 to
//            100). No link is followed below /tmp: where one stands in the place of a folder, or
//            where a folder belongs to neither root nor the effective user, there is no dump.
// Stack:     only the installing thread can report the overflow of its stack; others call
//            PrepareThreadForCrashDump. Without it, an overflow ends the process by SIGSEGV, while
//            all other faults are reported from any thread.
// In a crash: the first fault counts. One in a second thread, in the handler itself or in the
//            previous handler ends the process at once, with status 1. In the handler, only the
//            five signals and SIGALRM are not blocked in the thread. It allocates nothing and takes
//            no lock of its own; should the log or a previous handler hang, SIGALRM ends the
//            process after 13 s.
// fork:      a child that does not execute a program shares the file and reports its parent's pid:
//            it installs again, under its own name.
#pragma once

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <string>

#include <dirent.h>
#include <signal.h>
#include <sys/types.h>

#include <vexo_utils/export.h>
#include <vexo_utils/memorymap.h>

// Makes the dump folder of `app`, which becomes the name of a folder, opens its "stack" file and
// installs the handler. To be called at the start, by the main thread, and not by two threads at
// once. A further call makes a new folder, which takes the place of the first.
// The actions that were set for the signals before are kept and called in a crash, if they are
// handlers, each in its own form; on the alternate stack, where they have 4 KiB.
// False, logged; the process then runs on with what was set before, or after the last message with
// a part of the signals handled: "Unable to compute the dump folder" (`app` is null, empty,
// "." or "..", has a slash, or a folder cannot be made), "Unable to create stack file to `%s`",
// "Unable to allocate alternate signaling stack" (or the buffers), "sigaction failed".
VEXO_UTILS_API bool InstallCrashDumpHandler(const char* app);

// Gives the calling thread an alternate stack, see sigaltstack(2), until it ends, so that a crash
// by overflow of its own stack can be reported. 8 KiB or what the CPU's registers need. True at
// once if it was done before. False, logged: "Unable to allocate alternate signaling stack".
VEXO_UTILS_API bool PrepareThreadForCrashDump();

// The signal handler. Called for a signal, it does not return.
[[noreturn]] VEXO_UTILS_API void DumpStackWrapper(int signo, siginfo_t* info, void* context);

// Write the trace of the calling thread and the memory map, in the form above without the signal,
// to standard error, to the descriptor of a stream (past what the stream has buffered), or to a
// descriptor. Any thread. Logged: "Unable to read the memory map.", which then is left out, and
// "Fail to write fd: %d, errno: %d".
VEXO_UTILS_API void PrintBacktrace();
VEXO_UTILS_API void PrintBacktrace(FILE* stream);
VEXO_UTILS_API void PrintBacktrace(int fd);

// The state of the handler, of which there is one. Programs use the functions above.
class VEXO_UTILS_API CrashDumpHandler {
 public:
  constexpr CrashDumpHandler() = default;
  CrashDumpHandler(const CrashDumpHandler&) = delete;
  CrashDumpHandler& operator=(const CrashDumpHandler&) = delete;
  // Puts the previous actions back, unless a crash is being handled.
  virtual ~CrashDumpHandler();

  // Evicts old dump folders of `app` and makes the next one, whose path it puts into `folder`.
  // False, with `folder` as it was: as described above, with errno and not logged, or after "Unable
  // to scan folder `%s`". Warnings: "Unable to evict folder `%s`", and two about the variable.
  static bool GetCrashDumpFolder(const char* app, std::string& folder);

  // For scandir(3): whether an entry is a dump folder, named by a number of ten digits.
  static int crash_dump_folder_filer(const dirent* entry);

 private:
  friend bool InstallCrashDumpHandler(const char* app);
  friend void DumpStackWrapper(int signo, siginfo_t* info, void* context);

  static constexpr int kSignalCount = 5;
  static constexpr int kFrames = 128;
  static constexpr std::size_t kFolderSize =
      sizeof "/tmp/crashdumps/" + NAME_MAX + sizeof "/0000000001";

  struct PreviousAction {
    int signo;  // 0: not installed
    struct sigaction action;
  };

  bool prepare(const char* app);
  bool useAlternateStack();
  bool installActions();

  void ensureEnd();
  bool ownsStackFile() const;
  void writeStackFile(int signo);
  void runCollector(int signo);
  bool collectorEnded() const;
  void callPrevious(int signo, siginfo_t* info, void* context) const;

  int stackFd = -1;
  std::atomic<bool> handling{false};
  PreviousAction previous[kSignalCount] = {};
  vexo::utils::MemoryMap memoryMap;
  void* alternateStack = nullptr;  // the installing thread's
  char pid[24] = {};
  char folder[kFolderSize] = {};
  char furtherArgument[12] = {};  // the signal number, decimal
  char signalText[10] = {};       // "0x0000000B", without a NUL
  pid_t collector = -1;
  int polls = 0;
  std::uint64_t stackDevice = 0;  // which file stackFd is, should somebody else close it
  std::uint64_t stackInode = 0;
  void* frames[kFrames] = {};
};

// The one of this process.
extern VEXO_UTILS_API CrashDumpHandler gCrashDumper;
