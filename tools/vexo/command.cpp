#include "command.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <vexo/variant/CameraInfo.h>
#include <vexo_utils/fileutils.h>
#include <vexo_utils/iobuffer.h>
#include <vexo_utils/string_utils.h>

#if __has_include(<vexo/host/log_sink.h>)
#include <vexo/host/log_sink.h>
#endif

namespace {

constexpr unsigned kInputChunk = 64 << 10;  // bytes
constexpr unsigned kMostInput = 64 << 20;

std::string speaker = "vexo";

__attribute__((format(printf, 1, 0))) void complainList(const char* format, va_list arguments) {
  std::fflush(stdout);
  std::fprintf(stderr, "%s: ", speaker.c_str());
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
}

}  // namespace

void speakAs(const std::string& name) {
  speaker = name;
}

void complain(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  complainList(format, arguments);
  va_end(arguments);
}

int failed(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  complainList(format, arguments);
  va_end(arguments);
  return kFailed;
}

int misused(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  complainList(format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "\"%s --help\" tells more\n", speaker.c_str());
  return kMisused;
}

void quietLog() {
#if __has_include(<vexo/host/log_sink.h>)
  vexo::host::setLogLevel(-1);
  const auto tell = [](void*, const vexo::host::LogRecord& record) {
    constexpr int kError = 3;
    if (record.level > kError) return;
    complain("%s%s%s", record.message, record.error != 0 ? ": " : "",
             record.error != 0 ? std::strerror(record.error) : "");
  };
  vexo::host::setLogSink(tell, nullptr);
#endif
}

std::string programOf(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* path = std::getenv("PATH");
  std::vector<std::string> folders;
  vexo::utils::tokenize(path != nullptr ? path : "/bin:/usr/bin", folders, ":", true);
  for (const std::string& folder : folders) {
    std::string program = vexo::utils::format("%s/%s", folder.c_str(), name.c_str());
    if (isFile(program, AT_FDCWD) && access(program.c_str(), X_OK) == 0) return program;
  }
  return "";
}

bool readInput(std::string& text) {
  vexo::utils::IOBuffer buffer("standard input");
  int got = 0;
  do {
    if (!buffer.ReadFromFd(STDIN_FILENO, kInputChunk, got)) return false;
    if (buffer.UnreadSize() > kMostInput) {
      complain("more than 64 MiB");
      return false;
    }
  } while (got > 0);
  text.assign(buffer.Unread(), buffer.Unread() + buffer.UnreadSize());
  return true;
}

bool hasCamera() {
  if (vexo::variant::CameraInfo::instance().HasKey("sysid")) return true;
  complain("no description of a camera here; on a development machine VEXO_CAMERA_INFO names one");
  return false;
}

Progress::Progress() : terminal(isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  erase();
}

void Progress::show(const std::string& text) {
  if (!terminal || !rate.isReady()) return;
  std::fprintf(stderr, "\r\033[K%s", text.c_str());
  shown = true;
}

void Progress::erase() {
  if (shown) std::fputs("\r\033[K", stderr);
  shown = false;
}
