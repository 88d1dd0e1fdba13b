// Runs a scenario again and again, each time with another call of the C library failing, until a
// run meets no fault: every path of failure is taken once for each error, with no list of them.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vexo::test {

// Runs the part of a scenario in which calls may fail, and returns its result. The part calls the
// library, and nothing that it could not do without.
using During = std::function<bool(const std::function<bool()>& part)>;

enum Traits : unsigned {
  kSilent = 1,       // it may fail without a line in the log
  kMayCrash = 2,     // it may end by forceCrash
  kEndsOnEintr = 4,  // a signal may make it fail
  kOthersCalls = 8,  // and so may calls of other libraries, whose errno is not passed on
  kCallsOnly = 16    // no sweep over allocations
};

// Sets all up that it needs and takes it down. Its result: whether all that was asked for is said
// to be done. Checks itself that this is so or, where that is promised, that nothing was changed.
// It finds the folder kSweepFolder with a file "a", which holds "text".
struct Scenario {
  const char* facility;
  const char* name;
  unsigned traits;
  std::function<bool(const During& during)> run;
};

constexpr char kSweepFolder[] = "/tmp/sweep";

// Survived: with the promised result, a line in the log if it is a failure, no crash, and
// descriptors, children, mappings, signal mask, working directory and the files of /tmp as before.
// All others are reported as failures of the test, by call, error and number.
void sweepCalls(const std::vector<Scenario>& all, const std::string& facility);

// The same for allocations, each in a child of its own: it must go on, or end by forceCrash or by
// an exception that nobody catches. What it leaves open does not count then.
void sweepAllocations(const std::vector<Scenario>& all, const std::string& facility);

}  // namespace vexo::test
