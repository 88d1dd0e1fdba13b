// Measures copying, creating and removing beside std::filesystem and a plain loop.
//
//   fileutils_bench [FOLDER]        in a new folder below FOLDER (default: /dev/shm, in memory)
//
// Times are the thread's processor time: of removing and copying, nearly all is the kernel's.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <vexo_utils/fileutils.h>

#include "measure.h"

namespace vexo::bench {

namespace {

namespace fs = std::filesystem;
using benchmark::State;

constexpr char kOurs[] = "vexo";
constexpr char kFilesystem[] = "filesystem";
constexpr char kLoop[] = "128KiB-loop";

const std::vector<Contestant> kContestants = {
    {kOurs, false, nullptr}, {kFilesystem, true, nullptr}, {kLoop, true, nullptr}};

std::string folder;  // where all happens

// ---- copying a file over an existing one ----

bool copyByLoop(const std::string& from, const std::string& to) {
  static std::vector<char> block(128 << 10);
  const int src = open(from.c_str(), O_RDONLY | O_CLOEXEC);
  const int dst = open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  ssize_t got = 0;
  while ((got = read(src, block.data(), block.size())) > 0) {
    if (write(dst, block.data(), static_cast<std::size_t>(got)) != got) got = -1;
  }
  close(src);
  close(dst);
  return got == 0;
}

using Copy = bool (*)(const std::string& from, const std::string& to);

template <int kMiB>
void copying(State& state, Copy copy) {
  const std::string from = folder + "/from";
  const std::string to = folder + "/to";
  std::ofstream(from) << std::string(std::size_t{kMiB} << 20, 'x');
  measure(state, [&] { require(copy(from, to), "copy a file"); });
  fs::remove(from);
  fs::remove(to);
}

template <int kMiB>
void addCopy(const std::string& row) {
  add(row, kOurs, [](State& state) {
    copying<kMiB>(state, [](const std::string& from, const std::string& to) {
      return copyFile(from.c_str(), to.c_str(), AT_FDCWD, AT_FDCWD);
    });
  });
  add(row, kFilesystem, [](State& state) {
    copying<kMiB>(state, [](const std::string& from, const std::string& to) {
      return fs::copy_file(from, to, fs::copy_options::overwrite_existing);
    });
  });
  add(row, kLoop, [](State& state) { copying<kMiB>(state, copyByLoop); });
}

// ---- folders ----

void removing(State& state, bool (*remove)(const std::string& path)) {
  const std::string tree = folder + "/tree";
  for (auto _ : state) {
    state.PauseTiming();
    for (int sub = 0; sub < 10; ++sub) {
      const std::string below = tree + "/" + std::to_string(sub);
      fs::create_directories(below);
      for (int i = 0; i < 100; ++i) std::ofstream(below + "/" + std::to_string(i));
    }
    state.ResumeTiming();
    require(remove(tree), "remove a tree");
  }
  state.counters[kPlain] =
      benchmark::Counter(static_cast<double>(state.iterations()),
                         static_cast<benchmark::Counter::Flags>(benchmark::Counter::kIsRate |
                                                                benchmark::Counter::kInvert));
}

// Makes eight folders, one in the other, of which the first is there; and removes them, by the same
// calls for both.
void making(State& state, bool (*make)(const std::string& path)) {
  const std::string first = folder + "/made";
  fs::create_directory(first);
  std::string path = first;
  for (int depth = 0; depth < 7; ++depth) path += "/" + std::to_string(depth);
  measure(state, [&] {
    require(make(path), "make folders");
    for (std::string made = path; made != first; made.resize(made.rfind('/'))) rmdir(made.c_str());
  });
  fs::remove(first);
}

void addFolders() {
  add("remove/1000-files", kOurs, [](State& state) {
    removing(state, [](const std::string& path) { return rmRf(path, AT_FDCWD); });
  });
  add("remove/1000-files", kFilesystem, [](State& state) {
    removing(state, [](const std::string& path) { return fs::remove_all(path) == 1011; });
  });
  add("make/7-folders", kOurs, [](State& state) {
    making(state, [](const std::string& path) { return mkdirP(path, false, 0755, AT_FDCWD); });
  });
  add("make/7-folders", kFilesystem, [](State& state) {
    making(state, [](const std::string& path) { return fs::create_directories(path); });
  });
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  folder = argc > 1 && argv[1][0] != '-' ? argv[1] : "/dev/shm";
  if (folder != "/dev/shm") {
    argv[1] = argv[0];
    --argc;
    ++argv;
  }
  folder += "/vexo_bench.XXXXXX";
  require(mkdtemp(folder.data()) != nullptr, "make a folder");
  addCopy<1>("copy/1MiB");
  addCopy<256>("copy/256MiB");
  addFolders();
  ComparisonReporter reporter(kContestants, {{"removing", {"remove/1000-files"}, 1.0}});
  const int status = run(argc, argv,
                         {"--benchmark_enable_random_interleaving=true",
                          "--benchmark_repetitions=9", "--benchmark_min_time=0.05"},
                         reporter);
  rmRf(folder, AT_FDCWD);
  return status;
}
