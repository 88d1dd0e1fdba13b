// Writes records of a binary format, field by field in network order, and finds the last one again:
// a tag of four characters, the size of what follows, a time in milliseconds, a temperature.

#include <cstdio>
#include <string>

#include <fcntl.h>
#include <stdint.h>

#include <vexo_utils/file.h>
#include <vexo_utils/timer.h>

namespace {

using vexo::utils::File;

constexpr bool kBigEndian = true;
constexpr uint32_t kTag = 0x54454d50;  // "TEMP"
constexpr uint32_t kBodySize = sizeof(int64_t) + sizeof(int16_t);
constexpr int64_t kRecordSize = 2 * sizeof(uint32_t) + kBodySize;

bool append(const std::string& path, int64_t timeMs, int16_t centiDegrees) {
  File file;
  return file.Initialize(path, vexo::utils::FILE_OPEN_APPEND, O_CLOEXEC) &&
         file.WriteUI32(kTag, kBigEndian) && file.WriteUI32(kBodySize, kBigEndian) &&
         file.WriteI64(timeMs, kBigEndian) && file.WriteI16(centiDegrees, kBigEndian) &&
         file.Flush();
}

bool readLast(const std::string& path, int64_t& timeMs, int16_t& centiDegrees) {
  File file;
  uint32_t tag = 0;
  uint32_t size = 0;
  return file.Initialize(path, vexo::utils::FILE_OPEN_READ, O_CLOEXEC) && file.SeekEnd() &&
         file.SeekBehind(kRecordSize) && file.PeekUI32(&tag, kBigEndian) && tag == kTag &&
         file.SeekAhead(sizeof tag) && file.ReadUI32(&size, kBigEndian) && size == kBodySize &&
         file.ReadI64(&timeMs, kBigEndian) && file.ReadI16(&centiDegrees, kBigEndian) &&
         file.IsEOF();
}

}  // namespace

int main() {
  const std::string path = "/tmp/temperatures";
  const int64_t start = nowWallMs();
  if (!append(path, start, -150) || !append(path, start + 2000, -100)) return 1;
  int64_t timeMs = 0;
  int16_t centiDegrees = 0;
  if (!readLast(path, timeMs, centiDegrees)) return 1;
  std::printf("the last record: %lld ms after the first, %.2f degrees\n",
              static_cast<long long>(timeMs - start), centiDegrees / 100.0);
  return 0;
}
