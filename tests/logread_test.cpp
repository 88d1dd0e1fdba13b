#include "vexo_utils/logread.h"

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include "in_child.h"
#include "log_recorder.h"
#include "log_ring.h"
#include "process_state.h"
#include "wait.h"

namespace vexo::utils {
namespace {

using namespace test;
using Strings = std::vector<std::string>;

Strings messagesOf(Logread& log) {
  Strings all;
  const auto collect = [](const char* message, unsigned int length, void* context) {
    EXPECT_EQ(message[length], '\0');
    static_cast<Strings*>(context)->emplace_back(message, length);
  };
  log.ForEach(collect, &all);
  return all;
}

constexpr char kInvalid[] = "Invalid size or tail of the log ring";
constexpr char kNone[] = "No complete messages";

TEST(Logread, StartsAtTheOldestCompleteMessage) {
  const std::string full(4088, 'x');
  const struct {
    std::string data;
    int32_t size, tail;
    Strings expected;
    const char* error = nullptr;  // of Initialize, where nothing is expected
  } rows[] = {
      {{"one\0two\0\0\0\0\0", 12}, 12, 8, {"one", "two"}},    // new
      {{"three\0ne\0two\0\0", 14}, 14, 6, {"two", "three"}},  // wrapped
      {{"ur\0ne\0two\0fo", 12}, 12, 3, {"two", "four"}},      // split
      {{"\0xx\0a\0four", 10}, 10, 1, {"a", "four"}},          // split before its NUL
      {{"xx\0a\0four\0", 10}, 10, 0, {"a", "four"}},          // its NUL is the last byte
      {{"nd\0one\0rem", 10}, 10, 7, {"one"}},                 // the remains are split
      {{"nd\0rema", 7}, 7, 3, {}, kNone},
      {{"endrema", 7}, 7, 3, {}, kNone},
      {{}, 4088, 0, {}, kNone},
      {full, 4088, 17, {}, kNone},
      {full, 4088, 4088, {}, kInvalid},
      {full, 4088, -8, {}, kInvalid},
      {full, 0, 0, {}, kInvalid},
      {full, -1, 0, {}, kInvalid},
      {full, 4089, 100, {}, kInvalid},
      {{"abcdef\0ghi\0", 11}, 4088, 3, {"ghi"}, "Log message without an end"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.data.substr(0, 12) + ", tail " + std::to_string(row.tail));
    LogRing ring(4088, row.size, row.tail, row.data);
    Logread log;
    EXPECT_EQ(log.Initialize(), !row.expected.empty());
    EXPECT_TRUE(row.expected.empty() || messagesOf(log) == row.expected);
    EXPECT_TRUE(row.error == nullptr || logged(kError, row.error, 0));
    ring.setTail(-1);
    EXPECT_TRUE(row.expected.empty() || refused(log.SeekToTail(), kInvalid, 0));
    EXPECT_EQ(ring.readers(), 0);
  }
}

TEST(Logread, UnlocksAlways) {
  LogRing ring(100, 100, 0);
  for (const char* message : {"one", "two"}) ring.write(message);
  ring.setWriting(true);
  const InterruptingSignal interrupt(SIGUSR1);
  std::thread writer([&, reader = pthread_self()] {
    EXPECT_TRUE(eventually([&] { return ring.waiting() > 0; }));
    pthread_kill(reader, SIGUSR1);
    ring.setWriting(false);
  });
  Logread log;
  EXPECT_TRUE(log.Initialize());  // waits, through the signal
  writer.join();
  const auto refuse = [](const char* message, unsigned, void*) { throw std::logic_error(message); };
  log.ForEachNoLock(nullptr, nullptr);
  EXPECT_TRUE(logged(kError, "No callback for log messages", 0));
  EXPECT_THROW(log.ForEach(refuse, nullptr), std::logic_error);
  EXPECT_EQ(ring.readers(), 0);
  ring.setTail(100);
  EXPECT_EQ(messagesOf(log), Strings());
  EXPECT_TRUE(logged(kError, kInvalid, 0));
  ring.setTail(8);
  EXPECT_EQ(messagesOf(log), Strings{"two"});
}

// What this test logged, without the time, the host and the rest.
Strings textsOf(Logread& log) {
  const std::string before = " user.info tester: ";
  Strings texts;
  for (const std::string& message : messagesOf(log)) {
    const std::size_t found = message.find(before);
    if (found != std::string::npos) texts.push_back(message.substr(found + before.size()));
  }
  return texts;
}

TEST(Logread, DeliversWhatARealLoggerWrote) {
  if (system("busybox true") != 0) GTEST_SKIP() << "no busybox";
  Logread log;
  for (int life = 0; life < 2; ++life) {
    const pid_t logger =
        startChild([] { return execlp("busybox", "syslogd", "-n", "-C4", nullptr); });
    openlog("tester", 0, LOG_USER);
    EXPECT_TRUE(eventually([&] { return log.Initialize(); }));
    forgetLog();  // the tries before it was ready
    Strings written;
    Strings seen;
    const auto allSeen = [&] {
      for (const std::string& text : textsOf(log)) seen.push_back(text);
      return seen.size() >= written.size();
    };
    // The logger writes on while the ring, of 4 KiB, is read: more than 15 times round.
    for (int number = 1; number <= 1200; ++number) {
      written.push_back("number " + std::to_string(number) + "\n");
      syslog(LOG_INFO, "number %d", number);
      EXPECT_TRUE(number % 20 != 0 || eventually(allSeen));
    }
    EXPECT_EQ(seen, written);
    Logread other;
    ASSERT_TRUE(other.Initialize());
    EXPECT_EQ(textsOf(other).back(), written.back());
    syslog(LOG_INFO, "passed over");
    EXPECT_TRUE(eventually([&] { return !textsOf(other).empty(); }));
    EXPECT_TRUE(log.SeekToTail());
    EXPECT_EQ(textsOf(log), Strings());
    closelog();  // its socket goes with the logger
    kill(logger, SIGTERM);
    endOfChild(logger);
  }
  EXPECT_EQ(messagesOf(log), Strings());
  EXPECT_TRUE(logged(kError, "Failed to acquire semaphore"));
  EXPECT_FALSE(log.Initialize());
  EXPECT_TRUE(logged(kError, "Failed to get SHM ID", ENOENT));
}

}  // namespace
}  // namespace vexo::utils
