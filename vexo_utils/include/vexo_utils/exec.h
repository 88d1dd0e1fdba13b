// SysExec and the command helpers: run other programs, directly and without a shell.
//
// SysExec is one program under an owner who drives it step by step. The helpers below wrap it: run
// to completion in one call, run a shell's command line, start a daemon.
//
// Threads:   a SysExec belongs to one thread; helpers may be called from any. Other threads may
//            fork, execute and hold any lock meanwhile.
// The child: gets the caller's environment and exactly three streams: those asked for, /dev/null in
//            the place of the others. Descriptors 3 to 255 are closed; above that, those of the
//            caller that are not close-on-exec reach it (the library's own all are).
// Signals:   SIGCHLD must not be ignored, or the kernel throws the child's status away: service
//            then fails with code 100, a daemon's start with code 50. A child that closes its
//            standard input does not raise SIGPIPE in the caller.
// Failure:   false and a code, see SysExec; helpers log.
#pragma once

#include <string>
#include <vector>

#include <signal.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

// Configure, start, then call service until getState() is not 1, then stop:
//
//   SysExec runner;
//   runner.setExe("/usr/bin/sort").pushArg("-n").setIn(numbers).setOut(&sorted);
//   if (!runner.start()) ...
//   while (runner.getState() == 1 && runner.service()) runner.waitReady(1000);
//   ... runner.getStatus() ...; runner.stop();
//
// States, a sum of bits: 1 running, 2 ended, 4 and 8 too much standard output and standard error,
// 16 failed, 32 exited, 64 starting. Seen from outside: 0 never started, 1 running, 34 exited (its
// status is getStatus()), 18 failed, 6 and 10 ended by a threshold, 82 not started.
//
// Codes of failures. start: 10 started before, 20 no program named, 30 out of memory, 40 no pipe or
// no child (errno tells), 50 no word of a daemon's intermediate child, 60 that child failed, 70 the
// daemon's pid did not arrive, 80 a pipe would not become non-blocking. service: 90 not running,
// 100 killed by a signal or not to be waited for, 110 standard input (EPIPE: the child has closed
// it), 120 a threshold, 130 reading the child's output, 140 writing it to the caller's descriptor.
//
// Exit codes of a child that did not come to run the program: 121 execve(2) failed, so also when
// there is no such program; 122, 123, 124 no standard error, output, input; 125 no /dev/null.
class VEXO_UTILS_API SysExec {
 public:
  SysExec();
  SysExec(const SysExec&) = delete;
  SysExec& operator=(const SysExec&) = delete;
  // As stop.
  virtual ~SysExec();

  // ---- configuration ----
  //
  // Before the first start, or after a stop. At any other time a setter changes nothing and logs
  // the error "Setter applicable only to never serviced instance".

  // A label for messages. The one setting that stop keeps.
  SysExec& setName(const std::string& label);
  // The program's path, as execve(2) takes it: PATH is not searched.
  SysExec& setExe(const std::string& path);
  // The arguments after the program's name: all of them, or one more.
  SysExec& setArgs(std::vector<std::string> arguments);
  SysExec& pushArg(const std::string& argument);
  // What the child reads from its standard input, to its end.
  SysExec& setIn(const std::string& data);
  // Where its standard output goes: appended to the caller's vector (null: thrown away), or written
  // to the caller's descriptor, which is never closed. Either is used until stop or the destructor,
  // which still takes what has been written: it must live as long. With both, the vector.
  SysExec& setOut(std::vector<char>* target);
  SysExec& setOut(int fd);
  // Standard error, likewise.
  SysExec& setErr(std::vector<char>* target);
  // The largest number of bytes that is taken of a stream; 0, the default: any.
  SysExec& setOutThreshold(unsigned int bytes);
  SysExec& setErrThreshold(unsigned int bytes);
  // Whether reaching the threshold is a failure (code 120; the default), or what is beyond it is
  // read and thrown away.
  SysExec& setOutOverflowStop(bool stop);
  SysExec& setErrOverflowStop(bool stop);
  // The child's signal mask (copied); null, the default: the caller's.
  SysExec& setMaskSignals(const sigset_t* set);
  // Whether start makes a daemon: in a session of its own, no child of this process, neither waited
  // for nor killed by stop.
  SysExec& setDaemon(bool detached);

