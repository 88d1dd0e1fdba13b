// Reads what the library logs. The recorder is strict: a test that leaves a recorded error or
// warning unexpected fails.
#pragma once

#include <string>

#include <gtest/gtest.h>

namespace vexo::test {

constexpr int kError = 3;
constexpr int kWarning = 4;
constexpr int kInfo = 6;
constexpr int kDebug = 7;
constexpr int kAnyErrno = -1;

// True when a line of this level, text and errno was logged in this test and not yet asked for; it
// then counts as expected. Lines are asked for in any order.
testing::AssertionResult logged(int level, const std::string& text, int error = kAnyErrno);

// For a call that is to fail: true when `done`, its result, is false and it logged this error.
inline testing::AssertionResult refused(bool done, const std::string& text, int error = kAnyErrno) {
  if (done) return testing::AssertionFailure() << "it was done";
  return logged(kError, text, error);
}

// Whether errors or warnings were recorded that are not asked for yet; of those with an errno one
// must have this.
bool hasTrouble(int error);

// For where there is no memory: from here on, of all lines only whether there were errors or
// warnings is recorded.
void recordTroubleOnly();

// Takes back all that was recorded in this test.
void forgetLog();

// Called by the tests' main. The environment variable VEXO_SEEN_LINES names a file to which every
// place that logs is added, as "FILE:LINE".
void installLogRecorder();

}  // namespace vexo::test
