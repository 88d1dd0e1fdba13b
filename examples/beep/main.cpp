// Makes a WAV file of a beep, reads it back and halves its volume.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <stdint.h>

#include <vexo_utils/file.h>
#include <vexo_utils/sound.h>

namespace {

constexpr uint16_t kChannels = 1;
constexpr uint32_t kRate = 8000;       // samples a second
constexpr uint32_t kMost = 1U << 20U;  // bytes that are read

bool writeBeep(const std::string& path) {
  constexpr double kStep = 2 * 3.14159265358979 * 880 / kRate;  // 880 Hz
  vexo::utils::File file;
  if (!file.Initialize(path, vexo::utils::FILE_OPEN_TRUNCATE, O_CLOEXEC) ||
      !writeWavHeader(file, kChannels, kRate)) {
    return false;
  }
  for (uint32_t i = 0; i < kRate / 4; ++i) {
    if (!file.WriteI16(static_cast<int16_t>(20'000 * std::sin(kStep * i)), false)) return false;
  }
  return finalizeWavHeader(file);
}

int loudest(const std::vector<uint8_t>& samples) {
  int peak = 0;
  for (std::size_t at = 0; at + sizeof(int16_t) <= samples.size(); at += sizeof(int16_t)) {
    int16_t sample = 0;
    std::memcpy(&sample, &samples[at], sizeof sample);
    peak = std::max(peak, std::abs(int{sample}));
  }
  return peak;
}

}  // namespace

int main() {
  const std::string path = "/tmp/beep.wav";
  std::vector<uint8_t> samples;
  if (!writeBeep(path) || !readWav(path, samples, kChannels, kRate, kMost)) return 1;
  const int before = loudest(samples);
  setWavVolume(samples.data(), static_cast<int>(samples.size()), 50);
  std::printf("%zu bytes of samples, the loudest was %d and is %d\n", samples.size(), before,
              loudest(samples));
  return loudest(samples) == before / 2 ? 0 : 1;
}
