#include "vexo_utils/scheduler.h"

#include <algorithm>
#include <cstdint>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "internal/log.h"
#include "internal/retry.h"
#include "internal/unique_fd.h"

namespace vexo::utils {

using internal::retryOnEintr;
using internal::UniqueFd;

namespace {

constexpr int kBatch = 8;  // ready descriptors served by one call

timespec fromMs(unsigned int ms) {
  timespec time{};
  time.tv_sec = static_cast<time_t>(ms / 1000);
  time.tv_nsec = static_cast<long>(ms % 1000) * 1'000'000;
  return time;
}

bool setTimer(int fd, unsigned int firstMs, unsigned int intervalMs) {
  itimerspec times{};
  times.it_value = fromMs(firstMs);
  times.it_interval = fromMs(intervalMs);
  if (firstMs == 0) times.it_value.tv_nsec = 1;  // all zero would disarm
  if (timerfd_settime(fd, 0, &times, nullptr) == 0) return true;
  VEXO_LOG_ERROR_ERRNO("Failed to settime");
  return false;
}

// Reads one record of a timer's or a signal's descriptor.
template <typename Record>
bool readRecord(int fd, Record& record) {
  const ssize_t got = retryOnEintr([&] { return read(fd, &record, sizeof record); });
  return got == static_cast<ssize_t>(sizeof record);
}

bool isReadable(int fd) {
  pollfd waited{fd, POLLIN, 0};
  return retryOnEintr([&] { return poll(&waited, 1, 0); }) == 1;
}

epoll_event eventFor(unsigned long long id, int mode) {
  epoll_event event{};
  event.events = static_cast<std::uint32_t>(mode);
  event.data.u64 = id;
  return event;
}

}  // namespace

class Scheduler::IoTask {
 public:
  IoTask(int watched, IoCallback function, void* context)
      : fd(watched), callback(std::move(function)), ctx(context) {}
  virtual ~IoTask() = default;
  IoTask(const IoTask&) = delete;
  IoTask& operator=(const IoTask&) = delete;

  const int fd;
  const IoCallback callback;
  void* const ctx;
};

// A task whose descriptor is the scheduler's own: a timer's or a signal's.
class Scheduler::TimeoutTask : public IoTask {
 public:
  TimeoutTask(UniqueFd descriptor, IoCallback function, void* context)
      : IoTask(descriptor.get(), std::move(function), context), owned(std::move(descriptor)) {}

