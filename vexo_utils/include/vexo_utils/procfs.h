// What /proc tells about this process, the others and the kernel, see proc(5).
//
// Threads:   all functions may be called from any thread.
// Failure:   as each says; logged once at error level, with errno where a call failed.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <vexo_utils/export.h>

// Finds processes by name, which means what it means to vexo::utils::pidof in process.h, and puts
// the ids of at most `max` of them into `pids`. Returns how many were put there: 0 also when `pids`
// is null or `max` is not positive. -1 when the search failed.
VEXO_UTILS_API int getPidsByName(const std::string& name, int* pids, int max);

// Reads a file that does not tell its size, up to its end or up to `maxSize` bytes; -1 is no limit.
// `out` is replaced. `path` must not be null.
// False: "Invalid maxSize parameter" (it is 0; `out` is as it was), "Unable to open file `PATH`"
// (`out` is empty), "Unable to read N bytes from `PATH`" (`out` has what came before).
VEXO_UTILS_API bool ReadProcFile(const char* path, std::string& out, unsigned int maxSize);

// The command line that this process was started with. `args` is replaced and does not have `exe`.
// False as ReadProcFile; both are then as they were.
VEXO_UTILS_API bool ReadCommandLine(std::string& exe, std::vector<std::string>& args);

// The kernel's command line, "KEY=VALUE KEY=VALUE ...". Only its first 1024 bytes are read, so that
// its last word may be cut there. A word without "=" has an empty value; a key that comes more than
// once has its last value; quotes have no meaning. `params` is replaced.
// False as ReadProcFile; `params` is then as it was.
VEXO_UTILS_API bool ReadKernelCommandLine(std::map<std::string, std::string>& params);

// True when the kernel command line has console=ttyS0, exactly: ttyS0,115200 is not it.
VEXO_UTILS_API bool ConsoleEnabled();

// The number that the kernel command line has for VEXO_runmode: decimal, read as strtoul(3) does,
// so that what is no number is 0, and cut to the width of an int. False, with `mode` as it was,
// when the key is not there.
VEXO_UTILS_API bool GetRunMode(int& mode);

// The absolute path of the program that this process runs, with the symbolic links resolved, and
// the folder that it lies in. When the program's file was removed or replaced since, as by an
// update, the path ends in " (deleted)".
// False: "Unable to read link `/proc/self/exe`"; the argument is then as it was.
VEXO_UTILS_API bool getModulePath(std::string& path);
VEXO_UTILS_API bool getModuleDir(std::string& folder);
