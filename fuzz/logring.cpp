// The log ring: any header and any contents, then a logger that goes on writing, then any header.

#include <vector>

#include "fuzz.h"
#include "log_ring.h"
#include "vexo_utils/logread.h"

namespace {

using vexo::utils::Logread;
using Strings = std::vector<std::string>;

constexpr int32_t kSpace = 248;
constexpr char kOutside = '\xEE';  // in no message

Strings messagesOf(Logread& log) {
  Strings all;
  const auto collect = [](const char* message, unsigned int length, void* context) {
    MUST(length > 0 && message[length] == '\0');
    static_cast<Strings*>(context)->emplace_back(message, length);
    MUST(static_cast<Strings*>(context)->back().find(kOutside) == std::string::npos);
  };
  log.ForEach(collect, &all);
  std::size_t bytes = 0;
  for (const std::string& message : all) bytes += message.size() + 1;
  MUST(bytes <= kSpace);
  return all;
}

// The whole messages of a text; what is behind the last NUL is none.
Strings messagesIn(const std::string& text) {
  Strings all;
  std::string message;
  for (const char byte : text) {
    if (byte != '\0') {
      message += byte;
    } else if (!message.empty()) {
      all.push_back(message);
      message.clear();
    }
  }
  return all;
}

}  // namespace

FUZZ_TARGET(logring) {
  // Mostly near what is true, so that not all is refused.
  const auto aSize = [&] { return static_cast<int32_t>(input.number(2)) - 16; };
  const int32_t size = aSize();
  const int32_t tail = size > 0 && input.byte() < 250 ? aSize() % size : aSize();
  const bool isTrue = size > 0 && size <= kSpace && tail >= 0 && tail < size;
  std::string data = input.part();
  data.resize(isTrue ? static_cast<std::size_t>(size) : 0);
  for (char& byte : data) byte = byte == kOutside ? '\0' : byte;
  std::string space = data;
  space.resize(kSpace, kOutside);
  vexo::test::LogRing ring(kSpace, size, tail, space);

  // From the oldest byte on, the end of a message, then whole ones.
  std::string inOrder;
  std::string whole;
  if (isTrue) {
    inOrder = data.substr(static_cast<std::size_t>(tail)) +
              data.substr(0, static_cast<std::size_t>(tail));
    const std::size_t end = inOrder.find('\0');
    if (end != std::string::npos) whole = inOrder.substr(end);
  }
  Logread log;
  const bool any = whole.find_first_not_of('\0') != std::string::npos;
  MUST(log.Initialize() == any && vexo::fuzz::errors() == (any ? 0 : 1));
  MUST(ring.readers() == 0);
  if (!any) return;
  MUST(messagesOf(log) == messagesIn(whole));
  // What has no end there is taken for a piece that goes on at the beginning.
  const bool ended = whole.back() == '\0' || tail == 0;
  MUST(vexo::fuzz::errors() == (ended ? 0 : 1));
  MUST(messagesOf(log).empty());

  Strings written;
  std::size_t bytes = 0;
  for (;;) {
    std::string message = input.part();
    for (char& byte : message) byte = byte == kOutside || byte == '\0' ? ' ' : byte;
    bytes += message.size() + 1;
    if (input.empty() || bytes >= data.size()) break;
    ring.write(message);
    if (!message.empty()) written.push_back(message);
  }
  MUST(messagesOf(log) == written && vexo::fuzz::errors() == (ended ? 0 : 1));

  ring.setTail(aSize());
  messagesOf(log);
  messagesOf(log);
  log.SeekToTail();
  MUST(messagesOf(log).empty() && ring.readers() == 0);
}
