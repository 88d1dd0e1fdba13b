// Measures the Scheduler beside the event loops that its users might choose instead.
//
//   scheduler_bench                     all rows, the repetitions of all contestants shuffled
//   scheduler_bench --iterations=N ...  exactly N iterations a repetition, for counting tools
//   scheduler_bench --benchmark_...     as any Google Benchmark program
//
// Rows: dispatch/READY-of-REGISTERED  one event (a byte written and read) of so many ready at once
//       descriptor/..., timer/...     a change and the look at the kernel that makes it effective
//       lateness/1ms                  what a periodic timer is late by: median, 99th percentile
//       wake-up/...                   from one thread to another and back
//
// Machines drift while they run: compare ratios within a run, not times between runs. Times are the
// thread's processor time; that of wake-ups, which two threads share, is real time.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include "comparison_reporter.h"

namespace vexo::bench {

namespace {

using benchmark::Counter;
using benchmark::State;
using Make = std::unique_ptr<Loop> (*)(Tuning);

// For time divided by `count`, in seconds.
Counter timePer(double count) {
  return Counter(count, static_cast<Counter::Flags>(Counter::kIsRate | Counter::kInvert));
}

// Counts events that leave nothing to be read.
class EventCounter : public Handler {
 public:
  void onEvent() override { ++events; }
  benchmark::IterationCount events = 0;
};

// ---- the descriptors ----

// A pipe with one descriptor for both ends, so that 10,000 of them fit a limit of 10,100.
int openPipe() {
  int ends[2] = {-1, -1};
  require(pipe2(ends, O_CLOEXEC) == 0, "create a pipe");
  const std::string path = "/proc/self/fd/" + std::to_string(ends[0]);
  const int both = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  require(both >= 0, "open both ends of a pipe");
  close(ends[0]);
  close(ends[1]);
  return both;
}

bool allowDescriptors(std::size_t count) {
  rlimit limit{};
  require(getrlimit(RLIMIT_NOFILE, &limit) == 0, "read the limit of descriptors");
  if (limit.rlim_cur >= count) return true;
  limit.rlim_cur = std::min<rlim_t>(count, limit.rlim_max);
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= count;
}

// The same descriptors for all contestants, or none when the limit forbids so many.
std::vector<int> openPipes(std::size_t count) {
  constexpr std::size_t kOthers = 100;
  static std::vector<int> pipes;
  if (!allowDescriptors(count + kOthers)) return {};
  while (pipes.size() < count) pipes.push_back(openPipe());
  return {pipes.begin(), pipes.begin() + static_cast<std::ptrdiff_t>(count)};
}

void writeByte(int fd) {
  require(write(fd, "", 1) == 1, "write to a pipe");
}

// False: there was none.
bool readByte(int fd) {
  char byte = 0;
  return read(fd, &byte, 1) == 1;
}

// ---- dispatch ----

// Makes some of the pipes ready, others each time and the same for every contestant; when each of
// them was served, the next. Ends with the benchmark's iterations.
class Rounds {
 public:
  Rounds(State& benchmarkState, Loop& contestant, const std::vector<int>& pipes, std::size_t ready)
      : state(benchmarkState),
        loop(contestant),
        readyPerRound(ready),
        chosen(choose(pipes, ready)) {
    watches.reserve(pipes.size());
    for (const int fd : pipes) watches.emplace_back(*this, fd);
    for (Watch& watch : watches) ids.push_back(loop.addReader(watch.fd, watch));
  }
  ~Rounds() {
    for (const Loop::Id id : ids) loop.remove(id);
  }
  Rounds(const Rounds&) = delete;
  Rounds& operator=(const Rounds&) = delete;

  void run() {
    if (begin()) loop.run();
    for (const Watch& watch : watches) require(!readByte(watch.fd), "serve every event");
    require(served == static_cast<std::size_t>(state.iterations()) * readyPerRound,
            "serve every event once");
  }

