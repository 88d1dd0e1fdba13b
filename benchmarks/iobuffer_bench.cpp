// Measures IOBuffer beside libevent's evbuffer, boost::asio::streambuf and a std::string that is
// read at an offset and cut when half of it has been. All queue the same bytes and take them out,
// each by the calls of its interface that are fastest for it. evbuffer depends on what the other
// contestants have taught malloc(3): alone in a process, it falls behind seven times slower.
//
//   iobuffer_bench                     all rows, the repetitions of all contestants shuffled
//   iobuffer_bench --benchmark_...     as any Google Benchmark program
//
// Times are the thread's processor time: for one piece in the rows of pieces, with its share of
// filling and emptying the sockets in those of the relay, and for all in the others.
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <event2/buffer.h>
#include <sys/socket.h>
#include <unistd.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/streambuf.hpp>

#include <vexo_utils/iobuffer.h>

#include "comparison_reporter.h"
#include "measure.h"

namespace vexo::bench {

namespace {

using benchmark::Counter;
using benchmark::State;

constexpr char kOurs[] = "vexo";
constexpr char kEvbuffer[] = "evbuffer";
constexpr char kStreambuf[] = "streambuf";
constexpr char kString[] = "string";

const std::vector<Contestant> kContestants = {{kOurs, false, nullptr},
                                              {kEvbuffer, true, nullptr},
                                              {kStreambuf, true, nullptr},
                                              {kString, true, nullptr}};

constexpr std::size_t kKiB = 1 << 10;
constexpr std::size_t kMiB = 1 << 20;

// ---- the contestants: append, take to other memory, drop, and both ends at sockets ----

class Ours {
 public:
  void append(const void* data, std::size_t count) {
    buffer.ReadFromBuffer(static_cast<const unsigned char*>(data), static_cast<unsigned>(count));
  }
  void take(void* to, std::size_t count) {
    std::memcpy(to, buffer.Unread(), count);
    drop(count);
  }
  void drop(std::size_t count) { buffer.Ignore(static_cast<unsigned>(count)); }
  std::size_t size() const { return buffer.UnreadSize(); }
  bool receive(int fd, std::size_t count) {
    int got = 0;
    return buffer.ReadFromTCPFd(fd, static_cast<unsigned>(count), got) && got > 0;
  }
  bool send(int fd) {
    int sent = 0;
    return buffer.WriteToFd(fd, buffer.UnreadSize(), sent) && sent > 0;
  }

 private:
  utils::IOBuffer buffer{"bench"};
};

class Evbuffer {
 public:
  Evbuffer() = default;
  Evbuffer(const Evbuffer&) = delete;
  Evbuffer& operator=(const Evbuffer&) = delete;
  ~Evbuffer() { evbuffer_free(buffer); }

  void append(const void* data, std::size_t count) { evbuffer_add(buffer, data, count); }
  void take(void* to, std::size_t count) { evbuffer_remove(buffer, to, count); }
  void drop(std::size_t count) { evbuffer_drain(buffer, count); }
  std::size_t size() const { return evbuffer_get_length(buffer); }
  // Not evbuffer_read, which asks the kernel for the number first and reads at most 4 KiB.
  bool receive(int fd, std::size_t count) {
    evbuffer_iovec space{};
    if (evbuffer_reserve_space(buffer, static_cast<ev_ssize_t>(count), &space, 1) != 1)
      return false;
    const ssize_t got = recv(fd, space.iov_base, count, MSG_DONTWAIT);
    space.iov_len = got > 0 ? static_cast<std::size_t>(got) : 0;
    return evbuffer_commit_space(buffer, &space, 1) == 0 && got > 0;
  }
  bool send(int fd) { return evbuffer_write(buffer, fd) > 0; }

