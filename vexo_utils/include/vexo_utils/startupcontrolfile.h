// StartupControlFile: a file of one byte by which a daemon, the owner, tells others, the tenants,
// how far its start has come.
//
// States:    one byte each; which there are and what they mean is the daemons' agreement. They
//            should be printable, as the log shows them as characters.
// Waiting:   all waits look every 100 ms, without a limit of their own; a signal does not end them.
// Threads:   one object belongs to one thread. After fork(2) both processes may use theirs.
// Ownership: owns its descriptor, which is close-on-exec.
// Failure:   -1 with errno. Only what is named below is logged.
// Hazard:    nobody must delete the file: tenants that have it open wait for what nobody writes.
#pragma once

#include <string>

#include <vexo_utils/export.h>

namespace vexo::utils {

// Any byte.
enum startup_control_file_state_t : unsigned char {};

class VEXO_UTILS_API StartupControlFile {
 public:
  // Opens nothing. The owner is the one that creates and writes the file.
  StartupControlFile(const std::string& path, bool owner);
  StartupControlFile(const StartupControlFile&) = delete;
  StartupControlFile& operator=(const StartupControlFile&) = delete;
  // As Close.
  ~StartupControlFile();

  // InitOwner or InitTenant, as the constructor was told; 0 at once when the file is open.
  int Init();

  // Creates the file (mode 0666, less the umask) or empties it: tenants wait until the first Set.
  int InitOwner();

  // Opens the file, once there is one and it has a state.
  int InitTenant();

  // When it returns 0, the state is on the disk and survives a power cut. EBADF: not open.
  int Set(startup_control_file_state_t state);

  // The state of now; waits while the file is empty. `state` is untouched on failure. EBADF: not
  // open.
  int Get(startup_control_file_state_t& state);

  // Waits until the state is `target`. `cancelled` is asked before each look at the file and ends
  // the wait by true: -1, EINTR. A null one never cancels; what it throws passes through.
  // A state that comes and goes within 100 ms may be missed.
  // Info: "Wait for target state 0xHEX (CHARACTER)... ", "Target state 0xHEX (CHARACTER) entered".
  int AwaitState(startup_control_file_state_t target, bool (*cancelled)());

  // Asks the daemon of this name (a name as in process.h) to end by SIGTERM, and waits until
  // another process of the name runs, which somebody else has to start; when none runs, for the
  // first one. `cancelled` is as in AwaitState, and asked after the SIGTERM was sent.
  //
  // After `forceAfterSeconds`, counted by looks of 100 ms, the daemon is killed by SIGKILL, once;
  // 0: never. That goes to the process id found at first, without another look. When there was
  // none, it is 0, and kill(0, SIGKILL) KILLS THE CALLER and its whole process group: give 0 unless
  // the daemon is known to run.
  //
  // -1 when the search fails, and with ERANGE whenever several processes have the name: also when
  // the new one starts before the old one is gone, or when the daemon forks.
  // Info: "Gracefully shutdown `NAME` with PID N", "Force shutdown `NAME` with PID N"; the same
  // with " might have failed." as a warning when the signal could not be sent.
  static int AwaitProcRestart(const std::string& processName, bool (*cancelled)(),
                              unsigned int forceAfterSeconds);

  // The file stays, with its state. Init may follow.
  void Close();

 private:
  std::string path;
  bool owner;
  int descriptor = -1;
};

}  // namespace vexo::utils
