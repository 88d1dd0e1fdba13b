// vexo wav: what is in a WAV file, and its volume.

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>
#include <stdint.h>

#include <vexo_utils/file.h>
#include <vexo_utils/fileutils.h>
#include <vexo_utils/sound.h>

#include "command.h"

namespace {

using vexo::utils::File;

constexpr std::size_t kChunk = 1 << 20;  // bytes, between two looks at the progress

struct Format {
  uint16_t channels;
  uint32_t rate;
  uint32_t bytes;
};

int info(const char* path) {
  Format format{};
  if (!readWavHeader(path, format.channels, format.rate, format.bytes)) {
    return failed("cannot read %s", path);
  }
  const double second = static_cast<double>(format.rate) * format.channels * sizeof(int16_t);
  std::printf("channels  %u\nrate      %u Hz\nsamples   %u bytes\nlength    %.3f s\n",
              format.channels, format.rate, format.bytes, second > 0 ? format.bytes / second : 0);
  return kDone;
}

bool writeScaled(const std::string& path, const Format& format, std::vector<uint8_t>& samples,
                 int percent) {
  File file;
  if (!file.Initialize(path, vexo::utils::FILE_OPEN_TRUNCATE, O_CLOEXEC) ||
      !writeWavHeader(file, format.channels, format.rate)) {
    return false;
  }
  Progress progress;
  for (std::size_t at = 0; at < samples.size(); at += kChunk) {
    const std::size_t size = std::min(kChunk, samples.size() - at);
    setWavVolume(&samples[at], static_cast<int>(size), percent);
    if (!file.WriteBuffer(&samples[at], size)) return false;
    progress.show(std::to_string(100 * uint64_t{at} / samples.size()) + " %");
  }
  return finalizeWavHeader(file);
}

// Written beside its place and moved there, so that `to` is the old file or the new one.
int volume(const char* from, int percent, const std::string& to) {
  Format format{};
  std::vector<uint8_t> samples;
  if (!readWavHeader(from, format.channels, format.rate, format.bytes) ||
      !readWav(from, samples, format.channels, format.rate, 0)) {
    return failed("cannot read %s", from);
  }
  const std::string part = to + ".part";
  if (writeScaled(part, format, samples, percent) &&
      renameFile(part.c_str(), to.c_str(), AT_FDCWD, AT_FDCWD)) {
    return kDone;
  }
  rmRf(part, AT_FDCWD);
  return failed("cannot write %s", to.c_str());
}

int run(int argc, char** argv) {
  const std::string verb = argc > 1 ? argv[1] : "";
  if (verb == "info" && argc == 3) return info(argv[2]);
  int percent = 0;
  if (verb == "volume" && (argc == 4 || argc == 5) && numberOf(argv[3], 0, 100, percent)) {
    return volume(argv[2], percent, argv[argc - 1 == 4 ? 4 : 2]);
  }
  return misused("info FILE, or volume FILE and 0 to 100");
}

}  // namespace

const Command wavCommand = {"wav", "tell what is in a WAV file, or make it quieter",
                            R"(usage: vexo wav info FILE
       vexo wav volume FILE PERCENT [OUT]

Files with uncompressed 16-bit samples. volume scales them to 0 to 100 percent, into OUT or in
place; other chunks than the samples are not kept.

  vexo wav volume chime.wav 50 quiet.wav
)",
                            run};
