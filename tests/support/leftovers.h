// Fails a test that leaves the process otherwise than it found it: open descriptors, children,
// signal mask, working directory.
#pragma once

#include <map>
#include <string>

namespace vexo::test {

// Every open descriptor and what it refers to.
std::map<int, std::string> openDescriptors();

// All that a test must leave as it was, as lines of text.
std::string processState();

// Called by the tests' main; compares around every test.
void installLeftoversCheck();

}  // namespace vexo::test
