#include "vexo_utils/logread.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/ipc.h>
#include <sys/shm.h>

#include "internal/log.h"
#include "internal/retry.h"

namespace vexo::utils {

using internal::retryOnEintr;

// As the logger lays it out. The data follows.
struct Logread::Ring {
  int32_t size;
  int32_t tail;  // where the logger writes next
};

// The ring as it was found to be at one time: 0 <= tail < size, and `size` bytes are there.
struct Logread::Area {
  const char* data;
  int32_t size;
  int32_t tail;
};

namespace {

constexpr key_t kKey = 0x414e4547;
constexpr char kInvalidHeader[] = "Invalid size or tail of the log ring";

// Never beyond `to`, whether there is a NUL or not.
const char* endOfText(const char* from, const char* to) {
  return from + strnlen(from, static_cast<std::size_t>(to - from));
}

const char* nextText(const char* from, const char* to) {
  return std::find_if(from, to, [](char byte) { return byte != '\0'; });
}

// The first message behind the tail that is whole; null when there is none. What stands at the tail
// itself is the end of one that was overwritten, if anything, and may go on at the ring's
// beginning.
const char* oldestMessage(const char* data, const char* tail, const char* end) {
  const char* remainsEnd = endOfText(tail, end);
  const char* oldest = nextText(remainsEnd, end);
  if (oldest != end) return oldest;
  oldest = nextText(remainsEnd == end ? endOfText(data, tail) : data, tail);
  return oldest != tail ? oldest : nullptr;
}

}  // namespace

Logread::~Logread() {
  Close();
}

bool Logread::Initialize() {
  Close();
  if (attach() && seekToOldest()) return true;
  Close();
  return false;
}

void Logread::Close() {
  position = -1;
  semaphoreId = -1;
  partialMessage.clear();
  if (ring == nullptr) return;
  if (shmdt(std::exchange(ring, nullptr)) != 0) VEXO_LOG_WARNING_ERRNO("Failed to detach SHM");
}

bool Logread::Lock() {
  if (retryOnEintr([&] { return semop(semaphoreId, lockOperations, 2); }) != 0) return false;
  partialMessage.clear();
  return true;
}

bool Logread::Unlock() {
  return retryOnEintr([&] { return semop(semaphoreId, &releaseOperation, 1); }) == 0;
}

void Logread::ForEachNoLock(void (*callback)(const char*, unsigned int, void*), void* context) {
  if (const char* trouble = walk(callback, context)) VEXO_LOG_ERROR("%s", trouble);
}

void Logread::ForEach(void (*callback)(const char*, unsigned int, void*), void* context) {
  if (!Lock()) {
    VEXO_LOG_ERROR_ERRNO("Failed to acquire semaphore");
    return;
  }
  struct Unlocker {
    Logread& log;
    ~Unlocker() { log.Unlock(); }
  };
  const char* trouble = nullptr;
  {
    const Unlocker unlocker{*this};
    trouble = walk(callback, context);
  }
  // Not before: to log may mean to wait for the logger.
  if (trouble != nullptr) VEXO_LOG_ERROR("%s", trouble);
}

bool Logread::SeekToTail() {
  if (!Lock()) {
    VEXO_LOG_ERROR_ERRNO("Failed to acquire semaphore");
    return false;
  }
  Area area{};
  const bool valid = look(area);
  if (valid) position = area.tail;
  Unlock();
  if (!valid) VEXO_LOG_ERROR("%s", kInvalidHeader);
  return valid;
}

bool Logread::attach() {
  const int id = shmget(kKey, 0, 0);
  if (id < 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to get SHM ID");
    return false;
  }
  const void* attached = shmat(id, nullptr, SHM_RDONLY);
  if (reinterpret_cast<intptr_t>(attached) == -1) {
    VEXO_LOG_ERROR_ERRNO("Failed to attach SHM");
    return false;
  }
  ring = static_cast<const Ring*>(attached);
  shmid_ds segment{};
  if (shmctl(id, IPC_STAT, &segment) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to get SHM size");
    return false;
  }
  segmentSize = segment.shm_segsz;
  semaphoreId = semget(kKey, 0, 0);
  if (semaphoreId < 0) VEXO_LOG_ERROR_ERRNO("Failed to get sem ID");
  return semaphoreId >= 0;
}

bool Logread::seekToOldest() {
  if (!Lock()) {
    VEXO_LOG_ERROR_ERRNO("Failed to acquire semaphore");
    return false;
  }
  Area area{};
  const bool valid = look(area);
  if (valid) {
    const char* oldest = oldestMessage(area.data, area.data + area.tail, area.data + area.size);
    if (oldest != nullptr) position = static_cast<int32_t>(oldest - area.data);
  }
  Unlock();
  if (!valid) VEXO_LOG_ERROR("%s", kInvalidHeader);
  if (valid && position < 0) VEXO_LOG_ERROR("No complete messages");
  return position >= 0;
}

// False when the ring's header cannot be true.
bool Logread::look(Area& area) const {
  area.data = reinterpret_cast<const char*>(ring + 1);
  area.size = __atomic_load_n(&ring->size, __ATOMIC_RELAXED);
  area.tail = __atomic_load_n(&ring->tail, __ATOMIC_ACQUIRE);
  return area.size > 0 && segmentSize >= sizeof(Ring) &&
         static_cast<std::size_t>(area.size) <= segmentSize - sizeof(Ring) && area.tail >= 0 &&
         area.tail < area.size;
}

// Null, or what was wrong.
const char* Logread::walk(void (*callback)(const char*, unsigned int, void*), void* context) {
  if (callback == nullptr) return "No callback for log messages";
  if (ring == nullptr) return "Log ring is not attached";
  Area area{};
  if (!look(area) || position < 0 || position >= area.size) return kInvalidHeader;
  while (position != area.tail) {
    const int32_t limit = position < area.tail ? area.tail : area.size;
    const char* text = area.data + position;
    const char* end = endOfText(text, area.data + limit);
    const auto length = static_cast<unsigned int>(end - text);
    const bool ended = end != area.data + limit;
    if (!ended && limit == area.tail) {
      position = area.tail;
      partialMessage.clear();
      return "Log message without an end";
    }
    position = ended ? static_cast<int32_t>(end - area.data) + 1 : 0;
    if (position == area.size) position = 0;
    if (!ended) {
      partialMessage.assign(text, length);
      continue;
    }
    if (!partialMessage.empty()) {
      const std::string joined = std::exchange(partialMessage, {}).append(text, length);
      callback(joined.c_str(), static_cast<unsigned int>(joined.size()), context);
    } else if (length > 0) {
      callback(text, length, context);
    }
  }
  return nullptr;
}

}  // namespace vexo::utils
