#include "fuzz.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include "vexo/host/log_sink.h"

namespace vexo::fuzz {

namespace {

constexpr int kError = 3;
constexpr int kWarning = 4;

int counts[8];  // of lines, by their level

void count(void*, const host::LogRecord& record) {
  MUST(record.level >= 0 && record.level < 8);
  ++counts[record.level];
}

}  // namespace

const Target* Target::first = nullptr;

Target::Target(const char* targetName, void (*function)(Input&))
    : name(targetName), run(function), next(first) {
  first = this;
}

void runTarget(const Target& target, const uint8_t* data, std::size_t size) {
  host::setLogLevel(-1);
  host::setLogSink(count, nullptr);
  std::fill(std::begin(counts), std::end(counts), 0);
  Input input(data, size);
  target.run(input);
}

int errors() {
  return counts[kError];
}

int warnings() {
  return counts[kWarning];
}

uint64_t Input::number(int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value |= uint64_t{byte()} << (8 * i);
  return value;
}

std::string Input::take(std::size_t size) {
  const uint8_t* const from = at;
  at += std::min(size, static_cast<std::size_t>(end - at));
  return {from, at};
}

void fail(const char* file, int line, const char* condition) {
  std::fprintf(stderr, "%s:%d: not so: %s (errno: %s)\n", file, line, condition,
               std::strerror(errno));
  std::abort();
}

void write(const char* path, const std::string& contents) {
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  MUST(fd >= 0);
  MUST(::write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size()));
  close(fd);
}

}  // namespace vexo::fuzz
