// A named block of POSIX shared memory, see shm_overview(7), with a reader-writer lock before it.
//
// One process, the writer, creates the block; others attach to it by name. Data goes in and out by
// copies of the whole or of a part, which are never torn.
//
// Threads:   any number of processes and threads may read and write; the lock sees to it.
// Lock:      whoever dies while holding it (killed in the middle of a copy) blocks all others for
//            good: use shmpReadTimed and shmpWriteTimed where that matters. Readers go before
//            writers: if there is always one inside, a writer waits without end.
// Hazards:   the sizes are the callers' word. A reader that asks for more than the writer made, or
//            comes before the writer is done, dies by SIGBUS when it touches what is not there; so
//            does everybody when the writer comes back with a smaller size, or when /dev/shm is
//            full. A writer that comes back makes the lock anew, also under those who hold it: only
//            while nobody copies.
// Failure:   logged at error level, with errno.
#pragma once

#include <pthread.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

// What lies at the beginning of the block, before its data; all processes must be built alike. The
// length of the block is sizeof(ShmpBuf_t), 44 on the 32-bit device, and that of the data.
struct ShmpBuf_t {
  pthread_rwlock_t lock;
  pthread_rwlockattr_t attr;  // what the lock was made with
  unsigned int size;          // of the data, in bytes, as the writer said
};

// `flags` 2, the writer: creates the block (mode 0666, less the umask), or takes the one that is
// there with its data, and makes it `size` bytes of data long. 1, a reader: attaches to the block.
// 0: does nothing, null.
// The caller gives the result to shmpDestroy with the same flags. Null: "shm_open NAME failed",
// "ftruncate failed", "mmap SIZE size failed"; a block that was created stays.
// Other flags: "Invalid flag N", and above 2 the process ends (forceCrash).
VEXO_UTILS_API ShmpBuf_t* shmpInit(const char* name, unsigned int size, int flags);

// Takes back what shmpInit gave. The block stays in the system with its name and data:
// shm_unlink(3) removes it. For a writer, the warning "shm NAME has been destroyed. The data
// remains in shm may not be the lastest". Flags as in shmpInit.
VEXO_UTILS_API void shmpDestroy(ShmpBuf_t* buf, const char* name, int flags);

// Copy `len` bytes at `offset` of the data. The offset counts on both sides: `src` and `dst` are
// the beginning of a local copy of all the data, of which that part is written or read. Neither
// compares with the size of the block. They wait for the lock.
// Nothing is copied: "Invalid shared memory access" for a null pointer or a negative number;
// "Failed to lock shared memory", such as EDEADLK for a thread that holds the lock itself.
VEXO_UTILS_API void shmpWrite(ShmpBuf_t* buf, const char* src, int offset, int len);
VEXO_UTILS_API void shmpRead(ShmpBuf_t* buf, char* dst, int offset, int len);

// The same, but they wait at most `timeoutMs`. True when the bytes were copied.
// False: as above; when the time is over, the error is ETIMEDOUT.
VEXO_UTILS_API bool shmpWriteTimed(ShmpBuf_t* buf, const char* src, int offset, int len,
                                   unsigned int timeoutMs);
VEXO_UTILS_API bool shmpReadTimed(ShmpBuf_t* buf, char* dst, int offset, int len,
                                  unsigned int timeoutMs);

}  // namespace vexo::utils
