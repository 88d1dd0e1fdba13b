#include "vexo_utils/shmem_utils.h"

#include <cstdint>

#include <sys/ipc.h>
#include <sys/shm.h>

#include "internal/log.h"

namespace vexo::utils {

void ShmemDetach::operator()(void* address) const {
  shmdt(address);
}

ShmemHandle attachShmem(unsigned int key, int shmflg) {
  const int id = shmget(static_cast<key_t>(key), 0, 0);
  if (id < 0) {
    VEXO_LOG_ERROR_ERRNO("failed to get shared memory id for key %u", key);
    return nullptr;
  }
  void* address = shmat(id, nullptr, shmflg);
  if (reinterpret_cast<intptr_t>(address) == -1) {
    VEXO_LOG_ERROR_ERRNO("Failed to attach shared memory for key %u", key);
    return nullptr;
  }
  return ShmemHandle(address);
}

ShmemHandle attachShmem(const std::string& keyPath, int shmflg) {
  const key_t key = ftok(keyPath.c_str(), 0);
  VEXO_LOG_INFO("keyPath=%s key=%lld", keyPath.c_str(), static_cast<long long>(key));
  if (key < 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to generate shmem key from %s", keyPath.c_str());
    return nullptr;
  }
  ShmemHandle attached = attachShmem(static_cast<unsigned int>(key), shmflg);
  if (attached == nullptr) VEXO_LOG_ERROR("Failed to attach shmem %s", keyPath.c_str());
  return attached;
}

}  // namespace vexo::utils
