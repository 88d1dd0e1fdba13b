// Scheduler: one epoll(7) event loop for descriptors, timers, signals and wake-ups.
//
// The owner calls Init, adds tasks, and calls Service from a loop of its own. Each call waits once
// and runs the callbacks of what is ready, at most 8; what else is ready is reported by the next.
//
// Threads:   one thread, the owner's, calls Init, Service and Stop; callbacks run on it, without
//            the scheduler's lock, and may call any of its functions, Stop and Init included. The
//            functions that add, change and remove tasks and WakeUp may be called from any thread.
//            A callback must not destroy the scheduler that runs it.
// Ownership: descriptors given to AddIOTask stay the caller's; remove the task before closing one.
//            Timers, signal descriptors and the wake-up pipe are the scheduler's own. `ctx` is
//            handed back and never touched.
// Task ids:  never 0. They begin anew at each Init, the first of a user's tasks is then 2.
// Failure:   false, or 0 for an id; logged once at error level, with errno where a call failed.
// fork(2):   the epoll instance is shared with the child, where any call but the destructor of an
//            unused scheduler would change the parent's. Use it in one of the two only.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include <signal.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

class VEXO_UTILS_API Scheduler {
 public:
  // What tasks call. Results are for the callers' own use: the scheduler ignores them, and false
  // neither removes nor disarms a task. An exception leaves through Service. An empty function
  // throws std::bad_function_call when its task becomes ready.
  //
  // Where a bare nullptr or a generic lambda would fit two forms, name the one that is meant:
  // scheduler.AddTimerTask(100, Scheduler::TimerShortCallback(f), nullptr).
  using IoCallback = std::function<bool(unsigned long long id, int fd, int events, void* ctx)>;
  using IoShortCallback = std::function<bool(int fd, void* ctx)>;
  using TimerCallback = std::function<bool(unsigned long long id, void* ctx)>;
  using TimerShortCallback = std::function<bool(void* ctx)>;
  using SignalCallback = std::function<void(unsigned long long id, unsigned int signo, void* ctx)>;
  using SignalShortCallback = std::function<bool(void* ctx)>;

  // Opens nothing.
  Scheduler();
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;
  // As Stop.
  virtual ~Scheduler();

  // Opens the epoll instance and the wake-up pipe. On a running scheduler it stops first: all tasks
  // are dropped and their ids are void.
  // False: "Failed to create epoll" (an instance that was running goes on), "Failed to create
  // wakeup pipe" or "Failed to add wakeup task" (tasks can be added, WakeUp does nothing).
  bool Init();

  // Waits up to `timeoutMs` (0: only looks; negative: without limit), then runs the callbacks of
  // what is ready. A wait that a signal interrupts begins again with the whole time. A callback
  // that stops the scheduler ends the call: what else was ready is left alone.
  // False: "Failed to wait epoll", as before Init.
  bool Service(int timeoutMs);

  // Makes a waiting Service, or the next one, return. True except when write(2) gave 0: a wake-up
  // that is lost because the pipe is full or closed is no failure, since none is needed then.
  bool WakeUp();

  // Drops all tasks and closes what is the scheduler's own. Does not wake a waiting Service. Always
  // true, also when there is nothing to stop. A task whose descriptor was closed before its removal
  // costs the warning "Failed to del fd".
  bool Stop();

  // Calls back while `fd` is ready in one of the ways of `mode`, an epoll_ctl(2) mask passed on as
  // it is (level-triggered unless it says otherwise). Regular files cannot be waited on.
  // 0: "Failed to add task".
  unsigned long long AddIOTask(int fd, int mode, IoCallback callback, void* ctx);
  unsigned long long AddIOTask(int fd, int mode, IoShortCallback callback, void* ctx);

  // Calls back after `firstMs`, and every `intervalMs` from then on (0: once; the task then stays,
  // disarmed, until it is removed or armed again). A first time of 0 is at once. With one time,
  // that is both. Expirations that were missed are made up for by one call.
  // 0: "Failed to create timer", "Failed to set timer", "Failed to add task".
  unsigned long long AddTimerTask(unsigned int firstMs, unsigned int intervalMs,
                                  TimerCallback callback, void* ctx);
  unsigned long long AddTimerTask(unsigned int periodMs, TimerCallback callback, void* ctx);
  unsigned long long AddTimerTask(unsigned int firstMs, unsigned int intervalMs,
                                  TimerShortCallback callback, void* ctx);
  unsigned long long AddTimerTask(unsigned int periodMs, TimerShortCallback callback, void* ctx);

  // Arms a timer anew; the times are those of AddTimerTask.
  // False: "Invalid id N" (its low 32 bits), or "Failed to settime" and "Failed to set timer" when
  // the task is no timer.
  bool UpdateTimerTask(unsigned long long id, unsigned int firstMs, unsigned int intervalMs);

  // Waits for other events of a task's descriptor. False: "Invalid id N", "Failed to change task".
  bool ChangeIOTaskMode(unsigned long long id, int mode);

  // Removes a task of any kind; its callback is not called any more, except that one which is
  // running, on this thread or another, runs to its end, and the task is destroyed after it.
  // An unknown id is no failure, so callers may remove defensively (a debug line names it).
  // False: "Failed to del task", when its descriptor was closed already; the task is gone then too.
  bool RemoveIOTask(unsigned long long id);

  // Blocks the signals in the calling thread, where they stay blocked, and calls back for each that
  // arrives. Other threads must block them too (those started afterwards inherit it), or the
  // kernel may deliver them there. The signal descriptor is inherited across execve(2), and so is
  // the mask. Two handlers for one signal: each arrival reaches one of the two.
  // 0: "Failed to empty mask", "Failed to add mask" (no such signal), "Failed to proc mask",
  // "Failed to create signal FD", "Failed to add task".
  unsigned long long AddSignalHandler(sigset_t set, SignalCallback callback, void* ctx);
  unsigned long long AddSignalHandler(int signo, SignalCallback callback, void* ctx);
  unsigned long long AddSignalHandler(int signo, SignalShortCallback callback, void* ctx);

 private:
  class IoTask;
  class TimeoutTask;

  // Tasks ordered by id. Ids only grow, so a new task goes to the end of a flat array, and with no
  // gaps before it an id is found at its distance from the first: two memory accesses where a tree
  // of nodes takes a dozen.
  class TaskMap {
   public:
    struct Entry {
      unsigned long long id;
      std::shared_ptr<IoTask> task;  // null: removed
    };
    std::shared_ptr<IoTask> find(unsigned long long id) const;  // null when absent
    void insert(unsigned long long id, std::shared_ptr<IoTask> task);
    std::shared_ptr<IoTask> take(unsigned long long id);  // null when absent
    std::vector<Entry> takeAll();

   private:
    std::size_t indexOf(unsigned long long id) const;
    void dropRemoved();

    std::vector<Entry> entries;
    std::size_t removed = 0;  // entries without a task, dropped when they are more than half
  };

  unsigned long long addIoTask(std::shared_ptr<IoTask> task, int mode);

  std::mutex mutex;
  unsigned long long nextId = 1;   // guarded by mutex
  std::atomic<int> epollFd{-1};    // changed under mutex, read without
  TaskMap tasks;                   // guarded by mutex
  int wakeupPipe[2] = {-1, -1};    // read end, write end; guarded by wakeupMutex
  std::atomic<unsigned> stops{0};  // tells the ids of one instance from those of the next
  // After `mutex` where both are held. With one mutex for all, who is woken would wait at once for
  // who wakes: on one processor that took twice the time.
  std::mutex wakeupMutex;
};

}  // namespace vexo::utils