 private:
  evbuffer* const buffer = evbuffer_new();
};

class Streambuf {
 public:
  void append(const void* data, std::size_t count) {
    buffer.commit(
        boost::asio::buffer_copy(buffer.prepare(count), boost::asio::buffer(data, count)));
  }
  void take(void* to, std::size_t count) {
    boost::asio::buffer_copy(boost::asio::buffer(to, count), buffer.data());
    drop(count);
  }
  void drop(std::size_t count) { buffer.consume(count); }
  std::size_t size() const { return buffer.size(); }
  bool receive(int fd, std::size_t count) {
    const ssize_t got = recv(fd, buffer.prepare(count).data(), count, MSG_DONTWAIT);
    if (got > 0) buffer.commit(static_cast<std::size_t>(got));
    return got > 0;
  }
  bool send(int fd) {
    const ssize_t sent = write(fd, buffer.data().data(), buffer.size());
    if (sent > 0) buffer.consume(static_cast<std::size_t>(sent));
    return sent > 0;
  }

 private:
  boost::asio::streambuf buffer;
};

class String {
 public:
  void append(const void* data, std::size_t count) {
    buffer.append(static_cast<const char*>(data), count);
  }
  void take(void* to, std::size_t count) {
    std::memcpy(to, buffer.data() + offset, count);
    drop(count);
  }
  void drop(std::size_t count) {
    offset += count;
    if (offset < buffer.size() - offset) return;
    buffer.erase(0, offset);
    offset = 0;
  }
  std::size_t size() const { return buffer.size() - offset; }
  bool receive(int fd, std::size_t count) {
    const std::size_t before = buffer.size();
    buffer.resize(before + count);
    const ssize_t got = recv(fd, buffer.data() + before, count, MSG_DONTWAIT);
    buffer.resize(before + (got > 0 ? static_cast<std::size_t>(got) : 0));
    return got > 0;
  }
  bool send(int fd) {
    const ssize_t sent = write(fd, buffer.data() + offset, size());
    if (sent > 0) drop(static_cast<std::size_t>(sent));
    return sent > 0;
  }

 private:
  std::string buffer;
  std::size_t offset = 0;
};

// ---- rows ----

// Where pieces come from and go to. The same cache line's offset for all: some processors copy many
// times slower between addresses that are a few bytes apart in their pages.
struct alignas(4096) Memory {
  char* data() { return bytes.data(); }
  std::array<char, 64 * kKiB> bytes;
};

// Appends a piece and takes one, with `queued` bytes between them.
template <typename Queue>
void pass(State& state, std::size_t piece, std::size_t queued) {
  const std::string data(piece, 'x');
  Queue queue;
  while (queue.size() < queued) queue.append(data.data(), piece);
  std::string taken(piece, ' ');
  measure(state, [&] {
    queue.append(data.data(), piece);

    queue.take(taken.data(), piece);
  });
  require(queue.size() == queued, "keep the number of bytes");
}

// A new queue each time, filled and thrown away.
template <typename Queue>
void grow(State& state) {
  constexpr std::size_t kPiece = 16 * kKiB;
  const std::string data(kPiece, 'x');
  measure(state, [&] {
    Queue queue;
    while (queue.size() < 64 * kMiB) queue.append(data.data(), kPiece);
  });
}

// Two pieces in for each one out until 8 MiB are queued, then all out; the same queue each time.
template <typename Queue>
void fallBehind(State& state) {
  constexpr std::size_t kPiece = 4 * kKiB;
  const std::string data(kPiece, 'x');
  Queue queue;
  measure(state, [&] {
    while (queue.size() < 8 * kMiB - kPiece) {
      queue.append(data.data(), kPiece);
      queue.append(data.data(), kPiece);
      queue.drop(kPiece);
    }
    while (queue.size() > 0) queue.drop(kPiece);
  });
}

class SocketPair {
 public:
  SocketPair() { require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "connect"); }
  ~SocketPair() {
    close(fds[0]);
    close(fds[1]);
  }
  SocketPair(const SocketPair&) = delete;
  SocketPair& operator=(const SocketPair&) = delete;

  int in() const { return fds[0]; }
  int out() const { return fds[1]; }

