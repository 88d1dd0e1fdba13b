#include "vexo_utils/sound.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "log_recorder.h"
#include "vexo_utils/file.h"

namespace {

namespace fs = std::filesystem;
using vexo::test::kError;
using vexo::test::kWarning;
using vexo::test::logged;
using vexo::test::readFile;
using vexo::test::writeFile;
using vexo::utils::File;

constexpr char kPath[] = "/tmp/sound.wav";

std::string littleEndian(uint32_t value, std::size_t size) {
  std::string bytes;
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

std::string text(const std::vector<uint8_t>& data) {
  return {data.begin(), data.end()};
}

// The parts of a file, each as it should be.
struct Wav {
  std::string riff = "RIFF";
  std::string format = "WAVEfmt ";
  uint32_t formatSize = 16;
  uint32_t tag = 1;
  uint32_t bits = 16;
  std::string chunks;  // between format and samples, the tag of the samples' chunk included
  uint32_t dataSize = 8;
  std::string samples = "12345678";

  std::string bytes() const {
    return riff + littleEndian(36 + 8, 4) + format + littleEndian(formatSize, 4) +
           littleEndian(tag, 2) + littleEndian(2, 2) + littleEndian(16000, 4) +
           littleEndian(64000, 4) + littleEndian(4, 2) + littleEndian(bits, 2) + chunks +
           littleEndian(dataSize, 4) + samples;
  }
};

Wav wavWith(const std::string& chunks, uint32_t dataSize = 8) {
  Wav wav;
  wav.chunks = chunks;
  wav.dataSize = dataSize;
  return wav;
}

// ---- ours ----

TEST(Sound, WritesTheCanonicalHeader) {
  File file;
  ASSERT_TRUE(file.Initialize(kPath, vexo::utils::FILE_OPEN_TRUNCATE, 0));
  EXPECT_TRUE(writeWavHeader(file, 2, 16000));
  EXPECT_FALSE(finalizeWavHeader(file));
  EXPECT_TRUE(logged(kError, "EMPTY WAV", 0));
  EXPECT_TRUE(file.IsOpen());
  EXPECT_TRUE(file.WriteString("12345678"));
  EXPECT_TRUE(finalizeWavHeader(file));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(readFile(kPath), wavWith("data").bytes());

  ASSERT_TRUE(file.Initialize(kPath, vexo::utils::FILE_OPEN_READ, 0));
  EXPECT_TRUE(file.SeekEnd());
  EXPECT_FALSE(finalizeWavHeader(file));
  EXPECT_TRUE(logged(kError, "Unable to write 4 bytes to file", EBADF));
  EXPECT_TRUE(logged(kError, "Internal error"));
  EXPECT_NE(file.GetFD(), -1);
  file.Close();
  EXPECT_TRUE(writeWavHeader(file, 1, 8000));  // whatever comes of it
  for (int i = 0; i < 13; ++i) EXPECT_TRUE(logged(kError, "Invalid descriptor"));
}

TEST(Sound, FindsTheSamplesBehindOtherChunks) {
  const std::string longChunk(4096 - 2, 'x');  // the tag lies across two blocks of the search
  struct {
    std::string chunks;
    bool found;
    uint32_t formatSize = 16;
  } const rows[] = {
      {std::string(2, '\0') + "data", true, 18},
      {std::string(24, '\0') + "data", true, 40},
      {"LIST" + littleEndian(4, 4) + "INFOdata", true},
      {"dada" + longChunk + "data", true},
      {longChunk + "data", true},
      {"d" + longChunk + "ata ", false},  // at an odd offset
      {"dadata", false},                  // the second "da" is taken as the first one's other half
      {"dadadata", true},
      {"data", true},
      {"datda", false},
      {"", false},
  };
  for (const auto& row : rows) {
    Wav wav = wavWith(row.chunks);
    wav.formatSize = row.formatSize;
    writeFile(kPath, wav.bytes());
    uint16_t channels = 0;
    uint32_t sampleRate = 0;
    uint32_t dataSize = 0;
    EXPECT_EQ(readWavHeader(kPath, channels, sampleRate, dataSize), row.found) << row.chunks;
    EXPECT_EQ(channels, row.found ? 2 : 0);
    EXPECT_EQ(sampleRate, row.found ? 16000U : 0U);
    EXPECT_EQ(dataSize, row.found ? 8U : 0U);
    EXPECT_TRUE(row.found ||
                logged(kError, "Failed to read WAV header: data section not found", 0));
  }
}

TEST(Sound, RefusesWhatIsNoSound) {
  struct Refused {
    Wav wav;
    std::vector<std::string> errors;
    uint16_t channels = 2;
    uint32_t sampleRate = 16000;
    uint32_t maxDataSize = 8;
  };
  std::vector<Refused> rows;
  const std::string bad = "Failed to read WAV header";
  const auto add = [&](Wav wav, std::vector<std::string> errors) -> Refused& {
    rows.push_back({std::move(wav), std::move(errors)});
    return rows.back();
  };
  const std::string contents = "Failed to read WAV contents";
  for (const uint32_t tag : {0U, 3U, 0xFFFEU}) add(wavWith("data"), {bad, bad}).wav.tag = tag;
  for (const uint32_t size : {0U, 17U, 0xFFFFFFFFU}) {
    add(wavWith("data"), {bad, bad}).wav.formatSize = size;
  }
  add(wavWith("data"), {bad, bad}).wav.riff = "RIFX";
  add(wavWith("data"), {bad, bad}).wav.format = "WAVELIST";
  add(wavWith("data"), {bad + ": not a 16 bps source", bad}).wav.bits = 24;
  add(wavWith(""), {bad + ": data section not found", bad});
  add(wavWith("data"), {"Invalid channels"}).channels = 1;
  add(wavWith("data"), {"Invalid sample rate"}).sampleRate = 8000;
  add(wavWith("data"), {"WAV too large, dataSz=8, expectMax=7"}).maxDataSize = 7;
  add(wavWith("data", 9), {contents}).maxDataSize = 0;
  add(wavWith("data", 0xFFFFFFFE), {contents}).maxDataSize = 0;
  for (const Refused& row : rows) {
    writeFile(kPath, row.wav.bytes());
    std::vector<uint8_t> data = {1, 2};
    EXPECT_FALSE(readWav(kPath, data, row.channels, row.sampleRate, row.maxDataSize));
    for (const std::string& error : row.errors) EXPECT_TRUE(logged(kError, error, 0));
    EXPECT_EQ(data, std::vector<uint8_t>({1, 2}));
  }

  const std::string whole = wavWith("data").bytes();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    writeFile(kPath, whole.substr(0, length));
    std::vector<uint8_t> data = {1, 2};
    EXPECT_FALSE(readWav(kPath, data, 0, 0, 0)) << length;
    EXPECT_EQ(data.size(), 2U);
  }
  fs::remove(kPath);
  std::vector<uint8_t> data;
  vexo::test::forgetLog();
  EXPECT_FALSE(readWav(kPath, data, 0, 0, 0));
  EXPECT_TRUE(logged(kError, "Unable to open file /tmp/sound.wav with mode `0`", ENOENT));
  EXPECT_TRUE(logged(kError, "Failed to open WAV file"));
}

TEST(Sound, AStreamHasWhatIsLeftOfTheFile) {
  writeFile(kPath, wavWith("data", 0xFFFFFFFF).bytes());
  std::vector<uint8_t> data;
  EXPECT_TRUE(readWav(kPath, data, 0, 0, 0));
  EXPECT_EQ(text(data), "12345678");

  fs::resize_file(kPath, 5ULL << 30);
  uint16_t channels = 0;
  uint32_t sampleRate = 0;
  uint32_t dataSize = 0;
  EXPECT_TRUE(readWavHeader(kPath, channels, sampleRate, dataSize));
  EXPECT_EQ(dataSize, 0xFFFFFFFF);
  EXPECT_FALSE(readWav(kPath, data, 0, 0, 1000));
  EXPECT_TRUE(logged(kError, "WAV too large, dataSz=-1, expectMax=1000"));
  EXPECT_EQ(text(data), "12345678");
}

// ---- others' ----

class Sox : public testing::Test {
 protected:
  void SetUp() override {
    if (std::system("command -v sox >/dev/null") != 0) GTEST_SKIP() << "sox is not installed";
  }

