// How the daemons of a development machine talk: JSON maps as AF_UNIX sequenced packets.
//
// An address is the name "vexo/NAME" in unix(7)'s abstract namespace: nothing of it is left in the
// file system, it is free again as soon as its owner has ended, and every network namespace has its
// own. Any process may take any of them, so this is for machines where nobody else is.
//
// A request is a map with an "id" (unsigned). The reply, on the same connection, is a map with that
// "id" and a "status": 0, or the receiver's positive code.
#pragma once

#include <cstddef>
#include <string>

#include "vexo/variant/Variant.h"

namespace vexo::host {

constexpr std::size_t kMaxPacket = 65536;  // bytes; fits in a socket's default buffer

// False: no map, too long, or not to be had back from JSON as it is (bytes that are not UTF-8, a
// double that is no number, a timeval under another key than "timeStamp").
bool encode(const variant::Variant& message, std::string& packet);

// JSON has no timeval: what stands under "timeStamp" is made one again. False: no map.
bool decode(const std::string& packet, variant::Variant& message);

enum class Transfer { kDone, kNotYet, kFailed };

// Owns a socket for packets, or none. It never blocks (so that no call is interrupted), raises no
// SIGPIPE and is closed by execve(2).
class PacketSocket {
 public:
  PacketSocket() = default;
  explicit PacketSocket(int fd) : fd_(fd) {}
  PacketSocket(PacketSocket&& other) noexcept;
  PacketSocket& operator=(PacketSocket&& other) noexcept;
  PacketSocket(const PacketSocket&) = delete;
  PacketSocket& operator=(const PacketSocket&) = delete;
  ~PacketSocket();

  // A socket that has the name; none when that is taken, empty or too long.
  static PacketSocket named(const std::string& name);

  bool valid() const { return fd_ >= 0; }
  int fd() const { return fd_; }

  bool listen() const;
  // A connection, or none when nobody waits for one.
  PacketSocket accept() const;

  // Becomes a connection to `name`. kNotYet: nobody listens there, or too many wait already.
  Transfer connect(const std::string& name);

  // kFailed: the other end is closed.
  Transfer send(const std::string& packet) const;
  // kFailed also for an empty packet, which looks the same, and for one above kMaxPacket.
  Transfer receive(std::string& packet) const;

 private:
  static PacketSocket open();

  int fd_ = -1;
};

}  // namespace vexo::host
