#include "recordings.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <fcntl.h>
#include <stdint.h>

#include <vexo_utils/file.h>
#include <vexo_utils/fileutils.h>
#include <vexo_utils/sound.h>

#include "console.h"

using console::say;
using vexo::utils::File;

namespace {

constexpr unsigned kSoundMs = 350;
constexpr unsigned kArchiveMs = 950;
constexpr uint32_t kSampleRate = 8000;
constexpr int kVolume = 25;  // percent

const std::string kFolder = "/var/recordings/front";
const std::string kTone = kFolder + "/tone.wav";

constexpr char kSounds[] = "sounds: written, read, made quieter";
constexpr char kFolders[] = "folders: copied, moved, removed";

// One second at 440 Hz.
bool writeTone(const std::string& path) {
  constexpr double kTurn = 2 * 3.14159265358979 * 440 / kSampleRate;
  File file;
  if (!file.Initialize(path, vexo::utils::FILE_OPEN_TRUNCATE, O_CLOEXEC)) return false;
  if (!writeWavHeader(file, 1, kSampleRate)) return false;
  for (uint32_t i = 0; i < kSampleRate; ++i) {
    if (!file.WriteI16(static_cast<int16_t>(20'000 * std::sin(kTurn * i)), false)) return false;
  }
  return finalizeWavHeader(file);
}

int peakOf(const std::vector<uint8_t>& samples) {
  int peak = 0;
  for (std::size_t at = 0; at + 2 <= samples.size(); at += 2) {
    int16_t sample = 0;
    std::memcpy(&sample, &samples[at], sizeof sample);
    peak = std::max(peak, std::abs(int{sample}));
  }
  return peak;
}

}  // namespace

Recordings::Recordings(vexo::utils::Scheduler& loop, Ledger& book) : scheduler(loop), ledger(book) {
  ledger.expect(kSounds, 1, 1);
  ledger.expect(kFolders, 3, 3);
}

bool Recordings::start() {
  const auto sound = [this](void*) {
    keepATone();
    return true;
  };
  const auto folders = [this](void*) {
    archive();
    return true;
  };
  return scheduler.AddTimerTask(kSoundMs, 0, sound, nullptr) != 0 &&
         scheduler.AddTimerTask(kArchiveMs, 0, folders, nullptr) != 0;
}

bool Recordings::done() const {
  return ledger.counted(kSounds) == 1 && ledger.counted(kFolders) == 3;
}

void Recordings::keepATone() {
  std::vector<uint8_t> samples;
  if (!mkdirP(kFolder, false, 0755, AT_FDCWD) || !writeTone(kTone) ||
      !readWav(kTone, samples, 1, kSampleRate, 1 << 20)) {
    return;
  }
  const int loud = peakOf(samples);
  setWavVolume(samples.data(), static_cast<int>(samples.size()), kVolume);
  const int quiet = peakOf(samples);
  say("sound", "a tone of " + std::to_string(samples.size()) +
                   " bytes written and read back, peak " + std::to_string(loud) + ", at " +
                   std::to_string(kVolume) + " % " + std::to_string(quiet));
  if (quiet == loud * kVolume / 100) ledger.count(kSounds);
}

void Recordings::archive() {
  const std::string copy = "/var/recordings/copy";
  if (!cpR(kFolder, copy)) return;
  say("files", kFolder + " copied to " + copy);
  ledger.count(kFolders);

  // A rename does not lead from one file system to another: renameFile copies the file then.
  const std::string card = "/run/card";  // a file system of its own
  uint64_t size = 0;
  if (!mkdirP(card, true, 0755, AT_FDCWD) ||
      !renameFile((copy + "/tone.wav").c_str(), (card + "/tone.wav").c_str(), AT_FDCWD, AT_FDCWD) ||
      !fileSize(card + "/tone.wav", size, AT_FDCWD)) {
    return;
  }
  say("files",
      "tone.wav moved to " + card + ", " + std::to_string(size) + " bytes, on another mount");
  ledger.count(kFolders);

  std::vector<std::string> left;
  if (!rmRf("/var/recordings", AT_FDCWD) || !rmRf(card, AT_FDCWD)) return;
  glob("/var/recordings*", left);
  say("files", "both folders removed, " + std::to_string(left.size()) + " left");
  if (left.empty()) ledger.count(kFolders);
}