 private:
  int fds[2] = {-1, -1};
};

// One socket is filled and the other one emptied in large pieces.
template <typename Queue>
void relay(State& state, std::size_t piece) {
  constexpr std::size_t kRound = 64 * kKiB;
  std::string data(kRound, 'x');
  const SocketPair from;
  const SocketPair to;
  Queue queue;
  while (state.KeepRunning()) {
    require(write(from.in(), data.data(), kRound) == kRound, "fill a socket");
    for (std::size_t left = kRound; left > 0; left -= piece) {
      require(queue.receive(from.out(), piece) && queue.send(to.in()), "relay");
    }
    require(recv(to.out(), data.data(), kRound, MSG_WAITALL) == kRound, "empty a socket");
  }
  state.counters[kPlain] =
      Counter(static_cast<double>(state.iterations() * (kRound / piece)),
              static_cast<Counter::Flags>(Counter::kIsRate | Counter::kInvert));
}

template <typename Body>
void addWith(const char* row, const char* contestant, Body body) {
  benchmark::RegisterBenchmark((row + std::string("/") + contestant).c_str(), body);
}

void addPasses(const char* row, std::size_t piece, std::size_t queued) {
  addWith(row, kOurs, [=](State& state) { pass<Ours>(state, piece, queued); });
  addWith(row, kEvbuffer, [=](State& state) { pass<Evbuffer>(state, piece, queued); });
  addWith(row, kStreambuf, [=](State& state) { pass<Streambuf>(state, piece, queued); });
  addWith(row, kString, [=](State& state) { pass<String>(state, piece, queued); });
}

void addRelay(const char* row, std::size_t piece) {
  addWith(row, kOurs, [=](State& state) { relay<Ours>(state, piece); });
  addWith(row, kEvbuffer, [=](State& state) { relay<Evbuffer>(state, piece); });
  addWith(row, kStreambuf, [=](State& state) { relay<Streambuf>(state, piece); });
  addWith(row, kString, [=](State& state) { relay<String>(state, piece); });
}

void addRows() {
  addPasses("one-queued/64B", 64, 64);
  addPasses("one-queued/1KiB", kKiB, kKiB);
  addPasses("one-queued/16KiB", 16 * kKiB, 16 * kKiB);
  addPasses("256KiB-queued/64B", 64, 256 * kKiB);
  addPasses("256KiB-queued/1KiB", kKiB, 256 * kKiB);
  addPasses("256KiB-queued/16KiB", 16 * kKiB, 256 * kKiB);
  add("fall-behind/8MiB", kOurs, fallBehind<Ours>);
  add("fall-behind/8MiB", kEvbuffer, fallBehind<Evbuffer>);
  add("fall-behind/8MiB", kStreambuf, fallBehind<Streambuf>);
  add("fall-behind/8MiB", kString, fallBehind<String>);
  add("grow/64MiB", kOurs, grow<Ours>);
  add("grow/64MiB", kEvbuffer, grow<Evbuffer>);
  add("grow/64MiB", kStreambuf, grow<Streambuf>);
  add("grow/64MiB", kString, grow<String>);
  add("grow-strings/64MiB", kOurs, grow<Ours>);  // beside this peer alone, for a goal of its own
  add("grow-strings/64MiB", kString, grow<String>);
  addRelay("relay/4KiB", 4 * kKiB);
  addRelay("relay/64KiB", 64 * kKiB);
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  addRows();
  const std::vector<std::string> pieces = {"one-queued/64B",     "one-queued/1KiB",
                                           "one-queued/16KiB",   "256KiB-queued/64B",
                                           "256KiB-queued/1KiB", "256KiB-queued/16KiB"};
  ComparisonReporter reporter(kContestants,
                              {{"appending and taking", pieces, 1.0},
                               {"growth", {"grow/64MiB"}, 1.0},
                               {"growth beside std::string", {"grow-strings/64MiB"}, 0.5},
                               {"queueing while dropping", {"fall-behind/8MiB"}, 1.0},
                               {"relay", {"relay/4KiB", "relay/64KiB"}, 1.0}});
  return run(argc, argv,
             {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=15",
              "--benchmark_min_time=0.05"},
             reporter);
}
