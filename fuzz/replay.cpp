// fuzz_replay TARGET FOLDER: the test of a target, by any compiler: the inputs that FOLDER keeps,
// and changed ones, which are the same in every run.

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fuzz.h"
#include "private_world.h"

namespace {

namespace fs = std::filesystem;
using vexo::fuzz::Target;

constexpr int kSkipped = 77;
constexpr int kChanged = 500;  // inputs

const Target* targetOf(const std::string& name) {
  const Target* target = Target::first;
  while (target != nullptr && name != target->name) target = target->next;
  return target;
}

std::string contentsOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void runOn(const Target& target, const std::string& input) {
  // In memory of its own, so that a sanitizer sees a step beyond the end.
  const std::vector<uint8_t> bytes(input.begin(), input.end());
  vexo::fuzz::runTarget(target, bytes.data(), bytes.size());
}

// Bytes replaced, cut out, doubled, or joined to another input.
std::string changed(std::string input, const std::string& other, std::minstd_rand& random) {
  const auto below = [&](std::size_t limit) { return random() % (limit + 1); };
  for (std::size_t steps = 1 + below(3); steps > 0; --steps) {
    const std::size_t at = below(input.size());
    const std::size_t length = below(8);
    switch (below(4)) {
      case 0:
        if (at < input.size()) input[at] = static_cast<char>(random() >> 8);
        break;
      case 1:
        if (at < input.size()) input[at] = static_cast<char>(input[at] ^ 1 << below(7));
        break;
      case 2:
        input.erase(at, length);
        break;
      case 3:
        input.insert(at, std::string(input, at, length));
        break;
      default:
        input.replace(at, std::string::npos, other, below(other.size()), std::string::npos);
    }
  }
  return input;
}

int replay(const Target& target, const fs::path& folder) {
  std::vector<std::string> inputs;
  std::vector<fs::path> files(fs::directory_iterator(folder), {});
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    std::printf("%s\n", file.c_str());  // the last one, if it fails
    std::fflush(stdout);
    inputs.push_back(contentsOf(file));
    runOn(target, inputs.back());
  }
  const std::string last = VEXO_BINARY_DIR "/fuzz/" + std::string(target.name) + ".input";
  std::printf("%s\n", last.c_str());
  std::fflush(stdout);
  std::minstd_rand random(1);
  const auto any = [&]() -> const std::string& { return inputs[random() % inputs.size()]; };
  for (int i = 0; i < kChanged; ++i) {
    const std::string input = changed(any(), any(), random);
    vexo::fuzz::write(last.c_str(), input);
    runOn(target, input);
  }
  fs::remove(last);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Target* const target = argc == 3 ? targetOf(argv[1]) : nullptr;
  if (target == nullptr) {
    std::fprintf(stderr, "usage: %s TARGET FOLDER\n", argv[0]);
    return 2;
  }
  const auto skip = [](const std::string& reason) {
    std::printf("this machine allows no private world: %s\n", reason.c_str());
    return kSkipped;
  };
  return vexo::test::runInPrivateWorld(
      {VEXO_SOURCE_DIR, VEXO_BINARY_DIR}, [&] { return replay(*target, argv[2]); }, skip);
}
