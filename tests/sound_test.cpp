#include "vexo_utils/sound.h"

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"
#include "log_recorder.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/file.h"

namespace {

using namespace vexo::test;
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
  std::string chunks =
      "data";  // between format and samples, the tag of the samples' chunk included
  uint32_t dataSize = 8;
  std::string riff = "RIFF";
  std::string format = "WAVEfmt ";
  uint32_t formatSize = 16;
  uint32_t tag = 1;
  uint32_t bits = 16;

  std::string bytes() const {
    return riff + littleEndian(36 + 8, 4) + format + littleEndian(formatSize, 4) +
           littleEndian(tag, 2) + littleEndian(2, 2) + littleEndian(16000, 4) +
           littleEndian(64000, 4) + littleEndian(4, 2) + littleEndian(bits, 2) + chunks +
           littleEndian(dataSize, 4) + "12345678";
  }
};

// ---- ours ----

TEST(Sound, WritesTheCanonicalHeader) {
  File file;
  ASSERT_TRUE(file.Initialize(kPath, vexo::utils::FILE_OPEN_TRUNCATE, 0));
  EXPECT_TRUE(writeWavHeader(file, 2, 16000));
  EXPECT_TRUE(refused(finalizeWavHeader(file), "EMPTY WAV", 0));
  EXPECT_TRUE(file.IsOpen() && file.WriteString("12345678") && finalizeWavHeader(file));
  EXPECT_FALSE(file.IsOpen());
  EXPECT_EQ(readFile(kPath), Wav().bytes());

  ASSERT_TRUE(file.Initialize(kPath, vexo::utils::FILE_OPEN_READ, 0));
  EXPECT_TRUE(file.SeekEnd());
  EXPECT_TRUE(refused(finalizeWavHeader(file), "Unable to write 4 bytes to file", EBADF));
  EXPECT_TRUE(logged(kError, "Internal error"));
  EXPECT_NE(file.GetFD(), -1);
}

TEST(Sound, RefusesWhatIsNoSound) {
  const std::string bad = "Failed to read WAV header";
  struct {
    Wav wav;
    std::string error;
    uint16_t channels = 2;
    uint32_t sampleRate = 16000;
    uint32_t maxDataSize = 8;
  } const rows[] = {{{}, "Invalid channels", 1},
                    {{}, "Invalid sample rate", 2, 8000},
                    {{}, "WAV too large, dataSz=8, expectMax=7", 2, 16000, 7},
                    {{"data", 9}, "Failed to read WAV contents", 0, 0, 0},
                    {{"data", 0xFFFFFFFE}, "Failed to read WAV contents", 0, 0, 0},
                    {{"none"}, bad + ": data section not found"},
                    {{"data", 8, "RIFX"}, bad},
                    {{"data", 8, "RIFF", "WAVELIST"}, bad},
                    {{"data", 8, "RIFF", "WAVEfmt ", 17}, bad},
                    {{"data", 8, "RIFF", "WAVEfmt ", 0xFFFFFFFF}, bad},
                    {{"data", 8, "RIFF", "WAVEfmt ", 16, 0xFFFE}, bad},
                    {{"data", 8, "RIFF", "WAVEfmt ", 16, 1, 24}, bad + ": not a 16 bps source"}};
  std::vector<uint8_t> data = {1, 2};
  for (const auto& row : rows) {
    writeFile(kPath, row.wav.bytes());
    EXPECT_TRUE(
        refused(readWav(kPath, data, row.channels, row.sampleRate, row.maxDataSize), row.error, 0));
    EXPECT_TRUE(row.error.rfind(bad, 0) != 0 || logged(kError, bad, 0));  // of readWav itself
  }
  const std::string whole = Wav().bytes();
  for (std::size_t length = 0; length < whole.size(); ++length) {
    writeFile(kPath, whole.substr(0, length));
    EXPECT_FALSE(readWav(kPath, data, 0, 0, 0)) << length;
  }
  EXPECT_EQ(text(data), "\1\2");
  forgetLog();
  EXPECT_TRUE(refused(readWav("/missing", data, 0, 0, 0),
                      "Unable to open file /missing with mode `0`", ENOENT));
  EXPECT_TRUE(logged(kError, "Failed to open WAV file"));
}

TEST(Sound, AStreamHasWhatIsLeftOfTheFile) {
  writeFile(kPath, Wav{"data", 0xFFFFFFFF}.bytes());
  std::vector<uint8_t> data;
  EXPECT_TRUE(readWav(kPath, data, 2, 16000, 8));
  EXPECT_EQ(text(data), "12345678");
  std::filesystem::resize_file(kPath, 5ULL << 30);
  EXPECT_TRUE(
      refused(readWav(kPath, data, 0, 0, 1000), "WAV too large, dataSz=-1, expectMax=1000"));
  EXPECT_EQ(text(data), "12345678");
}

// ---- others' ----

class Sox : public testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists("/usr/bin/sox")) GTEST_SKIP() << "sox is not installed";
  }

  static std::string outputOf(const std::string& command) {
    std::string output;
    EXPECT_EQ(vexo::utils::shellExec(command, nullptr, &output, nullptr, 0, 0, 0), 0) << command;
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
    EXPECT_TRUE(writeWavHeader(file, channels, 44100) && file.WriteString(samples));
    EXPECT_TRUE(finalizeWavHeader(file));
    EXPECT_EQ(Sox::samples(), samples);
    EXPECT_EQ(outputOf("for what in c r s; do soxi -$what /tmp/sound.wav; done"),
              std::to_string(channels) + "\n44100\n" + std::to_string(2000 / channels) + "\n");
  }
}

TEST_F(Sox, WritesWhatWeRead) {
  struct {
    std::string arguments;  // of an output, to which a second of noise is written
    uint16_t channels;
    bool read;
  } const rows[] = {{"-c 2 -b 16", 2, true},
                    {"-c 4 -b 16", 4, false},  // sox writes the extensible format
                    {"-c 1 -b 8", 1, false},
                    {"-c 1 -b 16", 1, true}};
  std::vector<uint8_t> data;
  for (const auto& row : rows) {
    outputOf("sox -V1 -n -r 16000 " + row.arguments + " /tmp/sound.wav synth 1 noise");
    EXPECT_EQ(readWav(kPath, data, row.channels, 16000, 1 << 20), row.read) << row.arguments;
    EXPECT_EQ(text(data) == samples(), row.read);
  }
  forgetLog();

  const std::string list = "LIST" + littleEndian(16, 4) + "INFOISFT" + littleEndian(4, 4) + "abc";
  writeFile(kPath, readFile(kPath).insert(36, list + std::string(1, '\0')));
  EXPECT_TRUE(readWav(kPath, data, 1, 16000, 0));
  EXPECT_EQ(text(data), samples());

  // Into a pipe sox writes the largest size that it allows itself; others write 0xFFFFFFFF.
  std::string wav = outputOf("sox -V1 -n -r 16000 -c 1 -b 16 -t wav - synth 1 noise");
  writeFile(kPath, wav);
  EXPECT_TRUE(refused(readWav(kPath, data, 1, 16000, 0), "Failed to read WAV contents"));
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
