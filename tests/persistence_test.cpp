#include "vexo_utils/persistence.h"

#include <cstdlib>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "camera.h"
#include "files.h"
#include "log_recorder.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;

constexpr char kClient[] = "/bin/vexo_ipc_cli";

void installClient(const char* record) {
  setenv("VEXO_IPC_RECORD", record, 1);
  fs::create_symlink(VEXO_BINARY_DIR "/platform/host/vexo_ipc_cli", kClient);
}

TEST(Persist, IsTheControlDaemonsJob) {
  installClient("/tmp/saves");
  for (const char* persistent : {"true", "1", "false"}) {
    describeCamera(R"({"feature_ubifscfg":)" + std::string(persistent) + "}");
    EXPECT_TRUE(enqueuePersist(true) && enqueuePersist(false));
  }
  const std::string start = R"(-z -T=vexo_ctlserver -t=20000 -m={"functionName":"SaveToFlash",)";
  EXPECT_EQ(readFile("/tmp/saves"),
            start + "\"sync\":true} -r=1\n" + start + "\"sync\":false} -r=0\n");
  setenv("VEXO_IPC_RECORD", "/tmp/none/record", 1);
  EXPECT_FALSE(enqueuePersist(true));
  fs::remove(kClient);
  EXPECT_FALSE(enqueuePersist(false));
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(logged(kInfo, "Enqueued persist"));
  describeCamera("{}");
  host::setLogLevel(kError);
  EXPECT_EXIT(enqueuePersist(true), testing::KilledBySignal(SIGABRT), "ubifscfg\" not available");
  host::setLogLevel(-1);
}

TEST(Reboot, IsLocalWhenTheControlDaemonDoesNotTakeIt) {
  const std::string program = "/usr/bin/reboot";
  fs::remove(program);  // a link, maybe
  writeFile(program, "#!/bin/sh\necho \"$0:$*\" >>/tmp/calls\n");
  fs::permissions(program, fs::perms::all);
  installClient("/tmp/reboots");
  EXPECT_TRUE(enqueueReboot(5000));
  EXPECT_EQ(readFile("/tmp/reboots"),
            "-r=1 -T=vexo_ctlserver -t=20000 -m={\"functionName\":\"Reboot\",\"delayMs\":5000}\n");
  EXPECT_FALSE(fs::exists("/tmp/calls"));
  EXPECT_TRUE(enqueueReboot(-1));  // is refused; does not wait
  fs::remove(kClient);
  const long long start = nowMs();
  EXPECT_TRUE(enqueueReboot(60));
  EXPECT_GE(nowMs() - start, 60);
  EXPECT_EQ(readFile("/tmp/calls"), "/usr/bin/reboot:\n/usr/bin/reboot:\n");
}

}  // namespace
}  // namespace vexo::utils