 private:
  struct Watch final : Handler {
    Watch(Rounds& owner, int watched) : rounds(owner), fd(watched) {}
    void onEvent() override {
      require(readByte(fd), "serve an event once");
      rounds.onServed();
    }
    Rounds& rounds;
    const int fd;
  };

  // The descriptors of many rounds, one round after the other.
  static std::vector<int> choose(std::vector<int> pipes, std::size_t ready) {
    constexpr std::size_t kEvents = 1 << 15;  // touches almost all of 10,000
    std::minstd_rand random(1);
    std::vector<int> all;
    for (std::size_t round = 0; round < kEvents / ready; ++round) {
      for (std::size_t i = 0; i < ready; ++i) {
        std::swap(pipes[i], pipes[i + random() % (pipes.size() - i)]);
      }
      all.insert(all.end(), pipes.begin(), pipes.begin() + static_cast<std::ptrdiff_t>(ready));
    }
    return all;
  }

  bool begin() {
    if (!state.KeepRunning()) return false;
    if (next == chosen.size()) next = 0;
    const std::size_t end = next + readyPerRound;
    while (next < end) writeByte(chosen[next++]);
    return true;
  }

  void onServed() {
    if (++served % readyPerRound == 0 && !begin()) loop.stop();
  }

  State& state;
  Loop& loop;
  const std::size_t readyPerRound;
  const std::vector<int> chosen;
  std::size_t next = 0;    // in `chosen`
  std::size_t served = 0;  // events, in all rounds
  std::vector<Watch> watches;
  std::vector<Loop::Id> ids;
};

// One event: a byte written, the loop's share, the byte read.
void dispatch(State& state, Make make, std::size_t ready, std::size_t registered) {
  const std::vector<int> pipes = openPipes(registered);
  if (pipes.empty()) {
    state.SkipWithError("the limit of open descriptors (ulimit -Hn) is too low");
    return;
  }
  const auto loop = make(Tuning::kSpeed);
  Rounds(state, *loop, pipes, ready).run();
  state.counters[kPlain] =
      timePer(static_cast<double>(state.iterations()) * static_cast<double>(ready));
}

// ---- changes: each is followed by one look, in which contestants that put work off do it ----

// A readable descriptor comes, is reported once, and goes.
void addAndRemove(State& state, Make make) {
  constexpr std::size_t kOthers = 100;
  const std::vector<int> pipes = openPipes(kOthers + 1);
  const auto loop = make(Tuning::kSpeed);
  EventCounter never;
  std::vector<Loop::Id> others;
  for (std::size_t i = 0; i < kOthers; ++i) others.push_back(loop->addReader(pipes[i], never));

  const int fd = pipes.back();
  writeByte(fd);
  EventCounter seen;
  while (state.KeepRunning()) {
    const Loop::Id id = loop->addReader(fd, seen);
    loop->look();
    loop->remove(id);
  }
  require(seen.events == state.iterations() && never.events == 0, "report each descriptor once");
  state.counters[kPlain] = timePer(static_cast<double>(state.iterations()));

  readByte(fd);
  for (const Loop::Id id : others) loop->remove(id);
}

void createTimer(State& state, Make make) {
  const auto loop = make(Tuning::kSpeed);
  EventCounter never;
  while (state.KeepRunning()) {
    const Loop::Id id = loop->addTimer(60'000, false, never);
    loop->look();
    loop->remove(id);
  }
  require(never.events == 0, "keep a timer from firing early");
  state.counters[kPlain] = timePer(static_cast<double>(state.iterations()));
}

void rearmTimer(State& state, Make make) {
  const auto loop = make(Tuning::kSpeed);
  EventCounter never;
  const Loop::Id id = loop->addTimer(60'000, false, never);
  unsigned ms = 60'000;
  while (state.KeepRunning()) {
    ms ^= 1;
    loop->rearm(id, ms);
    loop->look();
  }
  require(never.events == 0, "keep a timer from firing early");
  loop->remove(id);
  state.counters[kPlain] = timePer(static_cast<double>(state.iterations()));
}

// ---- lateness ----

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

// How long after its time each expiration of a periodic timer is reported. The times are the start
// and whole periods after it, so that a timer that drifts is seen to be late.
class Lateness : public Handler {
 public:
  static constexpr unsigned kPeriodMs = 1;
  static constexpr std::size_t kExpirations = 500;

  explicit Lateness(Loop& contestant) : loop(contestant) { late.reserve(kExpirations); }

  void onEvent() override {
    const Clock::duration by = Clock::now() - due;
    late.push_back(Seconds(by).count());
    due += kPeriod * std::max<Clock::rep>(1 + by / kPeriod, 1);  // what was missed is past
    if (late.size() == kExpirations) loop.stop();
  }

  // The lateness that the given part of the expirations kept.
  double quantile(double part) {
    std::sort(late.begin(), late.end());
    return late[static_cast<std::size_t>(part * static_cast<double>(late.size() - 1))];
  }

 private:
  static constexpr Clock::duration kPeriod = std::chrono::milliseconds(kPeriodMs);

  Loop& loop;
  Clock::time_point due = Clock::now() + kPeriod;
  std::vector<double> late;  // seconds
};

void periodicTimer(State& state, Make make) {
  while (state.KeepRunning()) {
    const auto loop = make(Tuning::kPreciseTimers);
    Lateness lateness(*loop);
    const Loop::Id id = loop->addTimer(Lateness::kPeriodMs, true, lateness);
    loop->run();
    loop->remove(id);
    state.counters["median"] = lateness.quantile(0.5);
    state.counters["p99"] = lateness.quantile(0.99);
  }
}

// ---- wake-up ----

std::vector<std::size_t> processors() {
  cpu_set_t allowed;
  require(sched_getaffinity(0, sizeof allowed, &allowed) == 0, "read the affinity");
  std::vector<std::size_t> all;
  for (std::size_t i = 0; i < CPU_SETSIZE; ++i) {
    if (CPU_ISSET(i, &allowed)) all.push_back(i);
  }
  return all;
}

// Runs a function on one processor, in a thread.
template <typename Function>
std::thread startOn(std::size_t processor, Function function) {
  return std::thread([processor, function] {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(processor, &one);
    require(sched_setaffinity(0, sizeof one, &one) == 0, "set the affinity");
    function();
  });
}

// Two loops of one kind wake each other in turn, from threads that share a processor or have one
// each. On one, only the loops' own work is measured, and what they do when a thread is preempted
// in the midst of a wake-up; on two, most is the kernel's waking of an idle processor.
void thereAndBack(State& state, Make make, bool shareProcessor) {
  struct There : Handler {
    void onEvent() override {
      if (done) return loop->stop();
      ++answers;
      back->wakeUp();
    }
    Loop* loop = nullptr;
    Loop* back = nullptr;
    benchmark::IterationCount answers = 0;
    std::atomic<bool> done{false};
  };
  struct Here : Handler {
    explicit Here(State& benchmarkState) : state(benchmarkState) {}
    void onEvent() override {
      if (!state.KeepRunning()) return loop->stop();
      there->wakeUp();
    }
    State& state;
    Loop* loop = nullptr;
    Loop* there = nullptr;
  };

  const std::vector<std::size_t> allowed = processors();
  if (!shareProcessor && allowed.size() < 2) {
    state.SkipWithError("there is one processor only");
    return;
  }
  const auto hereLoop = make(Tuning::kThreads);
  const auto thereLoop = make(Tuning::kThreads);
  There there;
  there.loop = thereLoop.get();
  there.back = hereLoop.get();
  thereLoop->onWakeUp(there);
  Here here(state);
  here.loop = hereLoop.get();
  here.there = thereLoop.get();
  hereLoop->onWakeUp(here);

  std::thread answering = startOn(allowed.front(), [&] { thereLoop->run(); });
  std::thread asking = startOn(shareProcessor ? allowed.front() : allowed.back(), [&] {
    here.onEvent();
    hereLoop->run();
    there.done = true;
    thereLoop->wakeUp();
  });
  asking.join();
  answering.join();
  require(there.answers == state.iterations(), "answer each wake-up once");
  state.counters[kPlain] = timePer(static_cast<double>(state.iterations()));
}

// ---- the program ----

using Body = std::function<void(State&, Make)>;

// Registers ROW/CONTESTANT for each contestant. `iterations` 0: as many as take the minimum time.
void addRow(const std::string& row, benchmark::IterationCount iterations, bool realTime,
            const Body& body) {
  for (const Contestant& contestant : contestants()) {
    auto* added = benchmark::RegisterBenchmark(
        (row + "/" + contestant.name).c_str(),
        [body, make = contestant.make](State& state) { body(state, make); });
    if (iterations > 0) added->Iterations(iterations);
    if (realTime) added->UseRealTime();
  }
}

void addRows(benchmark::IterationCount iterations) {
  constexpr std::size_t kRegistered[] = {1, 100, 10'000};
  constexpr std::size_t kReady[] = {1, 8, 100};
  for (const std::size_t registered : kRegistered) {
    for (const std::size_t ready : kReady) {
      if (ready > registered) continue;
      addRow("dispatch/" + std::to_string(ready) + "-of-" + std::to_string(registered), iterations,
             false, [ready, registered](State& state, Make make) {
               dispatch(state, make, ready, registered);
             });
    }
  }
  addRow("descriptor/add-remove", iterations, false, addAndRemove);
  addRow("timer/create-remove", iterations, false, createTimer);
  addRow("timer/rearm", iterations, false, rearmTimer);
  addRow("lateness/1ms", std::max<benchmark::IterationCount>(iterations, 1), true, periodicTimer);
  for (const bool shared : {true, false}) {
    addRow(shared ? "wake-up/one-processor" : "wake-up/two-processors", iterations, true,
           [shared](State& state, Make make) { thereAndBack(state, make, shared); });
  }
}

std::vector<Goal> goals() {
  return {
      {"dispatch, up to 100 registered,",
       {"dispatch/1-of-1", "dispatch/1-of-100", "dispatch/8-of-100", "dispatch/100-of-100"},
       1.0},
      {"dispatch, 10,000 registered,",
       {"dispatch/1-of-10000", "dispatch/8-of-10000", "dispatch/100-of-10000"},
       1.1},
      {"lateness of a periodic timer", {"lateness/1ms median", "lateness/1ms p99"}, 1.0},
  };
}

// The program's own option, taken out of the arguments; 0 when it is not there.
benchmark::IterationCount takeIterations(int& argc, char** argv) {
  const std::string option = "--iterations=";
  if (argc < 2 || std::strncmp(argv[1], option.c_str(), option.size()) != 0) return 0;
  const benchmark::IterationCount iterations = std::atoll(argv[1] + option.size());
  std::copy(argv + 2, argv + argc + 1, argv + 1);
  --argc;
  return iterations;
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  const benchmark::IterationCount iterations = takeIterations(argc, argv);
  // The C and C++ libraries leave out atomic operations until there is a second thread. Daemons
  // have one, and the wake-up rows too: so that it matters to none which row runs first, start one
  // now.
  std::thread([] {}).join();

  // Before the caller's, which so have the last word.
  std::vector<std::string> defaults = {"--benchmark_enable_random_interleaving=true",
                                       "--benchmark_repetitions=15", "--benchmark_min_time=0.05"};
  std::vector<char*> arguments = {argv[0]};
  for (std::string& argument : defaults) arguments.push_back(argument.data());
  arguments.insert(arguments.end(), argv + 1, argv + argc + 1);  // with the null at the end
  int count = static_cast<int>(arguments.size()) - 1;

  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;
  addRows(iterations);
  ComparisonReporter reporter(contestants(), goals());
  const bool ran = benchmark::RunSpecifiedBenchmarks(&reporter) > 0;
  benchmark::Shutdown();
  return ran ? 0 : 1;
}
