// Processes by number and by name: whether they live, their ids, signals for them; random bytes.
//
// Names:     a name is that of a program as it was started, without the folders: "foo" is what was
//            started as foo, ./foo or /usr/bin/foo, not foobar. It stands for the program's place
//            in an extended regular expression, ^(.*/)*NAME$, and special characters have their
//            meaning there, see regex(7): "a.c" finds abc too, and "a|b" finds whatever ends in b.
//            Names that come from elsewhere need \ before these. Kernel threads, processes that
//            have ended and were not waited for, and those in the middle of execve(2) have an empty
//            command line: only a name that matches the empty text, such as "", finds them.
// Threads:   all functions may be called from any thread.
// Time:      what is found may have ended since, and its id may belong to another process.
// Failure:   as each says; logged once at error level, with errno where a call failed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <vexo_utils/export.h>

namespace vexo::utils {

// Tells processes of one name apart. `commandLine` always has a first element, the program: "" for
// a process without a command line.
using CommandLineFilter = std::function<bool(const std::vector<std::string>& commandLine)>;

// ---- life ----

// True while the process exists, whoever owns it, also when it has ended and was not waited for.
// False for an id below 1.
VEXO_UTILS_API bool is_process_alive(int pid);

// True when at least one process that pidof finds with the same arguments is alive. False also when
// the search failed.
VEXO_UTILS_API bool is_process_alive(const std::string& name);
VEXO_UTILS_API bool is_process_alive(const std::string& name, const std::vector<int>& leftOut);
VEXO_UTILS_API bool is_process_alive(const std::string& name, const CommandLineFilter& filter);

// ---- ids ----

// Writes the id of this process and a line feed to /var/run/NAME.pid, which it makes (mode 0644,
// less the umask) or replaces.
// False: "Unable to write pid file `PATH`"; the file may then be there and be empty.
VEXO_UTILS_API bool store_pid(const std::string& name);

// Replaces `pids` by the processes of this name: all of them, the caller included; all but those in
// `leftOut`; those for which `filter` is true (an empty one is true for all). True also when there
// are none. Processes that come and go meanwhile may be among them or not.
// False, with `pids` empty and errno set: "Failed to compile regex" (EINVAL), "Unable to open
// `/proc/`", "Unable to read `/proc/`", "Unable to read `/proc/PID/cmdline`" (such as EMFILE, not
// that the process is gone).
VEXO_UTILS_API bool pidof(const std::string& name, std::vector<int>& pids);
VEXO_UTILS_API bool pidof(const std::string& name, std::vector<int>& pids,
                          const std::vector<int>& leftOut);
VEXO_UTILS_API bool pidof(const std::string& name, std::vector<int>& pids,
                          const CommandLineFilter& filter);

// The id of the one process of this name. -1 with errno: ESRCH when there is none, ERANGE when
// there are several, another when the search failed as in pidof.
VEXO_UTILS_API int single_pidof(const std::string& name);

// ---- signals ----
//
// Both wait for the program that sends them, and log "signals N to TARGETS" at info level. Signal 0
// only asks whether the target is there. False when the program does not return 0, and for a number
// that is no signal: "Invalid signal N".

// By /bin/kill, to all of `pids`; an empty list is true without further ado. The ids have the
// meanings of kill(2): 0 is the process group of /bin/kill, which is the caller's, -1 is every
// process but init, -N is the process group N (some versions of the program report failure for the
// negative ones although they sent the signal).
VEXO_UTILS_API bool kill_process_by_pids(const std::vector<int>& pids, int signal);

// By /bin/pkill, to every process whose kernel name, the first 15 bytes of the program file's name,
// contains a match of the regular expression `name`. This is wider than pidof: "foo" reaches foobar
// too, and an empty name everyone, the caller included.
VEXO_UTILS_API bool kill_process_by_name(const std::string& name, int signal);

// ---- random ----

// Fills `buf` with `n` bytes from /dev/urandom. False, without a word in the log, when `buf` is
// null, `n` is 0, or the device cannot be opened or read; `buf` then has no meaning.
VEXO_UTILS_API bool randomBytes(unsigned char* buf, unsigned int n);

// Replaces `out` by `length` characters out of 0-9, A-Z and a-z, each as likely as the others; fit
// for passwords. False as randomBytes, with `out` as it was.
VEXO_UTILS_API bool randomAlphaNumericString(std::string& out, unsigned int length);

}  // namespace vexo::utils
