#include "packets.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace vexo::host {

namespace {

using variant::Variant;

struct Address {
  sockaddr_un address{};
  socklen_t length = 0;  // 0: the name is none

  explicit Address(const std::string& name) {
    const std::string path = std::string("\0vexo/", 6) + name;
    if (name.empty() || path.size() > sizeof address.sun_path) return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  }

  const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&address); }
};

void restoreTimeStamp(Variant& message) {
  const Variant& map = message;
  const Variant& stamp = map["timeStamp"];
  std::int64_t seconds = 0;
  std::int64_t microseconds = 0;
  if (!stamp["sec"].read(seconds) || !stamp["usec"].read(microseconds)) return;
  timeval time{};
  time.tv_sec = static_cast<decltype(time.tv_sec)>(seconds);
  time.tv_usec = static_cast<decltype(time.tv_usec)>(microseconds);
  message["timeStamp"] = time;
}

}  // namespace

bool encode(const Variant& message, std::string& packet) {
  std::string text = message.toJson();
  Variant asReceived;
  if (text.size() > kMaxPacket || !decode(text, asReceived) || asReceived != message) return false;
  packet = std::move(text);
  return true;
}

bool decode(const std::string& packet, Variant& message) {
  Variant value;
  if (!Variant::fromJson(packet, value) || value.type() != Variant::Type::Map) return false;
  restoreTimeStamp(value);
  message = std::move(value);
  return true;
}

PacketSocket::PacketSocket(PacketSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

PacketSocket& PacketSocket::operator=(PacketSocket&& other) noexcept {
  std::swap(fd_, other.fd_);
  return *this;
}

PacketSocket::~PacketSocket() {
  if (fd_ >= 0) close(fd_);
}

PacketSocket PacketSocket::open() {
  return PacketSocket(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

PacketSocket PacketSocket::named(const std::string& name) {
  PacketSocket socket = open();
  const Address address(name);
  if (!socket.valid() || address.length == 0 ||
      ::bind(socket.fd_, address.get(), address.length) != 0) {
    return {};
  }
  return socket;
}

bool PacketSocket::listen() const {
  return ::listen(fd_, SOMAXCONN) == 0;
}

PacketSocket PacketSocket::accept() const {
  return PacketSocket(accept4(fd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
}

Transfer PacketSocket::connect(const std::string& name) {
  const Address address(name);
  PacketSocket socket = open();
  if (!socket.valid() || address.length == 0) return Transfer::kFailed;
  if (::connect(socket.fd_, address.get(), address.length) != 0) {
    return errno == ECONNREFUSED || errno == EAGAIN ? Transfer::kNotYet : Transfer::kFailed;
  }
  *this = std::move(socket);
  return Transfer::kDone;
}

Transfer PacketSocket::send(const std::string& packet) const {
  if (::send(fd_, packet.data(), packet.size(), MSG_NOSIGNAL) >= 0) return Transfer::kDone;
  return errno == EAGAIN ? Transfer::kNotYet : Transfer::kFailed;
}

Transfer PacketSocket::receive(std::string& packet) const {
  std::string buffer(kMaxPacket, '\0');
  ssize_t size = 0;
  do {
    size = recv(fd_, buffer.data(), buffer.size(), MSG_TRUNC);
  } while (size < 0 && errno == ECONNRESET);  // told once, before what was sent until then
  if (size < 0 && errno == EAGAIN) return Transfer::kNotYet;
  if (size <= 0 || static_cast<std::size_t>(size) > kMaxPacket) return Transfer::kFailed;
  buffer.resize(static_cast<std::size_t>(size));
  packet = std::move(buffer);
  return Transfer::kDone;
}

}  // namespace vexo::host
