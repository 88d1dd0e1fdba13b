#include "vexo_utils/persistence.h"

#include <string>
#include <vector>

#include <sys/reboot.h>

#include "internal/log.h"
#include "vexo/variant/CameraInfo.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {

namespace {

constexpr char kClient[] = "/bin/vexo_ipc_cli";
constexpr char kDestination[] = "-T=vexo_ctlserver";
constexpr char kTimeout[] = "-t=20000";  // ms
constexpr char kWaitForReply[] = "-r=1";
constexpr char kNoReply[] = "-r=0";

}  // namespace

bool enqueueReboot(int delayMs) {
  const std::string request =
      R"(-m={"functionName":"Reboot","delayMs":)" + std::to_string(delayMs) + "}";
  if (sysExecSimple(kClient, kWaitForReply, kDestination, kTimeout, request.c_str()) == 0) {
    return true;
  }
  if (delayMs > 0) sleepMs(static_cast<unsigned long long>(delayMs));
  if (sysExecSimple("/usr/bin/reboot") == 0) return true;
  return reboot(RB_AUTOBOOT) != 0;
}

bool enqueuePersist(bool sync) {
  if (variant::CameraInfo::instance().getBool("feature_ubifscfg")) return true;
  VEXO_LOG_INFO("Enqueued persist");
  const std::string request =
      std::string(R"(-m={"functionName":"SaveToFlash","sync":)") + (sync ? "true" : "false") + "}";
  const std::vector<std::string> arguments{"-z", kDestination, kTimeout, request,
                                           sync ? kWaitForReply : kNoReply};
  return sysExec(nullptr, nullptr, nullptr, 0, 0, 0, kClient, arguments) == 0;
}

}  // namespace vexo::utils
