// A protocol of lines over a socket, on the event loop: requests arrive in pieces that do not end
// where lines do, and are answered one by one.

#include <cstdio>
#include <cstring>
#include <string>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <vexo_utils/iobuffer.h>
#include <vexo_utils/scheduler.h>
#include <vexo_utils/string_utils.h>

namespace {

using vexo::utils::IOBuffer;

constexpr unsigned kChunk = 4096;

// Takes the next complete line out of the buffer.
bool takeLine(IOBuffer& buffer, std::string& line) {
  const unsigned char* const begin = buffer.Unread();
  const unsigned size = buffer.UnreadSize();
  const void* const end = size > 0 ? std::memchr(begin, '\n', size) : nullptr;
  if (end == nullptr) return false;
  line.assign(begin, static_cast<const unsigned char*>(end));
  return buffer.Ignore(static_cast<unsigned>(line.size()) + 1);
}

void append(IOBuffer& buffer, const std::string& text) {
  buffer.ReadFromBuffer(reinterpret_cast<const unsigned char*>(text.data()),
                        static_cast<unsigned>(text.size()));
}

}  // namespace

int main() {
  int ends[2];
  vexo::utils::Scheduler scheduler;
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 || !scheduler.Init()) return 1;

  IOBuffer requests("requests");
  IOBuffer answers("answers");
  bool closed = false;
  bool healthy = true;
  const auto serve = [&](int fd, void*) {
    int got = 0;
    int sent = 0;
    healthy = requests.ReadFromTCPFd(fd, kChunk, got);
    closed = got <= 0;
    for (std::string line; takeLine(requests, line);) {
      append(answers, vexo::utils::upperCase(line) + "\n");
    }
    while (healthy && answers.UnreadSize() > 0) healthy = answers.WriteToFd(fd, kChunk, sent);
    return healthy;
  };
  if (scheduler.AddIOTask(ends[0], EPOLLIN, serve, nullptr) == 0) return 1;

  for (const std::string piece : {"hel", "lo\nwho are", " you\nunfinished"}) {
    if (write(ends[1], piece.data(), piece.size()) < 0 || !scheduler.Service(-1)) return 1;
  }
  shutdown(ends[1], SHUT_WR);
  while (healthy && !closed) healthy = scheduler.Service(-1) && healthy;

  char text[64] = {};
  if (read(ends[1], text, sizeof text - 1) < 0) return 1;
  std::printf("%s%u bytes were left without an end\n", text, requests.UnreadSize());
  scheduler.Stop();
  close(ends[0]);
  close(ends[1]);
  return healthy ? 0 : 1;
}
