// vexo logread: the messages of the system log.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include <vexo_utils/logread.h>

#include "command.h"
#include "loop.h"

namespace {

using vexo::utils::Logread;

constexpr unsigned kLookMs = 100;

// Not printed before the ring is free again: whoever logs waits for that.
void print(const std::vector<std::string>& messages) {
  for (const std::string& message : messages) {
    std::fputs(message.c_str(), stdout);
    if (message.back() != '\n') std::fputc('\n', stdout);
  }
  std::fflush(stdout);
}

void collect(const char* message, unsigned length, void* context) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(message, length);
}

// False: the logger has ended.
bool printNew(Logread& log) {
  std::vector<std::string> messages;
  if (!log.Lock()) return false;
  log.ForEachNoLock(collect, &messages);
  log.Unlock();
  print(messages);
  return true;
}

int follow(Logread& log) {
  Loop loop;
  bool gone = false;
  const auto look = [&](void*) {
    gone = !printNew(log);
    if (gone) loop.stop();
    return true;
  };
  if (!loop.start() || loop.scheduler.AddTimerTask(0, kLookMs, look, nullptr) == 0 || !loop.run()) {
    return failed("the event loop failed");
  }
  return gone ? failed("the logger has ended") : kDone;
}

int run(int argc, char** argv) {
  bool following = false;
  for (int option = 0; (option = getopt(argc, argv, "f")) != -1;) {
    if (option == '?') return misused("wrong option -%c", optopt);
    following = true;
  }
  if (optind != argc) return misused("too many arguments");
  Logread log;
  if (!log.Initialize()) return failed("no messages: is there a syslogd -C?");
  if (following) return follow(log);
  return printNew(log) ? kDone : failed("the logger has ended");
}

}  // namespace

const Command logreadCommand = {"logread", "print the system log, with -f as it is written",
                                R"(usage: vexo logread [-f]

Prints the messages that the system logger, busybox syslogd -C, holds in its ring.

  -f        goes on with new ones, until Ctrl-C or the logger's end

  vexo logread -f | grep camera
)",
                                run};
