// The helpers of exec.h that run a program in one call.

#include <algorithm>
#include <cstdarg>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "internal/exec_state.h"
#include "internal/log.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {

using internal::kEnded;
using internal::kExited;

namespace {

constexpr unsigned kStepMs = 10;  // between two looks at the deadline

// `count` arguments of type const char*, up to the first null.
std::vector<std::string> listOf(int count, va_list arguments) {
  std::vector<std::string> list;
  for (int i = 0; i < count; ++i) {
    const char* argument = va_arg(arguments, const char*);
    if (argument == nullptr) break;
    list.emplace_back(argument);
  }
  return list;
}

std::vector<std::string> listOf(std::initializer_list<const char*> arguments) {
  const auto end = std::find(arguments.begin(), arguments.end(), nullptr);
  return {arguments.begin(), end};
}

std::string textOf(const char* text) {
  return text != nullptr ? text : "";
}

bool startOrLog(SysExec& runner) {
  if (runner.start()) return true;
  VEXO_LOG_ERROR("Failed to start SysExec with code=%d, cmd='%s'", runner.getCode(),
                 runner.getCmd().c_str());
  return false;
}

}  // namespace

// What a run takes of one of the program's streams.
struct SysExec::Capture {
  std::string* wanted;
  unsigned int threshold;
  std::string text = {};

  void hand() {
    if (wanted != nullptr) *wanted = std::move(text);
  }
};

int SysExec::universalExec(const std::string* input, Capture out, Capture err,
                           unsigned int timeoutMs) {
  if (input != nullptr) setIn(*input);
  if (out.wanted != nullptr) setOut(nullptr);
  if (err.wanted != nullptr) setErr(nullptr);
  if (out.threshold != 0) setOutThreshold(out.threshold);
  if (err.threshold != 0) setErrThreshold(err.threshold);
  setOutOverflowStop(false).setErrOverflowStop(false);
  outText = &out.text;
  errText = &err.text;

  const long long deadline = nowMs() + timeoutMs;
  if (!startOrLog(*this)) return -1;
  const std::string command = cmd;  // stop clears it
  // As service and waitReady in turns, with as few calls as can be: for each chunk of output, these
  // would take half again the time of reading it.
  bool mayHaveEnded = true;
  while ((state & kEnded) == 0) {
    if (timeoutMs != 0 && nowMs() > deadline) {
      stop();
      out.hand();
      err.hand();
      VEXO_LOG_WARNING("Timeout executing, cmd='%s'", command.c_str());
      return -1;
    }
    if (!writeInput() || !readMuch() || (mayHaveEnded && !lookForEnd())) {
      VEXO_LOG_ERROR("Failed to service SysExec code=%d, cmd='%s'", code, command.c_str());
      stop();
      return -1;
    }
    if ((state & kEnded) == 0) mayHaveEnded = waitForActivity(kStepMs);
  }
  const int result = (state & kExited) != 0 ? status : code;
  stop();
  out.hand();
  err.hand();
  return result;
}

int sysExec(const std::string* in, std::string* out, std::string* err, unsigned int timeoutMs,
            unsigned int outThreshold, unsigned int errThreshold, const std::string& exe,
            const std::vector<std::string>& args) {
  SysExec runner;
  runner.setExe(exe).setArgs(args);
  return runner.universalExec(in, {out, outThreshold}, {err, errThreshold}, timeoutMs);
}

int sysExec(const std::string* in, std::string* out, std::string* err, unsigned int timeoutMs,
            unsigned int outThreshold, unsigned int errThreshold, const std::string& exe, int count,
            ...) {
  va_list arguments;
  va_start(arguments, count);
  const std::vector<std::string> args = listOf(count, arguments);
  va_end(arguments);
  return sysExec(in, out, err, timeoutMs, outThreshold, errThreshold, exe, args);
}

int shellExec(const std::string& cmd, const std::string* in, std::string* out, std::string* err,
              unsigned int timeoutMs, unsigned int outThreshold, unsigned int errThreshold) {
  return sysExec(in, out, err, timeoutMs, outThreshold, errThreshold, "/bin/sh",
                 std::vector<std::string>{"-c", cmd});
}

int sysExecSimple(const char* exe, const std::vector<std::string>& args) {
  return sysExec(nullptr, nullptr, nullptr, 0, 0, 0, textOf(exe), args);
}

int sysExecSimple(const char* exe) {
  return sysExecSimple(exe, listOf({}));
}

int sysExecSimple(const char* exe, const char* arg1) {
  return sysExecSimple(exe, listOf({arg1}));
}

int sysExecSimple(const char* exe, const char* arg1, const char* arg2) {
  return sysExecSimple(exe, listOf({arg1, arg2}));
}

int sysExecSimple(const char* exe, const char* arg1, const char* arg2, const char* arg3) {
  return sysExecSimple(exe, listOf({arg1, arg2, arg3}));
}

int sysExecSimple(const char* exe, const char* arg1, const char* arg2, const char* arg3,
                  const char* arg4) {
  return sysExecSimple(exe, listOf({arg1, arg2, arg3, arg4}));
}

bool runDaemon(const std::string* /*reserved*/, const sigset_t* mask, int* pid,
               const std::string& exe, const std::vector<std::string>& args) {
  SysExec runner;
  runner.setMaskSignals(mask).setExe(exe).setArgs(args).setDaemon(true);
  if (!startOrLog(runner)) return false;
  if (pid != nullptr) *pid = runner.getPid();
  return true;
}

bool runDaemon(const std::string* reserved, const sigset_t* mask, int* pid, const std::string& exe,
               int count, ...) {
  va_list arguments;
  va_start(arguments, count);
  const std::vector<std::string> args = listOf(count, arguments);
  va_end(arguments);
  return runDaemon(reserved, mask, pid, exe, args);
}

bool sysExecAsyncSimple(const char* exe, const std::vector<std::string>& args) {
  return sysExecAsyncSimplePid(exe, nullptr, args);
}

bool sysExecAsyncSimplePid(const char* exe, int* pid, const std::vector<std::string>& args) {
  sigset_t none;
  if (sigemptyset(&none) != 0) return false;
  return runDaemon(nullptr, &none, pid, textOf(exe), args);
}

}  // namespace vexo::utils
