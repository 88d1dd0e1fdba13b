#include "fault_sweep.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <new>
#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "fault_shim.h"
#include "files.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "wait.h"

namespace vexo::test {

namespace {

namespace fs = std::filesystem;

constexpr long kMaxPoints = 5000;     // a scenario with more does not come to an end
constexpr unsigned kMaxSeconds = 30;  // for one of them

class Window {
 public:
  Window() { openWindow(); }
  ~Window() { closeWindow(); }
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;
};

bool inWindow(const std::function<bool()>& part) {
  const Window window;
  return part();
}

int failures() {
  return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// What is the same after each point.
std::string lasting() {
  std::set<std::string> files;
  for (const auto& entry : fs::directory_iterator("/tmp")) files.insert(entry.path());
  std::ostringstream text;
  text << processState() << "mappings: " << mappings() << "\nfiles:";
  for (const std::string& file : files) text << ' ' << file;
  return text.str();
}

void makeFolder() {
  fs::remove_all(kSweepFolder);
  fs::create_directory(kSweepFolder);
  writeFile(std::string(kSweepFolder) + "/a", "text");
}

// One run; false: that there was no fault to meet.
bool tryCall(const Scenario& scenario) {
  makeFolder();
  forgetLog();
  const std::string before = lasting();
  bool done = false;
  bool crashed = false;
  alarm(kMaxSeconds);
  try {
    done = scenario.run(inWindow);
  } catch (const ForcedCrash&) {
    crashed = true;
  }
  alarm(0);
  const Fault fault = metFault();
  if (fault.call == nullptr) {
    EXPECT_TRUE(done) << "without a fault";
    return false;
  }
  const auto is = [&](unsigned trait) { return (scenario.traits & trait) != 0; };
  const bool tellsErrno = fault.isErrno && !is(kOthersCalls);
  EXPECT_TRUE(!crashed || is(kMayCrash)) << "crashed";
  EXPECT_TRUE(done || is(kSilent) || hasTrouble(tellsErrno ? fault.error : kAnyErrno)) << "no word";
  const bool isClose = std::strcmp(fault.call, "close") == 0;  // done even then
  EXPECT_TRUE(done || fault.error != EINTR || isClose || is(kEndsOnEintr | kOthersCalls))
      << "by a signal";
  // Who is told that there is no such child leaves it to itself.
  const auto isAsBefore = [&] {
    waitid(P_ALL, 0, nullptr, WEXITED | WNOHANG);
    return before == lasting();
  };
  const bool isLate = std::strcmp(fault.call, "waitpid") == 0 && eventually(isAsBefore);
  EXPECT_TRUE(isLate || before == lasting()) << "left behind:\n"
                                             << before << "\nis now\n"
                                             << lasting();
  return true;
}

struct Tally {
  long points = 0;
  long survived = 0;
};

void report(const std::string& facility, const char* kind, const Tally& tally) {
  forgetLog();
  fs::remove_all(kSweepFolder);
  std::printf("fault points: %s %s %ld %ld\n", facility.c_str(), kind, tally.points,
              tally.survived);
}

void sweepCallsOf(const Scenario& scenario, Tally& tally) {
  for (long nth = 1; nth < kMaxPoints; ++nth) {
    for (int variant = 0;; ++variant) {
      const int before = failures();
      planFault(nth, variant);
      const bool met = tryCall(scenario);
      const Fault fault = metFault();
      if (failures() != before) {
        ADD_FAILURE() << scenario.facility << ", " << scenario.name << ": call " << nth << ", "
                      << (met ? fault.call : "none") << ": " << strerrorname_np(fault.error)
                      << (fault.again ? " again and again" : "");
      }
      if (!met) return;
      ++tally.points;
      if (failures() == before) ++tally.survived;
      if (fault.isLast) break;
    }
  }
  ADD_FAILURE() << scenario.name << " does not end";
}

// ---- allocations ----

constexpr int kUncaught = 70;

int runWithoutMemory(const Scenario& scenario) {
  recordTroubleOnly();
  std::set_terminate([] { _exit(kUncaught); });
  alarm(kMaxSeconds);
  const int before = failures();
  try {
    const bool done = scenario.run(inWindow);
    EXPECT_TRUE(done || hasTrouble(ENOMEM) || (scenario.traits & kSilent) != 0)
        << "failed silently";
  } catch (const std::bad_alloc&) {  // thrown on to the caller
  } catch (const ForcedCrash&) {
  }
  return failures() == before ? 0 : 1;
}

// The end of a child, without waitpid, which is one of the calls that fail.
bool endsWell(pid_t child) {
  siginfo_t end{};
  while (waitid(P_PID, static_cast<id_t>(child), &end, WEXITED) != 0 && errno == EINTR) {
  }
  return end.si_code == CLD_EXITED && (end.si_status == 0 || end.si_status == kUncaught);
}

void sweepAllocationsOf(const Scenario& scenario, Tally& tally) {
  for (long nth = 1; nth < kMaxPoints; ++nth) {
    makeFolder();
    planNoMemory(nth);
    const pid_t child = fork();
    if (child == 0) _exit(runWithoutMemory(scenario));
    const bool survived = endsWell(child);
    if (!metNoMemory()) return;
    ++tally.points;
    if (survived) ++tally.survived;
    EXPECT_TRUE(survived) << scenario.facility << ", " << scenario.name << ": allocation " << nth;
  }
  ADD_FAILURE() << scenario.name << " does not end";
}

}  // namespace

void sweepCalls(const std::vector<Scenario>& all, const std::string& facility) {
  Tally tally;
  for (const Scenario& scenario : all) {
    if (scenario.facility == facility) sweepCallsOf(scenario, tally);
  }
  report(facility, "calls", tally);
}

void sweepAllocations(const std::vector<Scenario>& all, const std::string& facility) {
  Tally tally;
  for (const Scenario& scenario : all) {
    if (scenario.facility == facility && (scenario.traits & kCallsOnly) == 0) {
      sweepAllocationsOf(scenario, tally);
    }
  }
  report(facility, "allocations", tally);
}

}  // namespace vexo::test
