// A WAV file, and the volume of its samples.

#include <cstring>
#include <optional>
#include <vector>

#include "fuzz.h"
#include "vexo_utils/file.h"
#include "vexo_utils/sound.h"

namespace {

using vexo::utils::File;
using Bytes = std::vector<uint8_t>;

constexpr char kPath[] = "/tmp/input.wav";
constexpr char kCopy[] = "/tmp/copy.wav";

struct Header {
  uint16_t channels;
  uint32_t sampleRate;
  uint32_t dataSize;
};

struct Sound {
  Header header;
  std::string left;  // the file's bytes from the first sample on
};

// By the layout of the header, in memory.
std::optional<Sound> parse(const std::string& file) {
  const auto number = [&](std::size_t at, int bytes) {
    vexo::fuzz::Input input(reinterpret_cast<const uint8_t*>(file.data()) + at, file.size() - at);
    return static_cast<uint32_t>(input.number(bytes));
  };
  if (file.size() < 36 || file.substr(0, 4) != "RIFF" || file.substr(8, 8) != "WAVEfmt ") return {};
  const uint32_t formatSize = number(16, 4);
  if (formatSize != 16 && formatSize != 18 && formatSize != 40) return {};
  if (number(20, 2) != 1 || number(34, 2) != 16) return {};
  std::size_t at = 36;
  while (at + 8 <= file.size() && file.compare(at, 4, "data") != 0) {
    at += file.compare(at, 2, "da") == 0 ? 4 : 2;
  }
  if (at + 8 > file.size()) return {};
  const std::string left = file.substr(at + 8);
  const uint32_t size = number(at + 4, 4);
  return Sound{{static_cast<uint16_t>(number(22, 2)), number(24, 4),
                size == UINT32_MAX ? static_cast<uint32_t>(left.size()) : size},
               left};
}

void mustScale(const Bytes& samples, int volume) {
  Bytes scaled = samples;
  setWavVolume(scaled.data(), static_cast<int>(scaled.size()), volume);
  for (std::size_t at = 0; at + 1 < samples.size(); at += 2) {
    int16_t before = 0;
    int16_t after = 0;
    std::memcpy(&before, &samples[at], 2);
    std::memcpy(&after, &scaled[at], 2);
    MUST(after == (volume < 0 || volume > 100 ? before : before * volume / 100));
  }
  if (samples.size() % 2 == 1) MUST(scaled.back() == samples.back());
}

void mustBeReadBack(const Header& header, const Bytes& samples) {
  File file;
  MUST(file.Initialize(kCopy, vexo::utils::FILE_OPEN_TRUNCATE, 0));
  MUST(writeWavHeader(file, header.channels, header.sampleRate));
  MUST(file.WriteBuffer(samples.data(), samples.size()) && finalizeWavHeader(file));
  Bytes read;
  MUST(readWav(kCopy, read, header.channels, header.sampleRate, header.dataSize));
  MUST(read == samples);
}

}  // namespace

FUZZ_TARGET(wav) {
  const std::string bytes = input.rest();
  vexo::fuzz::write(kPath, bytes);
  const std::optional<Sound> sound = parse(bytes);
  Header header{7, 7, 7};
  const bool done = readWavHeader(kPath, header.channels, header.sampleRate, header.dataSize);
  const Header expected = sound ? sound->header : Header{7, 7, 7};
  MUST(done == sound.has_value() && header.channels == expected.channels &&
       header.sampleRate == expected.sampleRate && header.dataSize == expected.dataSize);

  Bytes samples{7};
  const bool read = readWav(kPath, samples, 0, 0, 0);
  MUST(read == (sound && header.dataSize <= sound->left.size()));
  MUST((vexo::fuzz::errors() > 0) == !read);
  if (!read) {
    MUST(samples == Bytes{7});
    return;
  }
  MUST(samples == Bytes(sound->left.begin(), sound->left.begin() + header.dataSize));
  if (header.dataSize == 0) return;
  MUST(!readWav(kPath, samples, 0, 0, header.dataSize - 1) || header.dataSize == 1);
  mustScale(samples, static_cast<int>(bytes.size() % 110) - 5);
  mustBeReadBack(header, samples);
}
