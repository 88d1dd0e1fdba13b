// Where a program of the development machine takes the log lines of this process from.
//
// Lines go to standard error as "seconds level module file:line function: text (errno: its text)"
// with seconds of the monotonic clock, down to the level that the environment variable
// VEXO_LOG_LEVEL names (a number; 6 = info without it). A sink sees every line, whatever its level.
#pragma once

namespace vexo::host {

// One log line; the texts are valid during the call only.
struct LogRecord {
  const char* module;
  const char* file;
  const char* function;
  int line;
  int level;
  int error;
  const char* message;
};

using LogSink = void (*)(void* ctx, const LogRecord& record);

// Hands every later line to `sink` too (null: to nobody). Called on the thread that logs; it may be
// called by several at once. Set it while no other thread logs.
void setLogSink(LogSink sink, void* ctx);

// Lines above `level` no longer go to standard error; -1 silences it.
void setLogLevel(int level);

}  // namespace vexo::host
