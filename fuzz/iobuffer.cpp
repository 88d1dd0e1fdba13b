// Any sequence of operations on an IOBuffer, beside a string and the numbers as they come from
// copying for every move.

#include <algorithm>
#include <string_view>
#include <utility>

#include <fcntl.h>

#include "fuzz.h"
#include "vexo_utils/iobuffer.h"

namespace {

using vexo::utils::IOBuffer;

constexpr unsigned kPage = 4096;

struct Model {
  std::string bytes;
  std::size_t read = 0;  // of the bytes
  uint64_t size = 0, published = 0, consumed = 0;
  unsigned limit = 0x800000;
  int shrunk = 0;  // how often

  std::string_view unread() const { return std::string_view(bytes).substr(read); }

  void move(bool anyway) {
    if (consumed < unread().size() && !anyway) return;
    published = unread().size();
    consumed = 0;
  }

  void ensure(std::size_t count) {
    if (size - published >= count) return;
    move(false);
    if (size - published >= count) return;
    size = (count + unread().size() + kPage - 1) / kPage * kPage;
    move(true);
  }

  void append(std::string_view data) {
    ensure(data.size());
    published += data.size();
    bytes += data;
  }

  void recycle() {
    if (consumed != published) return;
    published = consumed = 0;
    if (limit == 0 || limit >= size) return;
    size = limit;
    ++shrunk;
  }

  void drop(std::size_t count) {
    consumed += count;
    read += count;
    if (read >= bytes.size() / 2) bytes.erase(0, std::exchange(read, 0));
  }
};

std::string_view unread(const IOBuffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.Unread()), buffer.UnreadSize()};
}

// Sizes of all magnitudes up to 32 KiB, most of them small.
unsigned sizeFrom(vexo::fuzz::Input& input) {
  const auto number = static_cast<unsigned>(input.number(2));
  return (number & 0xFFF) << (number >> 12) / 4;
}

bool append(IOBuffer& buffer, std::string_view data) {
  return buffer.ReadFromBuffer(reinterpret_cast<const unsigned char*>(data.data()),
                               static_cast<unsigned>(data.size()));
}

}  // namespace

FUZZ_TARGET(iobuffer) {
  static const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  IOBuffer buffer("queue");
  Model model;
  unsigned char fill = 0;
  unsigned steps = 0;
  while (!input.empty()) {
    const unsigned what = input.byte() % 10;
    const unsigned count = sizeFrom(input);
    const std::string data(count, static_cast<char>(++fill));
    const unsigned some = std::min(count, buffer.UnreadSize());
    int sent = 0;
    switch (what) {
      case 0:
      case 1:
        MUST(append(buffer, data));
        model.append(data);
        break;
      case 2:
        MUST(buffer.ReadFromRepeat(fill, count));
        model.append(data);
        break;
      case 3: {  // each piece makes room for itself
        const unsigned skip = count == 0 ? 0 : fill % count;
        const std::string head(skip, '?');
        std::string all = head + data;
        const std::size_t cut = std::min<std::size_t>(all.size(), skip + fill);
        const iovec pieces[] = {{all.data(), cut}, {all.data() + cut, all.size() - cut}};
        MUST(buffer.ReadFromBuffer(pieces, 2, skip));
        if (cut > skip) model.append(std::string_view(all).substr(skip, cut - skip));
        if (cut < all.size()) model.append(std::string_view(all).substr(cut));
        break;
      }
      case 4:
        MUST(buffer.EnsureSize(count));
        model.ensure(count);
        break;
      case 5:
        MUST(buffer.MoveData());
        model.move(false);
        break;
      case 6:
        model.limit = count;
        buffer.SetFreeSpaceLimit(count);
        buffer.Recycle();
        model.recycle();
        break;
      case 7:
        MUST(buffer.IgnoreAll());
        model.drop(model.unread().size());
        model.recycle();
        break;
      case 8:
        MUST(buffer.WriteToFd(null, count, sent) && sent == static_cast<int>(some));
        model.drop(some);
        if (count > 0) model.recycle();
        break;
      default:
        MUST(buffer.Ignore(some));
        model.drop(some);
        model.recycle();
    }
    // What is read next; all of it takes most of the time.
    const std::size_t looked = ++steps % 64 == 0 ? std::string::npos : 100;
    MUST(unread(buffer).substr(0, looked) == model.unread().substr(0, looked));
    MUST(buffer.Size() == model.size && buffer.Published() == model.published &&
         buffer.Consumed() == model.consumed && vexo::fuzz::warnings() == model.shrunk);
  }
  IOBuffer other("other");
  append(other, model.unread());
  MUST(other == buffer);
  other.Swap(buffer);
  MUST(unread(other) == model.unread() && buffer.Published() == model.unread().size());
  const auto end = std::min(other.Published(), 1000U);
  MUST(end == 0 || other.ToString(0, end).size() >= 4 * end);
}