  // ---- running ----

  // Starts the program. On failure nothing is left open or running; stop makes the object usable
  // again. Waits until the child executes the program, a daemon's intermediate child has ended.
  bool start();

  // One step that never waits for the child: hands it up to 16384 bytes of input, takes up to 16384
  // bytes of each output, looks whether it has ended. (Writing to a descriptor of setOut waits as
  // that descriptor does; a non-blocking one is waited for.)
  bool service();

  // Waits until the next service has something to do: output, room for input, or the child's end;
  // `timeoutMs` at most, 10 ms where the kernel cannot tell of a child's end (before Linux 5.3) or
  // no descriptor is left. Returns at once when nothing runs.
  void waitReady(unsigned int timeoutMs);

  // Waits up to `timeoutMs` (0: only looks) for the child's end and collects it. Results, each of
  // which may be null: `timedOut` it still runs, `exited` and `signalled` how it ended, `status` as
  // waitpid(2) gives it.
  // False: there is no child (the results are untouched then), or waitpid failed (errno).
  bool waitPid(unsigned int timeoutMs, bool* timedOut, bool* exited, bool* signalled, int* status);

  // Ends the child: after 10 ms of grace by SIGKILL, with no gentler signal before. Takes what it
  // has written (waiting at most 100 ms for others that hold its streams open, then the warning
  // "Timeout reading from stopped process pipes, name '...'"), closes everything and sets all but
  // the name back to the defaults. Read code and status before. The warning "Failed to wait for
  // pid=..." tells of a child that could not be waited for.
  void stop();

  // ---- what its owner wants to know ----

  int getState() const { return state; }
  int getCode() const { return code; }
  // As waitpid(2) gives it, once the state is 34.
  int getStatus() const { return status; }
  // Program and arguments, joined by blanks, for messages; from start to stop.
  const std::string& getCmd() const { return cmd; }
  // The child's, or the daemon's; -1 when there is none.
  int getPid() const { return pid; }

 private:
  struct Output;
  struct Capture;

  // The helpers' run to completion.
  friend int sysExec(const std::string*, std::string*, std::string*, unsigned int, unsigned int,
                     unsigned int, const std::string&, const std::vector<std::string>&);
  int universalExec(const std::string* input, Capture out, Capture err, unsigned int timeoutMs);
  bool readMuch();

  bool isConfigurable() const;
  bool fail(int failureCode, int failedState);
  bool buildArguments();
  bool openPipe(int (&ends)[2]);
  bool makeNonBlocking();
  bool openPipes(int (&handOver)[2]);
  bool startChild(int handOver);
  bool collectDaemon(int (&handOver)[2]);
  bool writeInput();
  Output standardOutput();
  Output standardError();
  bool readOutput(Output stream, bool* more);
  bool store(const Output& stream, std::size_t size);
  bool lookForEnd();
  bool openPidFd();
  bool waitForActivity(unsigned int timeoutMs);
  void waitForEnd(long long timeoutMs);
  void endChild();
  void drain();
  void closePipes();
  void reset();

  std::string name;
  std::string in;
  std::vector<char>* outVector = nullptr;
  int outFd = -1;
  unsigned int outThreshold = 0;
  bool outOverflowStop = true;
  std::vector<char>* errVector = nullptr;
  unsigned int errThreshold = 0;
  bool errOverflowStop = true;
  std::string exe;
  std::vector<std::string> args;
  bool maskSignals = false;
  sigset_t mask{};
  bool daemon = false;

