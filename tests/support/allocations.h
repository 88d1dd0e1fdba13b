// Counts what is allocated with operator new. For the test programs that are linked with it.
#pragma once

namespace vexo::test {

long allocations();

}  // namespace vexo::test