  static std::string outputOf(const std::string& command) {
    std::string output;
    std::array<char, 4096> block{};
    std::FILE* pipe = popen(command.c_str(), "r");
    while (const std::size_t got = std::fread(block.data(), 1, block.size(), pipe)) {
      output.append(block.data(), got);
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
  }

  // The samples of kPath, as sox reads them.
  static std::string samples() { return outputOf("sox -V1 /tmp/sound.wav -t raw -"); }
};

TEST_F(Sox, ReadsOurs) {
  std::string samples;
  for (uint32_t i = 0; i < 2000; ++i) samples += littleEndian(i * i, 2);
  for (const uint16_t channels : {uint16_t{1}, uint16_t{2}}) {
    File file;
    ASSERT_TRUE(file.Initialize(kPath, vexo::utils::FILE_OPEN_TRUNCATE, 0));
    EXPECT_TRUE(writeWavHeader(file, channels, 44100));
    EXPECT_TRUE(file.WriteString(samples));
    EXPECT_TRUE(finalizeWavHeader(file));
    EXPECT_EQ(Sox::samples(), samples);
    EXPECT_EQ(outputOf("soxi -c /tmp/sound.wav; soxi -r /tmp/sound.wav; soxi -s /tmp/sound.wav"),
              std::to_string(channels) + "\n44100\n" + std::to_string(2000 / channels) + "\n");
  }
}

TEST_F(Sox, WritesWhatWeRead) {
  struct {
    std::string arguments;  // of an output, to which a second of noise is written
    uint16_t channels;
    bool read;
  } const rows[] = {
      {"-c 1 -b 16 /tmp/sound.wav", 1, true},  {"-c 2 -b 16 /tmp/sound.wav", 2, true},
      {"-c 4 -b 16 /tmp/sound.wav", 4, false},  // sox writes the extensible format
      {"-c 1 -b 24 /tmp/sound.wav", 1, false},  // as well
      {"-c 1 -b 8 /tmp/sound.wav", 1, false},
  };
  for (const auto& row : rows) {
    outputOf("sox -V1 -n -r 16000 " + row.arguments + " synth 1 noise");
    std::vector<uint8_t> data;
    EXPECT_EQ(readWav(kPath, data, row.channels, 16000, 1 << 20), row.read) << row.arguments;
    EXPECT_EQ(text(data), row.read ? samples() : "");
    if (!row.read) vexo::test::forgetLog();
  }
}

TEST_F(Sox, AgreesOnAListChunkAndOnStreams) {
  outputOf("sox -V1 -n -r 16000 -c 1 -b 16 /tmp/sound.wav synth 1 noise");
  const std::string plain = readFile(kPath);
  std::vector<uint8_t> data;
  const std::string list = "LIST" + littleEndian(16, 4) + "INFOISFT" + littleEndian(4, 4) + "abc";
  std::string wav = plain;
  wav.insert(36, list + std::string(1, '\0'));
  writeFile(kPath, wav);
  EXPECT_TRUE(readWav(kPath, data, 1, 16000, 0));
  EXPECT_EQ(text(data), samples());
  EXPECT_EQ(text(data), plain.substr(44));

  // Into a pipe sox writes the largest size that it allows itself; others write 0xFFFFFFFF.
  wav = outputOf("sox -V1 -n -r 16000 -c 1 -b 16 -t wav - synth 1 noise");
  writeFile(kPath, wav);
  EXPECT_FALSE(readWav(kPath, data, 1, 16000, 0));
  EXPECT_TRUE(logged(kError, "Failed to read WAV contents"));
  writeFile(kPath, wav.replace(40, 4, "\xFF\xFF\xFF\xFF"));
  EXPECT_TRUE(readWav(kPath, data, 1, 16000, 0));
  EXPECT_EQ(text(data), wav.substr(44));
}

// ---- volume ----

TEST(Sound, VolumeRoundsTowardsZeroForEverySample) {
  std::vector<int16_t> all(65536);
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<int16_t>(i);
  for (int volume = 0; volume <= 100; ++volume) {
    std::vector<int16_t> scaled = all;
    setWavVolume(reinterpret_cast<uint8_t*>(scaled.data()), 2 * 65536, volume);
    for (std::size_t i = 0; i < all.size(); ++i) ASSERT_EQ(scaled[i], all[i] * volume / 100);
  }
}

TEST(Sound, VolumeTouchesWholeSamplesOfTheGivenLength) {
  for (int length = -3; length < 40; ++length) {
    std::string bytes(48, '\x01');
    setWavVolume(reinterpret_cast<uint8_t*>(bytes.data()) + 1, length, 0);  // unaligned
    const std::size_t scaled = length > 0 ? static_cast<std::size_t>(length) / 2 * 2 : 0;
    EXPECT_EQ(bytes, "\x01" + std::string(scaled, '\0') + std::string(47 - scaled, '\x01'));
  }
  for (const int volume : {101, -1, INT32_MIN}) {
    uint8_t bytes[] = {1, 2};
    setWavVolume(bytes, 2, volume);
    EXPECT_TRUE(bytes[0] == 1 && bytes[1] == 2);
    EXPECT_TRUE(
        logged(kWarning, "Invalid volume chosen for the track: " + std::to_string(volume), 0));
  }
}

}  // namespace
