// Measures typed reading and writing, the volume of samples and the search for them in WAV files
// beside the bare system calls, stdio and memcpy(3).
//
//   files_bench                     all rows, the repetitions of all contestants shuffled
//   files_bench --benchmark_...     as any Google Benchmark program
//
// The files are in memory (memfd_create(2)), and all open them by path: the kernel reads a memfd's
// own descriptor faster. stdio is no peer: its buffer saves most system calls, and so shows to
// others late what was written. Times are the thread's processor time.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vexo_utils/file.h>
#include <vexo_utils/sound.h>

#include "measure.h"

namespace vexo::bench {

namespace {

using benchmark::State;
using utils::File;

constexpr char kOurs[] = "vexo";
constexpr char kCalls[] = "read,write";
constexpr char kStdio[] = "stdio";
constexpr char kMemcpy[] = "memcpy";

const std::vector<Contestant> kContestants = {{kOurs, false, nullptr},
                                              {kCalls, true, nullptr},
                                              {kStdio, false, nullptr},
                                              {kMemcpy, true, nullptr}};

// A file in memory, which can be opened by its path.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& contents)
      : fd(memfd_create("files_bench", MFD_CLOEXEC)), path("/proc/self/fd/" + std::to_string(fd)) {
    const ssize_t written = write(fd, contents.data(), contents.size());
    require(written == static_cast<ssize_t>(contents.size()), "fill a file in memory");
  }
  ~MemoryFile() { close(fd); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

 private:
  const int fd;

 public:
  const std::string path;
};

// ---- 4 bytes at a time, from the beginning again at the end of the file ----

constexpr std::size_t kFileSize = 64 << 10;

template <typename Transfer, typename Rewind>
void transferAll(State& state, Transfer transfer, Rewind rewind) {
  std::size_t left = kFileSize;
  measure(state, [&] {
    require(transfer(), "transfer 4 bytes");
    left -= 4;
    if (left > 0) return;
    left = kFileSize;
    require(rewind(), "rewind");
  });
}

void addTyped() {
  add("typed/read", kOurs, [](State& state) {
    const MemoryFile memory(std::string(kFileSize, 'x'));
    File file;
    file.Initialize(memory.path, utils::FILE_OPEN_READ, 0);
    uint32_t value = 0;
    transferAll(
        state, [&] { return file.ReadUI32(&value, true); }, [&] { return file.SeekBegin(); });
  });
  add("typed/read", kCalls, [](State& state) {
    const MemoryFile memory(std::string(kFileSize, 'x'));
    const int fd = open(memory.path.c_str(), O_RDONLY);
    uint32_t value = 0;
    transferAll(
        state, [&] { return read(fd, &value, 4) == 4; },
        [&] { return lseek(fd, 0, SEEK_SET) == 0; });
    close(fd);
  });
  add("typed/read", kStdio, [](State& state) {
    const MemoryFile memory(std::string(kFileSize, 'x'));
    std::FILE* file = std::fopen(memory.path.c_str(), "re");
    uint32_t value = 0;
    transferAll(
        state, [&] { return std::fread(&value, 4, 1, file) == 1; },
        [&] { return std::fseek(file, 0, SEEK_SET) == 0; });
    std::fclose(file);
  });
  add("typed/write", kOurs, [](State& state) {
    const MemoryFile memory("");
    File file;
    file.Initialize(memory.path, utils::FILE_OPEN_READ_WRITE, 0);
    transferAll(
        state, [&] { return file.WriteUI32(1, true); }, [&] { return file.SeekBegin(); });
  });
  add("typed/write", kCalls, [](State& state) {
    const MemoryFile memory("");
    const int fd = open(memory.path.c_str(), O_RDWR);
    const uint32_t value = 1;
    transferAll(
        state, [&] { return write(fd, &value, 4) == 4; },
        [&] { return lseek(fd, 0, SEEK_SET) == 0; });
    close(fd);
  });
  add("typed/write", kStdio, [](State& state) {
    const MemoryFile memory("");
    std::FILE* file = std::fopen(memory.path.c_str(), "we");
    const uint32_t value = 1;
    transferAll(
        state, [&] { return std::fwrite(&value, 4, 1, file) == 1; },
        [&] { return std::fseek(file, 0, SEEK_SET) == 0; });
    std::fclose(file);
  });
}

// ---- samples ----

// The same bytes for both; the second half is where memcpy copies the first.
template <int kSize>
void scale(State& state) {
  std::vector<uint8_t> samples(2 * kSize, 77);
  measure(state, [&] {
    setWavVolume(samples.data(), kSize, 99);
    benchmark::ClobberMemory();
  });
}

template <int kSize>
void copy(State& state) {
  std::vector<uint8_t> samples(2 * kSize, 77);
  measure(state, [&] {
    std::memcpy(samples.data() + kSize, samples.data(), kSize);
    benchmark::ClobberMemory();
  });
}

void addVolume() {
  add("volume/64KiB", kOurs, scale<64 << 10>);
  add("volume/64KiB", kMemcpy, copy<64 << 10>);
  add("volume/1MiB", kOurs, scale<1 << 20>);
  add("volume/1MiB", kMemcpy, copy<1 << 20>);
  add("volume/16MiB", kOurs, scale<16 << 20>);
  add("volume/16MiB", kMemcpy, copy<16 << 20>);
}

// ---- the header of a file whose samples come after 1 MiB of other chunks ----

std::string lateWav() {
  const unsigned char start[] = {'R',  'I',  'F', 'F', 0,  0,    16, 0, 'W', 'A', 'V', 'E',
                                 'f',  'm',  't', ' ', 16, 0,    0,  0, 1,   0,   2,   0,
                                 0x80, 0x3E, 0,   0,   0,  0xFA, 0,  0, 4,   0,   16,  0};
  return std::string(start, start + sizeof start) + std::string(1 << 20, 'x') + "data" +
         std::string("\x08\0\0\0", 4) + "12345678";
}

void addHeader() {
  add("header/after-1MiB", kOurs, [](State& state) {
    const MemoryFile memory(lateWav());
    uint16_t channels = 0;
    uint32_t sampleRate = 0;
    uint32_t dataSize = 0;
    measure(state, [&] {
      require(readWavHeader(memory.path, channels, sampleRate, dataSize) && dataSize == 8,
              "find the samples");
    });
  });
  // Only reads as far: a lower bound.
  add("header/after-1MiB", kCalls, [](State& state) {
    const MemoryFile memory(lateWav());
    std::vector<uint8_t> block(4096);
    measure(state, [&] {
      const int fd = open(memory.path.c_str(), O_RDONLY | O_CLOEXEC);
      ssize_t got = 0;
      do {
        got = read(fd, block.data(), block.size());
      } while (got > 0);
      close(fd);
      require(got == 0, "read a file");
    });
  });
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  addTyped();
  addVolume();
  addHeader();
  ComparisonReporter reporter(kContestants,
                              {{"typed reading and writing", {"typed/read", "typed/write"}, 1.1},
                               {"volume", {"volume/64KiB", "volume/1MiB", "volume/16MiB"}, 4.0}});
  return run(argc, argv,
             {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=15",
              "--benchmark_min_time=0.05"},
             reporter);
}
