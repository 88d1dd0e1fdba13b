#include "log_recorder.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <sstream>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "vexo/host/log_sink.h"

namespace vexo::test {

namespace {

struct Line {
  int level;
  int error;
  std::string text;
};

std::mutex mutex;
std::vector<Line> lines;  // guarded by mutex
int seenLines = -1;
bool onlyTrouble = false;
bool trouble = false;

void record(void*, const host::LogRecord& record) {
  const std::lock_guard lock(mutex);
  if (seenLines >= 0) dprintf(seenLines, "%s:%d\n", record.file, record.line);
  if (record.level <= kWarning) trouble = true;
  if (onlyTrouble) return;
  lines.push_back({record.level, record.error, record.message});
}

std::string listOf(const std::vector<Line>& all) {
  std::ostringstream text;
  for (const Line& line : all) {
    text << "\n  level " << line.level << ", errno " << line.error << ": " << line.text;
  }
  return text.str();
}

bool isTrouble(const Line& line) {
  return line.level <= kWarning;
}

class Strict : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { forgetLog(); }
  void OnTestEnd(const testing::TestInfo&) override {
    const std::lock_guard lock(mutex);
    std::vector<Line> unexpected;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(unexpected), isTrouble);
    if (!unexpected.empty()) ADD_FAILURE() << "logged unexpectedly:" << listOf(unexpected);
  }
};

}  // namespace

testing::AssertionResult logged(int level, const std::string& text, int error) {
  const std::lock_guard lock(mutex);
  const auto found = std::find_if(lines.begin(), lines.end(), [&](const Line& line) {
    return line.level == level && line.text == text && (error == kAnyErrno || line.error == error);
  });
  if (found == lines.end()) {
    return testing::AssertionFailure() << "not logged: " << text << "; logged:" << listOf(lines);
  }
  lines.erase(found);
  return testing::AssertionSuccess();
}

bool hasTrouble(int error) {
  const std::lock_guard lock(mutex);
  const auto isOther = [](const Line& line) { return isTrouble(line) && line.error != 0; };
  const auto isThis = [&](const Line& line) { return isTrouble(line) && line.error == error; };
  return trouble && (error == kAnyErrno || std::none_of(lines.begin(), lines.end(), isOther) ||
                     std::any_of(lines.begin(), lines.end(), isThis));
}

void recordTroubleOnly() {
  forgetLog();
  onlyTrouble = true;
}

void forgetLog() {
  const std::lock_guard lock(mutex);
  lines.clear();
  trouble = false;
}

void installLogRecorder() {
  const char* file = std::getenv("VEXO_SEEN_LINES");
  // High, so that tests find the numbers free that they expect.
  constexpr int kHigh = 200;
  if (file != nullptr) {
    const int fd = open(file, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    seenLines = fcntl(fd, F_DUPFD_CLOEXEC, kHigh);
    close(fd);
  }
  host::setLogLevel(-1);
  host::setLogSink(record, nullptr);
  testing::UnitTest::GetInstance()->listeners().Append(new Strict);
}

}  // namespace vexo::test
