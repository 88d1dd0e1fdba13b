// Measures reading the log ring and shared memory beside what is the least that it takes: a walk
// along the same messages by strlen(3), and memcpy(3) of the same bytes.
//
//   coordination_bench                     all rows, the repetitions of all contestants shuffled
//   coordination_bench --benchmark_...     as any Google Benchmark program
//
// Times are the thread's processor time, for 1000 messages of 80 bytes with attaching to their ring
// (1e12 by it is messages per second), and for one block. The program has System V keys of its own,
// so that the machine's log is left alone; that takes root, or a kernel that allows user
// namespaces.
#include <cstring>
#include <string>
#include <vector>

#include <sched.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vexo_utils/logread.h>
#include <vexo_utils/shm_posix_utils.h>

#include "../tests/support/log_ring.h"
#include "measure.h"

namespace vexo::bench {

namespace {

using benchmark::State;

constexpr char kOurs[] = "vexo";
constexpr char kStrlen[] = "strlen";
constexpr char kMemcpy[] = "memcpy";

const std::vector<Contestant> kContestants = {
    {kOurs, false, nullptr}, {kStrlen, true, nullptr}, {kMemcpy, true, nullptr}};

constexpr int kMessages = 1000;
constexpr int kMessageSize = 80;

void addLog() {
  add("log/1000-messages", kOurs, [](State& state) {
    // A full ring, round which the tail goes in two steps.
    constexpr int32_t kNewest = (kMessages - 1) * (kMessageSize + 1);
    constexpr int32_t kSpace = kNewest + kMessageSize + 1;
    test::LogRing ring(kSpace, kSpace, 0);
    for (int i = 0; i < kMessages; ++i) ring.write(std::string(kMessageSize, 'x'));
    utils::Logread log;
    require(log.Initialize() && log.SeekToTail(), "attach to the log");
    measure(state, [&] {
      std::size_t bytes = 0;
      const auto count = [](const char*, unsigned int length, void* sum) {
        *static_cast<std::size_t*>(sum) += length;
      };
      for (const int32_t tail : {kNewest, 0}) {
        ring.setTail(tail);
        log.ForEach(count, &bytes);
      }
      require(bytes == kMessages * kMessageSize, "read the log");
    });
  });
  add("log/1000-messages", kStrlen, [](State& state) {
    std::string all;
    for (int i = 0; i < kMessages; ++i) all += std::string(kMessageSize, 'x') + '\0';
    measure(state, [&] {
      std::size_t bytes = 0;
      for (const char* at = all.data(); at < all.data() + all.size();) {
        const std::size_t length = std::strlen(at);
        bytes += length;
        at += length + 1;
      }
      require(bytes == kMessages * kMessageSize, "walk along the messages");
    });
  });
}

constexpr int kBlock = 4096;

void addSharedMemory() {
  add("shared-memory/4KiB", kOurs, [](State& state) {
    const std::string name = "/coordination_bench." + std::to_string(getpid());
    utils::ShmpBuf_t* block = utils::shmpInit(name.c_str(), kBlock, 2);
    require(block != nullptr, "create shared memory");
    shm_unlink(name.c_str());
    std::vector<char> copy(kBlock);
    measure(state, [&] {
      utils::shmpRead(block, copy.data(), 0, kBlock);
      benchmark::ClobberMemory();
    });
    utils::shmpDestroy(block, name.c_str(), 1);  // as a reader: without the warning
  });
  add("shared-memory/4KiB", kMemcpy, [](State& state) {
    // At the same place in a page: that counts.
    alignas(4096) static char block[sizeof(utils::ShmpBuf_t) + kBlock];
    std::vector<char> copy(kBlock);
    measure(state, [&] {
      std::memcpy(copy.data(), block + sizeof(utils::ShmpBuf_t), kBlock);
      benchmark::ClobberMemory();
    });
  });
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  require(unshare(geteuid() == 0 ? CLONE_NEWIPC : CLONE_NEWIPC | CLONE_NEWUSER) == 0,
          "get System V keys of its own");
  addLog();
  addSharedMemory();
  ComparisonReporter reporter(kContestants, {});
  return run(argc, argv,
             {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=15",
              "--benchmark_min_time=0.05"},
             reporter);
}
