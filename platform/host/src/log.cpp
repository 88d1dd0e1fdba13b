#include "vexo/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <unistd.h>

#include "vexo/host/log_sink.h"

namespace {

constexpr int kDefaultLevel = 6;
// Lines are cut here: crash handlers log on small stacks, and one write(2) of this size does not
// interleave with another thread's.
constexpr std::size_t kMaxLine = 1024;

struct {
  vexo::host::LogSink function = nullptr;
  void* ctx = nullptr;
} sink;

int levelFromEnvironment() {
  const char* text = std::getenv("VEXO_LOG_LEVEL");
  return text != nullptr ? std::atoi(text) : kDefaultLevel;
}

int& threshold() {
  static int level = levelFromEnvironment();
  return level;
}

const char* levelName(int level) {
  switch (level) {
    case 3:
      return "error";
    case 4:
      return "warning";
    case 6:
      return "info";
    case 7:
      return "debug";
    default:
      return "level?";
  }
}

// snprintf's result as the number of bytes that are really in a buffer of `size`.
std::size_t written(int result, std::size_t size) {
  if (result < 0) return 0;
  const auto length = static_cast<std::size_t>(result);
  return length < size ? length : size - 1;
}

void writeLine(const vexo::host::LogRecord& record) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  char line[kMaxLine];
  std::size_t length = written(
      std::snprintf(line, sizeof line, "%ld.%03ld %s %s %s:%d %s: %s",
                    static_cast<long>(now.tv_sec), now.tv_nsec / 1000000, levelName(record.level),
                    record.module, record.file, record.line, record.function, record.message),
      sizeof line);
  if (record.error != 0) {
    const char* text = strerrordesc_np(record.error);  // takes no lock and allocates nothing
    length += written(std::snprintf(line + length, sizeof line - length, " (%d: %s)", record.error,
                                    text != nullptr ? text : "unknown error"),
                      sizeof line - length);
  }
  line[length < sizeof line - 1 ? length++ : length - 1] = '\n';
  [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, line, length);
}

}  // namespace

void logInternal(const char* module, const char* file, const char* function, int line, int level,
                 int error, unsigned /*flags*/, const char* format, ...) {
  const int savedErrno = errno;
  char message[kMaxLine / 2];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(message, sizeof message, format, arguments);
  va_end(arguments);
  const vexo::host::LogRecord record{module, file, function, line, level, error, message};
  if (sink.function != nullptr) sink.function(sink.ctx, record);
  if (level <= threshold()) writeLine(record);
  errno = savedErrno;
}

void forceCrash() {
  std::abort();
}

namespace vexo::host {

void setLogSink(LogSink function, void* ctx) {
  sink.function = function;
  sink.ctx = ctx;
}

void setLogLevel(int level) {
  threshold() = level;
}

}  // namespace vexo::host
