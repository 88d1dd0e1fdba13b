// The bits of SysExec's state, as its header describes them.
#pragma once

namespace vexo::utils::internal {

enum ExecState : int {
  kRunning = 1,
  kEnded = 2,
  kOutOverflow = 4,
  kErrOverflow = 8,
  kFailed = 16,
  kExited = 32,
  kStarting = 64,
};

}  // namespace vexo::utils::internal
