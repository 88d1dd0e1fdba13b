#include "vexo_utils/sound.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <exception>
#include <utility>

#include "internal/log.h"
#include "vexo_utils/file.h"

using vexo::utils::File;
using vexo::utils::FILE_OPEN_READ;

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "samples are scaled in host order");

namespace {

constexpr uint64_t kHeaderSize = 44;
constexpr uint64_t kRiffSizeAt = 4;  // counts what is behind it
constexpr uint64_t kRiffSizeEnd = kRiffSizeAt + 4;
constexpr uint64_t kDataSizeAt = 40;

constexpr uint32_t kFormatSize = 16;
constexpr uint16_t kPcm = 1;
constexpr uint16_t kBitsPerSample = 16;
constexpr uint16_t kSampleSize = kBitsPerSample / 8;
constexpr uint32_t kSizeOfStream = 0xFFFFFFFF;

struct Header {
  uint16_t channels = 0;
  uint32_t sampleRate = 0;
  uint32_t dataSize = 0;
};

void writeTag(File& file, const char (&tag)[5]) {
  file.WriteBuffer(reinterpret_cast<const uint8_t*>(tag), 4);
}

// ---- the header's parser ----

bool readTag(File& file, const char (&expected)[5]) {
  std::array<uint8_t, 4> tag{};
  return file.ReadBuffer(tag.data(), tag.size()) &&
         std::memcmp(tag.data(), expected, tag.size()) == 0;
}

// All before the bits per sample.
bool readFormat(File& file, Header& header) {
  uint32_t riffSize = 0;
  uint32_t formatSize = 0;
  uint16_t format = 0;
  uint32_t byteRate = 0;
  uint16_t blockAlign = 0;
  if (!readTag(file, "RIFF") || !file.ReadUI32(&riffSize, false)) return false;
  if (!readTag(file, "WAVE") || !readTag(file, "fmt ")) return false;
  if (!file.ReadUI32(&formatSize, false)) return false;
  if (formatSize != kFormatSize && formatSize != 18 && formatSize != 40) return false;
  if (!file.ReadUI16(&format, false) || format != kPcm) return false;
  return file.ReadUI16(&header.channels, false) && file.ReadUI32(&header.sampleRate, false) &&
         file.ReadUI32(&byteRate, false) && file.ReadUI16(&blockAlign, false);
}

uint64_t sizeLeft(File& file) {
  const uint64_t size = file.Size();
  const uint64_t position = file.Cursor();
  return size > position ? size - position : 0;
}

// Puts the cursor behind the first word "da" whose next word is "ta", of the 16-bit words from the
// cursor on. Chunks before the samples may be long: they are read in blocks.
bool findData(File& file) {
  std::array<uint8_t, 4096> block{};
  bool afterDa = false;  // that word may be the last one of the block before
  for (;;) {
    const uint64_t start = file.Cursor();
    const uint64_t size = std::min<uint64_t>(sizeLeft(file), block.size()) & ~uint64_t{1};
    // Never 0 behind a header: it cannot be told.
    if (start == 0 || size == 0 || !file.ReadBuffer(block.data(), size)) return false;
    for (std::size_t at = 0; at < size; at += 2) {
      const auto wordIs = [&](const char* text) {
        return std::memcmp(block.data() + at, text, 2) == 0;
      };
      if (afterDa && wordIs("ta")) return file.SeekTo(start + at + 2);
      afterDa = !afterDa && wordIs("da");  // a word behind "da" is not itself a beginning
    }
  }
}

// Leaves the cursor at the first sample.
bool parseHeader(File& file, Header& header) {
  if (!file.SeekBegin() || !readFormat(file, header)) {
    VEXO_LOG_ERROR("Failed to read WAV header");
    return false;
  }
  uint16_t bitsPerSample = 0;
  if (!file.ReadUI16(&bitsPerSample, false) || bitsPerSample != kBitsPerSample) {
    VEXO_LOG_ERROR("Failed to read WAV header: not a 16 bps source");
    return false;
  }
  if (!findData(file)) {
    VEXO_LOG_ERROR("Failed to read WAV header: data section not found");
    return false;
  }
  if (!file.ReadUI32(&header.dataSize, false)) {
    VEXO_LOG_ERROR("Failed to read WAV header");
    return false;
  }
  if (header.dataSize == kSizeOfStream) {
    header.dataSize = static_cast<uint32_t>(std::min<uint64_t>(sizeLeft(file), kSizeOfStream));
  }
  return true;
}

// False also when there is no memory for it.
bool readSamples(File& file, uint32_t size, std::vector<uint8_t>& data) {
  if (size > sizeLeft(file)) return false;
  std::vector<uint8_t> samples;
  try {
    samples.resize(size);
  } catch (const std::exception&) {
    return false;
  }
  if (!file.ReadBuffer(samples.data(), size)) return false;
  data = std::move(samples);
  return true;
}

// ---- volume ----

// Percent of a sample, rounded towards zero. In 16-bit arithmetic only, which GCC turns into
// vectors of eight samples: eight times as fast as a division by 100, which needs 32 bits.
class Volume {
 public:
  explicit Volume(int of100)
      : percent(static_cast<int16_t>(of100)),
        fraction(static_cast<int16_t>(of100 * 65536 / 100)),
        one(fraction < 0 ? -1 : 0) {}

