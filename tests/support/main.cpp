// The main of every test program: the tests run in a private world, under a strict log recorder and
// a check for leftovers.

#include <cstring>
#include <string>

#include <gtest/gtest.h>
#include <unistd.h>

#include "leftovers.h"
#include "log_recorder.h"
#include "private_world.h"

namespace {

bool onlyLists(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--gtest_list_tests") == 0) return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  const auto runTests = [&] {
    setsid();  // a test that signals its process group reaches nobody else
    testing::InitGoogleTest(&argc, argv);
    vexo::test::installLogRecorder();
    vexo::test::installLeftoversCheck();
    return RUN_ALL_TESTS();
  };
  const auto skip = [](const std::string& reason) {
    std::printf("[  SKIPPED ] this machine allows no private world: %s\n", reason.c_str());
    return 0;
  };
  if (onlyLists(argc, argv)) return runTests();
  return vexo::test::runInPrivateWorld({VEXO_SOURCE_DIR, VEXO_BINARY_DIR}, runTests, skip);
}