 private:
  const UniqueFd owned;
};

// ---- the task map ----

// Where `id` is, or would be: the first entry that is not below it.
std::size_t Scheduler::TaskMap::indexOf(unsigned long long id) const {
  if (entries.empty()) return 0;
  // Ids are whole and ascend, so none is further right than its distance from the first, and with
  // no gaps it is there. (Below the first, the distance wraps.)
  const unsigned long long distance = id - entries.front().id;
  if (distance < entries.size() && entries[static_cast<std::size_t>(distance)].id == id) {
    return static_cast<std::size_t>(distance);
  }
  if (id < entries.front().id) return 0;
  const auto bound =
      static_cast<std::ptrdiff_t>(std::min<unsigned long long>(distance, entries.size()));
  const auto isBefore = [](const Entry& entry, unsigned long long key) { return entry.id < key; };
  const auto found = std::lower_bound(entries.begin(), entries.begin() + bound, id, isBefore);
  return static_cast<std::size_t>(found - entries.begin());
}

std::shared_ptr<Scheduler::IoTask> Scheduler::TaskMap::find(unsigned long long id) const {
  const std::size_t index = indexOf(id);
  if (index == entries.size() || entries[index].id != id) return nullptr;
  return entries[index].task;
}

void Scheduler::TaskMap::insert(unsigned long long id, std::shared_ptr<IoTask> task) {
  dropRemoved();
  const auto position = entries.begin() + static_cast<std::ptrdiff_t>(indexOf(id));
  entries.insert(position, {id, std::move(task)});
}

std::shared_ptr<Scheduler::IoTask> Scheduler::TaskMap::take(unsigned long long id) {
  const std::size_t index = indexOf(id);
  if (index == entries.size() || entries[index].id != id) return nullptr;
  if (entries[index].task != nullptr) ++removed;
  return std::move(entries[index].task);
}

std::vector<Scheduler::TaskMap::Entry> Scheduler::TaskMap::takeAll() {
  removed = 0;
  return std::exchange(entries, {});
}

void Scheduler::TaskMap::dropRemoved() {
  if (removed <= entries.size() / 2) return;
  const auto isRemoved = [](const Entry& entry) { return entry.task == nullptr; };
  entries.erase(std::remove_if(entries.begin(), entries.end(), isRemoved), entries.end());
  removed = 0;
}

// ---- lifecycle ----

Scheduler::Scheduler() = default;

Scheduler::~Scheduler() {
  Stop();
}

bool Scheduler::Init() {
  UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
  if (!epoll.valid()) {
    VEXO_LOG_ERROR_ERRNO("Failed to create epoll");
    return false;
  }
  Stop();

  int readEnd = -1;
  {
    const std::scoped_lock lock(mutex, wakeupMutex);
    epollFd = epoll.release();
    nextId = 1;  // adding to a stopped scheduler failed, but used ids up
    if (pipe2(wakeupPipe, O_NONBLOCK | O_CLOEXEC) != 0) {
      VEXO_LOG_ERROR_ERRNO("Failed to create wakeup pipe");
      return false;
    }
    readEnd = wakeupPipe[0];
  }
  const IoShortCallback drain = [](int fd, void*) {
    char byte = 0;
    return read(fd, &byte, 1) == 1;
  };
  if (AddIOTask(readEnd, EPOLLIN, drain, nullptr) == 0) {
    VEXO_LOG_ERROR("Failed to add wakeup task");
    return false;
  }
  return true;
}

bool Scheduler::Stop() {
  UniqueFd epoll;
  std::vector<TaskMap::Entry> dropped;  // destroyed without the lock: what callbacks captured may
                                        // call the scheduler
  {
    const std::lock_guard lock(mutex);
    epoll.reset(epollFd.exchange(-1));
    if (!epoll.valid()) return true;
    ++stops;
    nextId = 1;
    dropped = tasks.takeAll();
    for (const auto& [id, task] : dropped) {
      if (task != nullptr && epoll_ctl(epoll.get(), EPOLL_CTL_DEL, task->fd, nullptr) != 0) {
        VEXO_LOG_WARNING_ERRNO("Failed to del fd");
      }
    }
    // Both ends at once: a write to the one while the other is closed would raise SIGPIPE.
    const std::lock_guard pipeLock(wakeupMutex);
    for (int& end : wakeupPipe) UniqueFd(std::exchange(end, -1)).reset();
  }
  return true;
}

// ---- the loop ----

bool Scheduler::Service(int timeoutMs) {
  // Read before epollFd: if another instance comes in between, its events are seen as foreign.
  const unsigned instance = stops;
  epoll_event events[kBatch];
  const int ready = retryOnEintr(
      [&] { return epoll_wait(epollFd, events, kBatch, timeoutMs < 0 ? -1 : timeoutMs); });
  if (ready < 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to wait epoll");
    return false;
  }
  for (int i = 0; i < ready; ++i) {
    const unsigned long long id = events[i].data.u64;
    std::shared_ptr<IoTask> task;  // keeps the task while its callback runs
    {
      const std::lock_guard lock(mutex);
      if (stops != instance) return true;  // ids have begun anew
      task = tasks.find(id);
    }
    if (task == nullptr) continue;  // removed since it was reported
    task->callback(id, task->fd, static_cast<int>(events[i].events), task->ctx);
  }
  return true;
}

bool Scheduler::WakeUp() {
  const std::lock_guard lock(wakeupMutex);
  const char byte = 0;
  return write(wakeupPipe[1], &byte, 1) != 0;
}

// ---- tasks ----

unsigned long long Scheduler::addIoTask(std::shared_ptr<IoTask> task, int mode) {
  const std::lock_guard lock(mutex);
  unsigned long long id = nextId++;
  while (id == 0 || tasks.find(id) != nullptr) ++id;
  tasks.insert(id, task);  // first, so that memory that runs out leaves nothing in the kernel
  epoll_event event = eventFor(id, mode);
  if (epoll_ctl(epollFd, EPOLL_CTL_ADD, task->fd, &event) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to add task");
    tasks.take(id);
    return 0;
  }
  return id;
}

unsigned long long Scheduler::AddIOTask(int fd, int mode, IoCallback callback, void* ctx) {
  return addIoTask(std::make_shared<IoTask>(fd, std::move(callback), ctx), mode);
}

unsigned long long Scheduler::AddIOTask(int fd, int mode, IoShortCallback callback, void* ctx) {
  return AddIOTask(fd, mode,
                   IoCallback([callback = std::move(callback)](unsigned long long, int ready, int,
                                                               void* context) {
                     return callback(ready, context);
                   }),
                   ctx);
}

unsigned long long Scheduler::AddTimerTask(unsigned int firstMs, unsigned int intervalMs,
                                           TimerCallback callback, void* ctx) {
  UniqueFd timer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
  if (!timer.valid()) {
    VEXO_LOG_ERROR_ERRNO("Failed to create timer");
    return 0;
  }
  if (!setTimer(timer.get(), firstMs, intervalMs)) {
    VEXO_LOG_ERROR("Failed to set timer");
    return 0;
  }
  IoCallback onExpiry = [callback = std::move(callback)](unsigned long long id, int fd, int,
                                                         void* context) {
    std::uint64_t expirations = 0;
    if (!readRecord(fd, expirations)) return false;  // armed anew since it was reported
    callback(id, context);
    return true;
  };
  return addIoTask(std::make_shared<TimeoutTask>(std::move(timer), std::move(onExpiry), ctx),
                   EPOLLIN);
}

unsigned long long Scheduler::AddTimerTask(unsigned int periodMs, TimerCallback callback,
                                           void* ctx) {
  return AddTimerTask(periodMs, periodMs, std::move(callback), ctx);
}

unsigned long long Scheduler::AddTimerTask(unsigned int firstMs, unsigned int intervalMs,
                                           TimerShortCallback callback, void* ctx) {
  return AddTimerTask(
      firstMs, intervalMs,
      TimerCallback([callback = std::move(callback)](unsigned long long, void* context) {
        return callback(context);
      }),
      ctx);
}

unsigned long long Scheduler::AddTimerTask(unsigned int periodMs, TimerShortCallback callback,
                                           void* ctx) {
  return AddTimerTask(periodMs, periodMs, std::move(callback), ctx);
}

bool Scheduler::UpdateTimerTask(unsigned long long id, unsigned int firstMs,
                                unsigned int intervalMs) {
  std::shared_ptr<IoTask> task;  // keeps the descriptor open while it is armed
  {
    const std::lock_guard lock(mutex);
    task = tasks.find(id);
  }
  if (task == nullptr) {
    VEXO_LOG_ERROR("Invalid id %u", static_cast<unsigned>(id));
    return false;
  }
  if (!setTimer(task->fd, firstMs, intervalMs)) {
    VEXO_LOG_ERROR("Failed to set timer");
    return false;
  }
  return true;
}

bool Scheduler::ChangeIOTaskMode(unsigned long long id, int mode) {
  const std::lock_guard lock(mutex);
  const std::shared_ptr<IoTask> task = tasks.find(id);
  if (task == nullptr) {
    VEXO_LOG_ERROR("Invalid id %llu", id);
    return false;
  }
  epoll_event event = eventFor(id, mode);
  if (epoll_ctl(epollFd, EPOLL_CTL_MOD, task->fd, &event) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to change task");
    return false;
  }
  return true;
}

bool Scheduler::RemoveIOTask(unsigned long long id) {
  std::shared_ptr<IoTask> task;  // destroyed without the lock
  const std::lock_guard lock(mutex);
  task = tasks.take(id);
  if (task == nullptr) {
    VEXO_LOG_DEBUG("No IO task with id %u", static_cast<unsigned>(id));
    return true;
  }
  if (epoll_ctl(epollFd, EPOLL_CTL_DEL, task->fd, nullptr) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to del task");
    return false;
  }
  return true;
}

// ---- signals ----

unsigned long long Scheduler::AddSignalHandler(sigset_t set, SignalCallback callback, void* ctx) {
  if (pthread_sigmask(SIG_BLOCK, &set, nullptr) != 0) {
    VEXO_LOG_ERROR("Failed to proc mask");
    return 0;
  }
  UniqueFd signals(signalfd(-1, &set, 0));
  if (!signals.valid()) {
    VEXO_LOG_ERROR_ERRNO("Failed to create signal FD");
    return 0;
  }
  IoCallback onSignal = [callback = std::move(callback)](unsigned long long id, int fd, int,
                                                         void* context) {
    // The descriptor blocks, and the signal may be gone: another handler of it, or sigwait, was
    // faster.
    signalfd_siginfo info{};
    if (!isReadable(fd) || !readRecord(fd, info)) return false;
    callback(id, info.ssi_signo, context);
    return true;
  };
  return addIoTask(std::make_shared<TimeoutTask>(std::move(signals), std::move(onSignal), ctx),
                   EPOLLIN);
}

unsigned long long Scheduler::AddSignalHandler(int signo, SignalCallback callback, void* ctx) {
  sigset_t set;
  if (sigemptyset(&set) != 0) {
    VEXO_LOG_ERROR("Failed to empty mask");
    return 0;
  }
  if (sigaddset(&set, signo) != 0) {
    VEXO_LOG_ERROR("Failed to add mask");
    return 0;
  }
  return AddSignalHandler(set, std::move(callback), ctx);
}

unsigned long long Scheduler::AddSignalHandler(int signo, SignalShortCallback callback, void* ctx) {
  return AddSignalHandler(
      signo,
      SignalCallback([callback = std::move(callback)](unsigned long long, unsigned, void* context) {
        callback(context);
      }),
      ctx);
}

}  // namespace vexo::utils
