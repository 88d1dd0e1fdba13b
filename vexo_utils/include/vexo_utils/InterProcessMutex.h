// InterProcessMutex: a lock that one process at a time holds, by fcntl(2) on /var/lock/NAME.lock.
//
// The kernel takes it back when its holder ends, however that ends. It is an agreement among those
// who ask for it, and among processes only: threads, and other objects, of the process that holds
// it get it as well, and the first of them that is released or destroyed ends it for all.
//
// Threads:   one object belongs to one thread. A child of fork(2) does not hold its parent's lock,
//            although its copy of the object says so; destroying the copy does no harm.
// Ownership: owns its descriptor, which is close-on-exec.
// Failure:   as each says, with errno; nothing is logged.
// Hazard:    nobody must delete the file: two processes could then hold the lock.
#pragma once

#include <fcntl.h>

#include <vexo_utils/export.h>

class VEXO_UTILS_API InterProcessMutex {
 public:
  // Opens nothing. The path is cut to 63 characters, so that names which differ only behind their
  // 53rd are the same lock. A name with a slash needs the folder; a null one cannot be acquired.
  // `blocking`: acquire waits for the lock.
  InterProcessMutex(const char* name, bool blocking);
  InterProcessMutex(const InterProcessMutex&) = delete;
  InterProcessMutex& operator=(const InterProcessMutex&) = delete;
  // Releases.
  ~InterProcessMutex();

  // 0: acquired. -1: by this object already. -2: the file cannot be opened or created.
  // -3: not taken; EACCES or EAGAIN when another process holds it, EINTR when a signal whose
  // handler lacks SA_RESTART ended the wait. The object can try again at any time.
  int acquire();

  // 0: released, or not acquired. -1: not released. -2: released, but close(2) failed.
  int release();

  // By this object.
  bool isAcquired() const;

 private:
  bool blocking;
  bool acquired = false;
  char path[64];
  int descriptor = -1;  // kept open after a failed try, for the next one
  struct flock64 lock {};
};
