// Loop: what the benchmarks ask of an event loop. Each contestant does it as its own users would,
// in the configuration that is fastest for the row.
//
// Threads:   as the contestants': one thread owns a loop; any may call wakeUp.
// Ownership: descriptors and handlers stay the caller's; what was added must be removed.
// Failure:   ends the program with a message: a contestant that fails must not look fast.
#pragma once

#include <memory>
#include <vector>

#include "../require.h"

namespace vexo::bench {

// What an event leads to: the work that is the same for every contestant.
class Handler {
 public:
  virtual void onEvent() = 0;

 protected:
  ~Handler() = default;
};

class Loop {
 public:
  // What a contestant knows a reader or a timer by: one of the two.
  struct Id {
    unsigned long long number = 0;
    void* pointer = nullptr;
  };

  Loop() = default;
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  virtual ~Loop() = default;

  // Calls the handler while `fd` is readable.
  virtual Id addReader(int fd, Handler& handler) = 0;
  // Calls the handler after `ms`, and every `ms` from then on when `periodic`.
  virtual Id addTimer(unsigned ms, bool periodic, Handler& handler) = 0;
  // Arms a timer that is not periodic anew.
  virtual void rearm(Id timer, unsigned ms) = 0;
  virtual void remove(Id id) = 0;

  // One pass without waiting. Contestants that put work off (registration, closing) do it here.
  virtual void look() = 0;
  // Passes until a handler calls stop.
  virtual void run() = 0;
  virtual void stop() = 0;

  // Sets, once, what wakeUp leads to on the loop's thread.
  virtual void onWakeUp(Handler& handler) = 0;
  virtual void wakeUp() = 0;
};

// What a row needs, for contestants that have a switch for it.
enum class Tuning { kSpeed, kPreciseTimers, kThreads };

struct Contestant {
  const char* name;
  bool peer;  // a library that users might choose instead; the others are lower bounds or ours
  std::unique_ptr<Loop> (*make)(Tuning);
};

std::unique_ptr<Loop> makeVexo(Tuning tuning);
std::unique_ptr<Loop> makeEpoll8(Tuning tuning);  // reports at most 8 ready at once, as vexo does
std::unique_ptr<Loop> makeEpoll1024(Tuning tuning);  // at most 1024
std::unique_ptr<Loop> makeLibuv(Tuning tuning);
std::unique_ptr<Loop> makeLibevent(Tuning tuning);
std::unique_ptr<Loop> makeSdEvent(Tuning tuning);

// Ours first; the same order in every table.
const std::vector<Contestant>& contestants();

// An eventfd(2), for the contestants whose users wake a loop with one.
class WakeDescriptor : public Handler {
 public:
  WakeDescriptor();
  ~WakeDescriptor();
  WakeDescriptor(const WakeDescriptor&) = delete;
  WakeDescriptor& operator=(const WakeDescriptor&) = delete;

  int fd() const { return descriptor; }
  void setTarget(Handler& handler) { target = &handler; }
  void signal() const;
  void onEvent() override;  // takes the signal and passes it on

 private:
  const int descriptor;
  Handler* target = nullptr;
};

}  // namespace vexo::bench
