// Attaches to System V shared memory that another process has made, see sysvipc(7).
//
// `shmflg` is shmat(2)'s: 0, or SHM_RDONLY to read only.
//
// Threads:   any.
// Failure:   an empty handle, logged at error level with errno.
#pragma once

#include <memory>
#include <string>

#include <vexo_utils/export.h>

namespace vexo::utils {

// Calls shmdt(2).
struct VEXO_UTILS_API ShmemDetach {
  void operator()(void* address) const;
};

// Owns the attachment; shmdt(2) ends it.
using ShmemHandle = std::unique_ptr<void, ShmemDetach>;

// "failed to get shared memory id for key N", "Failed to attach shared memory for key N".
VEXO_UTILS_API ShmemHandle attachShmem(unsigned int key, int shmflg);

// By the key that ftok(3) makes of the path and the number 0, which depends on the file's inode and
// device: info "keyPath=PATH key=N". "Failed to generate shmem key from PATH"; "Failed to attach
// shmem PATH" after one of the above.
VEXO_UTILS_API ShmemHandle attachShmem(const std::string& keyPath, int shmflg);

}  // namespace vexo::utils
