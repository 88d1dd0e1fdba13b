// Logread: reads the messages that the system logger, busybox syslogd -C, keeps in a ring in shared
// memory, as logread(1) does.
//
// The logger overwrites the oldest messages with new ones. A reader that comes so late that the
// logger has gone round the ring meanwhile misses messages, and the first text that it then gets is
// a fragment of one.
//
// Threads:   one object belongs to one thread.
// Lock:      while a reader holds it, the logger waits, and all who log wait for the logger when
//            its socket is full: CALLBACKS MUST NOT LOG, nor take long. The kernel takes it back
//            when the process ends. A logger that died while it wrote blocks all readers for good.
// Ownership: owns its attachment to the ring, which it only reads.
// Failure:   as each says, logged at error level, with errno where a call failed. The ring is
//            another process's memory: what no logger writes is reported and never followed outside
//            of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <sys/sem.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

class VEXO_UTILS_API Logread {
 public:
  // Attaches to nothing.
  Logread() = default;
  Logread(const Logread&) = delete;
  Logread& operator=(const Logread&) = delete;
  // As Close.
  ~Logread();

  // Attaches to the ring, after a Close, and goes to the oldest complete message. A logger that was
  // started anew has another ring: then Lock fails, and so does ForEach, until Initialize.
  // False, with nothing attached: "Failed to get SHM ID" (no logger, or one without a ring),
  // "Failed to attach SHM", "Failed to get SHM size", "Failed to get sem ID", "Failed to acquire
  // semaphore", "No complete messages", "Invalid size or tail of the log ring".
  bool Initialize();

  // Must not be called while the ring is locked. Warning: "Failed to detach SHM".
  void Close();

  // Keep the logger from writing; signals do not end the wait. Lock drops the first piece of a
  // message whose end was not there yet. False, not logged; also when nothing is attached, and for
  // an Unlock without a Lock.
  bool Lock();
  bool Unlock();

  // Calls back for each message from where the last call ended up to the newest. `message` ends
  // with a NUL after `length` bytes, is never empty, and is valid during the call. The callback
  // must not call Initialize or Close. What it throws passes through; the next call goes on with
  // the next message.
  // To be called between Lock and Unlock.
  // Without messages: "Log ring is not attached", "No callback for log messages", "Invalid size or
  // tail of the log ring". "Log message without an end" when it should end before the newest: then
  // the rest is skipped.
  void ForEachNoLock(void (*callback)(const char* message, unsigned int length, void* context),
                     void* context);

  // The same with the ring locked, and unlocked afterwards in any case. Besides: "Failed to acquire
  // semaphore".
  void ForEach(void (*callback)(const char* message, unsigned int length, void* context),
               void* context);

  // Passes over all messages there are, under the lock. False, with the position as it was: "Failed
  // to acquire semaphore", "Invalid size or tail of the log ring".
  bool SeekToTail();

 private:
  struct Ring;
  struct Area;

  bool attach();
  bool seekToOldest();
  bool look(Area& area) const;
  const char* walk(void (*callback)(const char*, unsigned int, void*), void* context);

  const Ring* ring = nullptr;
  int32_t position = -1;  // of the next message, in the data
  int32_t semaphoreId = -1;
  sembuf releaseOperation{0, -1, IPC_NOWAIT | SEM_UNDO};
  // Waits until the logger does not write, and counts this reader.
  sembuf lockOperations[2]{{1, 0, 0}, {0, 1, SEM_UNDO}};
  std::string partialMessage;   // the piece before the ring's end of a message that goes on behind
  std::size_t segmentSize = 0;  // bytes
};

}  // namespace vexo::utils
