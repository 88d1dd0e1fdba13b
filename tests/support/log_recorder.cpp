#include "log_recorder.h"

#include <algorithm>
#include <mutex>
#include <sstream>
#include <vector>

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

void record(void*, const host::LogRecord& record) {
  const std::lock_guard lock(mutex);
  lines.push_back({record.level, record.error, record.message});
}

std::string listOf(const std::vector<Line>& all) {
  std::ostringstream text;
  for (const Line& line : all) {
    text << "\n  level " << line.level << ", errno " << line.error << ": " << line.text;
  }
  return text.str();
}

class Strict : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override { forgetLog(); }
  void OnTestEnd(const testing::TestInfo&) override {
    const std::lock_guard lock(mutex);
    std::vector<Line> unexpected;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(unexpected),
                 [](const Line& line) { return line.level <= kWarning; });
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

void forgetLog() {
  const std::lock_guard lock(mutex);
  lines.clear();
}

void installLogRecorder() {
  host::setLogLevel(-1);
  host::setLogSink(record, nullptr);
  testing::UnitTest::GetInstance()->listeners().Append(new Strict);
}

}  // namespace vexo::test
