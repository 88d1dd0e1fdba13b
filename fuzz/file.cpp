// Any sequence of typed reads, writes, looks ahead and seeks in a file, beside a string with a
// cursor.

#include <algorithm>

#include "fuzz.h"
#include "vexo_utils/file.h"

namespace {

using vexo::utils::File;

constexpr char kPath[] = "/tmp/input.bin";

struct Model {
  std::string bytes;
  std::size_t cursor = 0;
  uint64_t known;  // the size that bounds seeks

  explicit Model(std::string contents) : bytes(std::move(contents)), known(bytes.size()) {}

  std::size_t left() const { return bytes.size() - std::min(cursor, bytes.size()); }

  void write(const std::string& data) {
    if (data.empty()) return;  // also beyond the end, where other writes leave zeros
    bytes.resize(std::max(bytes.size(), cursor + data.size()));
    bytes.replace(cursor, data.size(), data);
    cursor += data.size();
    known += data.size();
  }

  // A read goes to the end when there is not enough.
  bool read(std::size_t count, bool looks) {
    const bool enough = left() >= count;
    if (!enough) cursor = std::max(cursor, bytes.size());
    if (enough && !looks) cursor += count;
    return enough;
  }
};

// The low bytes of a number in an order.
std::string bytesOf(uint64_t number, int size, bool bigEndian) {
  std::string bytes;
  for (int i = 0; i < size; ++i) bytes += static_cast<char>(number >> (8 * i));
  if (bigEndian) std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

bool write(File& file, int size, uint64_t number, bool bigEndian) {
  switch (size) {
    case 1:
      return file.WriteUI8(static_cast<uint8_t>(number));
    case 2:
      return file.WriteI16(static_cast<int16_t>(number), bigEndian);
    case 3:
      return file.WriteUI24(static_cast<uint32_t>(number), bigEndian);
    case 4:
      return file.WriteI32(static_cast<int32_t>(number), bigEndian);
    default:
      return file.WriteUI64(number, bigEndian);
  }
}

// With the read's or the look's own signedness: the low bytes are the same.
template <typename T, typename Read, typename Peek>
bool readAs(uint64_t& number, bool looks, Read read, Peek peek) {
  T value{};
  const bool done = looks ? peek(&value) : read(&value);
  number = static_cast<uint64_t>(value);
  return done;
}

bool read(File& file, int size, uint64_t& number, bool bigEndian, bool looks) {
  const bool big = bigEndian;
  switch (size) {
    case 1:
      return readAs<int8_t>(
          number, looks, [&](auto* v) { return file.ReadI8(v); },
          [&](auto* v) { return file.PeekI8(v); });
    case 2:
      return readAs<uint16_t>(
          number, looks, [&](auto* v) { return file.ReadUI16(v, big); },
          [&](auto* v) { return file.PeekUI16(v, big); });
    case 3:
      return readAs<int32_t>(
          number, looks, [&](auto* v) { return file.ReadI24(v, big); },
          [&](auto* v) { return file.PeekI24(v, big); });
    case 4:
      return readAs<uint32_t>(
          number, looks, [&](auto* v) { return file.ReadUI32(v, big); },
          [&](auto* v) { return file.PeekUI32(v, big); });
    default:
      return readAs<int64_t>(
          number, looks, [&](auto* v) { return file.ReadI64(v, big); },
          [&](auto* v) { return file.PeekI64(v, big); });
  }
}

void checkRead(File& file, Model& model, int size, bool bigEndian, bool looks) {
  const std::string expected = model.bytes.substr(std::min(model.cursor, model.bytes.size()),
                                                  static_cast<std::size_t>(size));
  uint64_t number = 0;
  const bool done = read(file, size, number, bigEndian, looks);
  MUST(done == model.read(static_cast<std::size_t>(size), looks));
  if (done) MUST(bytesOf(number, size, bigEndian) == expected);
}

void checkSeek(File& file, Model& model, unsigned how, uint64_t count) {
  const auto signedCount = static_cast<int64_t>(count);
  uint64_t target = count;
  bool done = false;
  switch (how) {
    case 0:
      done = file.SeekTo(count);
      break;
    case 1:
      done = file.SeekAhead(signedCount);
      target = model.cursor + count;
      break;
    case 2:
      done = file.SeekBehind(signedCount);
      target = model.cursor - count;
      break;
    default:
      MUST(count % 2 == 0 ? file.SeekBegin() : file.SeekEnd());
      model.cursor = count % 2 == 0 ? 0 : model.bytes.size();
      return;
  }
  const bool isNegative = how != 0 && signedCount < 0;
  const bool allowed = !isNegative && (how == 2 ? count <= model.cursor : target <= model.known);
  MUST(done == allowed);
  if (done) model.cursor = static_cast<std::size_t>(target);
}

}  // namespace

FUZZ_TARGET(file) {
  Model model(input.part());
  vexo::fuzz::write(kPath, model.bytes);
  File file;
  MUST(file.Initialize(kPath, vexo::utils::FILE_OPEN_READ_WRITE, 0));
  while (!input.empty()) {
    const unsigned what = input.byte();
    const bool bigEndian = (what & 0x80) != 0;
    constexpr int kSizes[] = {1, 2, 3, 4, 8};
    const int size = kSizes[what / 8 % 5];
    switch (what % 8) {
      case 0:
      case 1: {
        const uint64_t number = input.number(8);
        MUST(write(file, size, number, bigEndian));
        model.write(bytesOf(number, size, bigEndian));
        break;
      }
      case 2:
      case 3:
        checkRead(file, model, size, bigEndian, what % 8 == 3);
        break;
      case 4:
        checkSeek(file, model, what / 8 % 4, input.number(bigEndian ? 8 : 1));
        break;
      case 5: {
        const std::string text = input.part();
        MUST(file.WriteString(text));
        model.write(text);
        break;
      }
      case 6:
        MUST(file.Size() == model.bytes.size());
        model.known = model.bytes.size();
        break;
      default: {
        std::string all = "before";
        MUST(file.IsEOF() == (model.cursor == model.bytes.size() || model.cursor > model.known));
        if (model.cursor > model.known) model.cursor = model.bytes.size();
        MUST(file.ReadStringAll(all) && all == model.bytes);
        model.known = model.bytes.size();
        if (!all.empty()) model.cursor = model.bytes.size();
      }
    }
    MUST(file.Cursor() == model.cursor);
  }
}
