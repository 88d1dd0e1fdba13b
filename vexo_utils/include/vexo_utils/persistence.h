// Requests to the camera's control daemon: to save the configuration, to reboot.
//
// They go through its command-line client, /bin/vexo_ipc_cli, to "vexo_ctlserver".
//
// Threads:   any. Both block while the client runs, which gives the daemon 20 s to answer.
// Failure:   as each says; a client that cannot be started or is killed is logged as sysExec says
//            (exec.h).
#pragma once

#include <vexo_utils/export.h>

namespace vexo::utils {

// Has the camera rebooted in `delayMs`. When the control daemon does not take the request, this
// waits for the delay itself (none when negative, less after a signal and above 4294967 ms, see
// sleepMs in timer.h), runs /usr/bin/reboot and, if that fails too, has the kernel reboot at once,
// without syncing disks. True whenever it returns, which then tells nothing.
VEXO_UTILS_API bool enqueueReboot(int delayMs);

// Has the configuration saved to flash; `sync`: returns only when the daemon has answered. True at
// once on a camera whose configuration is on a file system that persists by itself
// ("feature_ubifscfg" in its description). Else logs "Enqueued persist" at info level; false when
// the client does not report success.
// Ends the process by forceCrash when the description lacks that flag, see CameraInfo::getBool.
VEXO_UTILS_API bool enqueuePersist(bool sync);

}  // namespace vexo::utils
