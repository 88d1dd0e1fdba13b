// Makes the calls of the C library fail that the library under test makes, one at a time.
//
// Linked into a program, the shim stands in for those calls in all of the process. It counts and
// fails them between openWindow and closeWindow only, in children of the process too; everywhere
// else they are what they always are. One window at a time, and no other thread may make such calls
// meanwhile.
#pragma once

#include <functional>
#include <set>
#include <string>

namespace vexo::test {

struct Fault {
  const char* call;  // null: none was met, as there were not that many calls
  int error;
  bool isErrno;  // else it is what the call returns
  bool again;    // EINTR many times in a row
  bool isLast;   // the call gives no further errors
};

// From here on windows fail the `nth` of the calls in them, counted from 1 through all windows, by
// the `variant`th (from 0) of the errors that its manual page gives; calls that a signal may
// interrupt have a last variant, which is EINTR at that call and the next 20 of its kind.
void planFault(long nth, int variant);
// Likewise fails the `nth` allocation.
void planNoMemory(long nth);
Fault metFault();
bool metNoMemory();

// False where the sanitizers have their own malloc.
extern const bool kFailsAllocations;

void openWindow();
void closeWindow();

// Thrown by forceCrash in programs that are linked with the shim.
struct ForcedCrash {};

// Runs `fn`, once, just before the `nth` call from now on of that name (a trailing "64" is left
// out). The calls that `fn` makes are neither counted nor failed; it may ask for the next run. An
// earlier one that has not come is forgotten.
void beforeCall(const std::string& name, long nth, std::function<void()> fn);

// What was mapped and is not unmapped yet, by calls that the shim stands in for.
int mappings();

// The names of the calls.
std::set<std::string> shimmedCalls();

}  // namespace vexo::test
