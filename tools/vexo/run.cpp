// vexo run: a command under SysExec.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <limits.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vexo_utils/exec.h>
#include <vexo_utils/string_utils.h>
#include <vexo_utils/timer.h>

#include "command.h"

namespace {

using vexo::utils::format;
using vexo::utils::SysExec;

constexpr unsigned kStepMs = 200;  // between two looks at the clock

// States and a code of SysExec.
constexpr int kExited = 34;
constexpr int kTooMuchOutput = 6;
constexpr int kTooManyErrors = 10;
constexpr int kInputLeft = 110;

struct Options {
  bool input = false;
  bool drop = false;
  unsigned timeoutMs = 0;  // 0: none, as of the limits
  unsigned outLimit = 0;
  unsigned errLimit = 0;
};

// One of the command's streams, passed on as it comes.
struct Stream {
  explicit Stream(FILE* to) : target(to), terminal(isatty(fileno(to)) == 1) {}

  FILE* target;
  bool terminal;
  bool midLine = false;  // on a terminal
  std::vector<char> fresh;
  unsigned long long bytes = 0;

  void passOn(Progress& progress) {
    if (fresh.empty()) return;
    if (terminal) progress.erase();
    std::fwrite(fresh.data(), 1, fresh.size(), target);
    std::fflush(target);
    bytes += fresh.size();
    midLine = terminal && fresh.back() != '\n';
    fresh.clear();
  }
};

bool readOptions(int argc, char** argv, Options& options) {
  constexpr unsigned kLeast = 1;
  for (int option = 0; (option = getopt(argc, argv, "+ikt:o:e:")) != -1;) {
    unsigned* number = nullptr;
    if (option == 'i') options.input = true;
    if (option == 'k') options.drop = true;
    if (option == 't') number = &options.timeoutMs;
    if (option == 'o') number = &options.outLimit;
    if (option == 'e') number = &options.errLimit;
    if (option == '?') return false;
    if (number != nullptr && !numberOf(optarg, kLeast, UINT_MAX, *number)) return false;
  }
  return optind < argc;
}

// Of a command that has ended, or has to.
std::string howItEnded(const SysExec& command) {
  const int status = command.getStatus();
  switch (command.getState()) {
    case kExited:
      return "exited with " + std::to_string(WEXITSTATUS(status));
    case kTooMuchOutput:
      return "killed: more output than its limit";
    case kTooManyErrors:
      return "killed: more on standard error than its limit";
    default:
      break;
  }
  if (WIFSIGNALED(status)) {
    return format("ended by signal %d (%s)", WTERMSIG(status), strsignal(WTERMSIG(status)));
  }
  if (command.getCode() == kInputLeft) return "killed: it has closed its input before the end";
  return format("killed: failure %d", command.getCode());
}

// Serves the command until it has ended or has to. Returns how it did.
std::string serve(SysExec& command, Stream& out, Stream& err, Progress& progress,
                  unsigned timeoutMs) {
  const long long start = nowMs();
  while (command.getState() == 1 && command.service()) {
    const long long elapsed = nowMs() - start;
    if (timeoutMs != 0 && elapsed >= timeoutMs) return "killed: time is over";
    out.passOn(progress);
    err.passOn(progress);
    if (!out.midLine && !err.midLine) {  // would be wiped out
      progress.show(format("%lld s, %llu bytes", elapsed / 1000, out.bytes + err.bytes));
    }
    const long long left = timeoutMs != 0 ? timeoutMs - elapsed : kStepMs;
    command.waitReady(static_cast<unsigned>(std::min<long long>(left, kStepMs)));
  }
  return howItEnded(command);
}

int run(int argc, char** argv) {
  Options options;
  if (!readOptions(argc, argv, options)) return misused("give a command, and limits above 0");
  const std::string program = programOf(argv[optind]);
  if (program.empty() || access(program.c_str(), X_OK) != 0) {
    return failed("no program '%s'", argv[optind]);
  }
  std::string input;
  if (options.input && !readInput(input)) return failed("cannot read standard input");

  Stream out(stdout);
  Stream err(stderr);
  Progress progress;
  SysExec command;
  command.setExe(program).setArgs({argv + optind + 1, argv + argc});
  command.setOut(&out.fresh).setOutThreshold(options.outLimit).setOutOverflowStop(!options.drop);
  command.setErr(&err.fresh).setErrThreshold(options.errLimit).setErrOverflowStop(!options.drop);
  if (options.input) command.setIn(input);
  const long long start = nowMs();
  if (!command.start()) return failed("cannot start it: failure %d", command.getCode());
  const std::string end = serve(command, out, err, progress, options.timeoutMs);
  const bool good = command.getState() == kExited && command.getStatus() == 0;
  command.stop();  // takes what was written last
  out.passOn(progress);
  err.passOn(progress);
  progress.erase();
  if (out.midLine || err.midLine) std::fputc('\n', stderr);
  complain("%s after %.3f s; %llu bytes of output, %llu on standard error", end.c_str(),
           static_cast<double>(nowMs() - start) / 1000, out.bytes, err.bytes);
  return good ? kDone : kFailed;
}

}  // namespace

const Command runCommand = {
    "run", "run a command under limits, and tell how it ended",
    R"(usage: vexo run [-i] [-t MS] [-o BYTES] [-e BYTES] [-k] COMMAND [ARGUMENT]...

Runs a command without a shell, passes on what it writes, and tells on standard error how it
ended. Exit status 0 when the command's was.

  -i        the command reads standard input, which is read to its end first; else it has none
  -t MS     kill it after so many milliseconds
  -o BYTES  kill it when it writes more than so many bytes, -e BYTES: to standard error
  -k        instead of killing it for that, throw away what is more

  vexo run -t 2000 -o 1000000 sh -c 'echo working; sleep 1; exit 3'
)",
    run};