  int state = 0;
  int code = 0;
  int status = 0;
  char** argv = nullptr;
  std::string cmd;
  int pid = -1;
  bool pipeIn = false;
  bool pipeOut = false;
  bool pipeErr = false;
  int inPipe[2] = {-1, -1};  // read end, write end
  int outPipe[2] = {-1, -1};
  int errPipe[2] = {-1, -1};
  std::vector<char> outBuffer;
  std::vector<char> errBuffer;
  std::size_t inWritten = 0;
  unsigned long long outAccepted = 0;
  unsigned long long errAccepted = 0;
  std::string* outText = nullptr;  // where a helper's run takes it to
  std::string* errText = nullptr;
  int pidFd = -1;  // readable once the child has ended; -1: not asked for, or not to be had
};

// ---- run to completion ----
//
// `in` (null: none) is the program's standard input. `out` and `err` (null: not wanted) receive
// what it wrote, whatever the result is, except that they are untouched when it could not be
// started or served. What is beyond a threshold (0: none) is dropped. `timeoutMs` 0: no limit.
//
// Result: the status of waitpid(2): 0 for success, n * 256 for exit code n, so 121 * 256 when there
// is no such program. -1: "Failed to start SysExec with code=%d, cmd='%s'", "Failed to service
// SysExec code=%d, cmd='%s'" (so also when it was killed by a signal), or the warning "Timeout
// executing, cmd='%s'", after which it is killed.

VEXO_UTILS_API int sysExec(const std::string* in, std::string* out, std::string* err,
                           unsigned int timeoutMs, unsigned int outThreshold,
                           unsigned int errThreshold, const std::string& exe,
                           const std::vector<std::string>& args);
// With `count` arguments of type const char*; a null one ends the list early.
VEXO_UTILS_API int sysExec(const std::string* in, std::string* out, std::string* err,
                           unsigned int timeoutMs, unsigned int outThreshold,
                           unsigned int errThreshold, const std::string& exe, int count, ...);

// "/bin/sh -c cmd". The only call with a shell: quote what comes from outside with escapeShellArg.
VEXO_UTILS_API int shellExec(const std::string& cmd, const std::string* in, std::string* out,
                             std::string* err, unsigned int timeoutMs, unsigned int outThreshold,
                             unsigned int errThreshold);

// Neither input nor output nor time-out. A null argument ends the list.
VEXO_UTILS_API int sysExecSimple(const char* exe, const std::vector<std::string>& args);
VEXO_UTILS_API int sysExecSimple(const char* exe);
VEXO_UTILS_API int sysExecSimple(const char* exe, const char* arg1);
VEXO_UTILS_API int sysExecSimple(const char* exe, const char* arg1, const char* arg2);
VEXO_UTILS_API int sysExecSimple(const char* exe, const char* arg1, const char* arg2,
                                 const char* arg3);
VEXO_UTILS_API int sysExecSimple(const char* exe, const char* arg1, const char* arg2,
                                 const char* arg3, const char* arg4);

// ---- daemons ----
//
// Return as soon as the daemon executes its program; whether that succeeds is not known. False:
// "Failed to start SysExec with code=%d, cmd='%s'".

// `mask` is the daemon's signal mask (null: the caller's); `*pid`, unless null, receives its pid.
// `reserved` is not used: pass null.
VEXO_UTILS_API bool runDaemon(const std::string* reserved, const sigset_t* mask, int* pid,
                              const std::string& exe, const std::vector<std::string>& args);
VEXO_UTILS_API bool runDaemon(const std::string* reserved, const sigset_t* mask, int* pid,
                              const std::string& exe, int count, ...);

// With no signal blocked, whatever the caller has blocked for its Scheduler.
VEXO_UTILS_API bool sysExecAsyncSimple(const char* exe, const std::vector<std::string>& args);
VEXO_UTILS_API bool sysExecAsyncSimplePid(const char* exe, int* pid,
                                          const std::vector<std::string>& args);

}  // namespace vexo::utils