  int16_t of(int16_t sample) const {
    // The fraction is cut off: the quotient is the wanted one or, as the rest then shows, one less.
    const auto quotient = static_cast<int16_t>((sample * fraction >> 16) + (sample & one));
    const auto rest = static_cast<int16_t>(sample * percent - quotient * 100);
    const int16_t most = sample < 0 ? 0 : 99;
    return static_cast<int16_t>(quotient + (rest > most));
  }

 private:
  int16_t percent;
  int16_t fraction;  // percent / 100 in 65536ths, less 1 if that is 0.5 or above
  int16_t one;       // all bits set if it is
};

template <std::size_t kSamples>
void scale(uint8_t* bytes, Volume volume) {
  std::array<int16_t, kSamples> samples{};
  std::memcpy(samples.data(), bytes, sizeof samples);
  for (int16_t& sample : samples) sample = volume.of(sample);
  std::memcpy(bytes, samples.data(), sizeof samples);
}

}  // namespace

bool writeWavHeader(File& file, uint16_t channels, uint32_t sampleRate) {
  writeTag(file, "RIFF");
  file.WriteUI32(0, false);
  writeTag(file, "WAVE");
  writeTag(file, "fmt ");
  file.WriteUI32(kFormatSize, false);
  file.WriteUI16(kPcm, false);
  file.WriteUI16(channels, false);
  file.WriteUI32(sampleRate, false);
  file.WriteUI32(sampleRate * channels * kSampleSize, false);
  file.WriteUI16(static_cast<uint16_t>(channels * kSampleSize), false);
  file.WriteUI16(kBitsPerSample, false);
  writeTag(file, "data");
  file.WriteUI32(0, false);
  return true;
}

bool finalizeWavHeader(File& file) {
  const uint64_t end = file.Cursor();
  if (end <= kHeaderSize) {
    VEXO_LOG_ERROR("EMPTY WAV");
    return false;
  }
  const auto dataSize = static_cast<uint32_t>(end - kHeaderSize);
  const auto riffSize = static_cast<uint32_t>(end - kRiffSizeEnd);
  if (!file.SeekTo(kDataSizeAt) || !file.WriteUI32(dataSize, false) || !file.SeekTo(kRiffSizeAt) ||
      !file.WriteUI32(riffSize, false)) {
    VEXO_LOG_ERROR("Internal error");
    return false;
  }
  file.Close();
  return true;
}

bool readWavHeader(const std::string& path, uint16_t& channels, uint32_t& sampleRate,
                   uint32_t& dataSize) {
  File file;
  if (!file.Initialize(path, FILE_OPEN_READ, 0)) {
    VEXO_LOG_ERROR("Failed to open WAV file");
    return false;
  }
  Header header;
  if (!parseHeader(file, header)) return false;
  channels = header.channels;
  sampleRate = header.sampleRate;
  dataSize = header.dataSize;
  return true;
}

bool readWav(const std::string& path, std::vector<uint8_t>& data, uint16_t expectedChannels,
             uint32_t expectedSampleRate, uint32_t maxDataSize) {
  File file;
  if (!file.Initialize(path, FILE_OPEN_READ, 0)) {
    VEXO_LOG_ERROR("Failed to open WAV file");
    return false;
  }
  Header header;
  if (!parseHeader(file, header)) {
    VEXO_LOG_ERROR("Failed to read WAV header");
    return false;
  }
  if (expectedChannels != 0 && header.channels != expectedChannels) {
    VEXO_LOG_ERROR("Invalid channels");
    return false;
  }
  if (expectedSampleRate != 0 && header.sampleRate != expectedSampleRate) {
    VEXO_LOG_ERROR("Invalid sample rate");
    return false;
  }
  if (maxDataSize != 0 && header.dataSize > maxDataSize) {
    VEXO_LOG_ERROR("WAV too large, dataSz=%d, expectMax=%d", static_cast<int>(header.dataSize),
                   static_cast<int>(maxDataSize));
    return false;
  }
  if (!readSamples(file, header.dataSize, data)) {
    VEXO_LOG_ERROR("Failed to read WAV contents");
    return false;
  }
  return true;
}

void setWavVolume(uint8_t* samples, int length, int volume) {
  constexpr int kFull = 100;
  if (volume == kFull) return;
  if (volume < 0 || volume > kFull) {
    VEXO_LOG_WARNING("Invalid volume chosen for the track: %d", volume);
    return;
  }
  constexpr std::size_t kVector = 8;  // samples
  const Volume wanted(volume);
  int left = length / kSampleSize;
  for (; left >= static_cast<int>(kVector); left -= static_cast<int>(kVector)) {
    scale<kVector>(samples, wanted);
    samples += kVector * kSampleSize;
  }
  for (; left > 0; --left, samples += kSampleSize) scale<1>(samples, wanted);
}
