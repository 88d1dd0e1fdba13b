// The platform's log and its deliberate crash.
//
// Threads:  any. errno is left as it was found.
// Failure:  none is reported; a line that cannot be written is lost.
#pragma once

// Writes one line to the system's log.
//   module    who speaks, such as "vexo_utils"
//   level     3 error, 4 warning, 6 info, 7 debug
//   error     the errno value behind the message, 0 for none
//   flags     0; reserved by the platform
//   format    printf(3) format of the message, without a line feed
extern "C" void logInternal(const char* module, const char* file, const char* function, int line,
                            int level, int error, unsigned flags, const char* format, ...)
    __attribute__((format(printf, 8, 9)));

// Ends the process the way a fatal fault does, so that a crash dump is taken. For states that must
// never occur.
[[noreturn]] void forceCrash();
