#include "vexo/ipc/BlockingIpcHandler.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <map>
#include <utility>
#include <vector>

#include <poll.h>
#include <unistd.h>

#include "packets.h"

namespace vexo::ipc {

namespace {

using host::PacketSocket;
using host::Transfer;
using std::chrono::milliseconds;
using variant::Variant;

constexpr int kNoReply = -1;
constexpr milliseconds kRetry(10);  // nothing tells when somebody begins to listen

class Deadline {
 public:
  explicit Deadline(unsigned timeoutMs)
      : end_(std::chrono::steady_clock::now() + milliseconds(timeoutMs)) {}

  bool passed() const { return std::chrono::steady_clock::now() >= end_; }

  // For poll(2).
  int leftMs(milliseconds atMost = milliseconds(std::numeric_limits<int>::max())) const {
    const auto left = std::chrono::ceil<milliseconds>(end_ - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp(left, milliseconds(0), atMost).count());
  }

 private:
  std::chrono::steady_clock::time_point end_;
};

struct Request {
  std::uint64_t id;
  std::string destination;
  std::string packet;
  bool expectsReply;
  bool sent = false;
  int status = kNoReply;

  bool waits() const { return expectsReply && status == kNoReply; }
};

bool readReply(const std::string& packet, std::uint64_t& id, int& status) {
  Variant decoded;
  if (!host::decode(packet, decoded)) return false;
  const Variant& reply = decoded;
  std::uint64_t code = 0;
  if (!reply["id"].read(id) || !reply["status"].read(code)) return false;
  if (code > static_cast<unsigned>(std::numeric_limits<int>::max())) return false;
  status = static_cast<int>(code);
  return true;
}

}  // namespace

std::string appendSuffix(const std::string& name) {
  static std::atomic<unsigned> calls = 0;
  return name + "." + std::to_string(getpid()) + "." + std::to_string(calls++);
}

struct BlockingIpcHandler::Connection {
  explicit Connection(std::string wanted) : name(std::move(wanted)) {}

  bool sendQueued(bool& left);
  bool takeReplies();
  void waitForReplies(int timeoutMs) const;

  Transfer send(const Request& request);
  bool takeRepliesOf(const std::string& destination, const PacketSocket& peer);

  const std::string name;
  PacketSocket own;                           // has the name
  std::map<std::string, PacketSocket> peers;  // by destination; invalid: not connected
  std::vector<Request> requests;
};

Transfer BlockingIpcHandler::Connection::send(const Request& request) {
  PacketSocket& peer = peers[request.destination];
  if (!peer.valid()) {
    const Transfer connected = peer.connect(request.destination);
    if (connected != Transfer::kDone) return connected;
  }
  const Transfer result = peer.send(request.packet);
  if (result == Transfer::kFailed) peer = {};
  return result;
}

// `left`: whether some could not be sent yet. False: a destination refused.
bool BlockingIpcHandler::Connection::sendQueued(bool& left) {
  left = false;
  for (Request& request : requests) {
    if (request.sent) continue;
    const Transfer result = send(request);
    if (result == Transfer::kFailed) return false;
    request.sent = result == Transfer::kDone;
    if (!request.sent) left = true;
  }
  return true;
}

// False: the connection is of no more use.
bool BlockingIpcHandler::Connection::takeRepliesOf(const std::string& destination,
                                                   const PacketSocket& peer) {
  for (;;) {
    std::string packet;
    const Transfer result = peer.receive(packet);
    if (result == Transfer::kNotYet) return true;
    std::uint64_t id = 0;
    int status = 0;
    if (result == Transfer::kFailed || !readReply(packet, id, status)) return false;
    for (Request& request : requests) {
      const bool asked = request.id == id && request.sent && request.destination == destination;
      if (asked && request.waits()) request.status = status;
    }
  }
}

// False: a connection was lost on which a reply is due.
bool BlockingIpcHandler::Connection::takeReplies() {
  for (auto& [destination, peer] : peers) {
    if (peer.valid() && !takeRepliesOf(destination, peer)) peer = {};
  }
  return std::none_of(requests.begin(), requests.end(), [this](const Request& request) {
    return request.sent && request.waits() && !peers[request.destination].valid();
  });
}

void BlockingIpcHandler::Connection::waitForReplies(int timeoutMs) const {
  std::vector<pollfd> polled;
  for (const auto& [destination, peer] : peers) {
    if (peer.valid()) polled.push_back({peer.fd(), POLLIN, 0});
  }
  poll(polled.data(), polled.size(), timeoutMs);
}

BlockingIpcHandler::BlockingIpcHandler(const std::string& name)
    : connection_(std::make_unique<Connection>(name)) {}

BlockingIpcHandler::~BlockingIpcHandler() = default;

bool BlockingIpcHandler::init() {
  if (connection_->own.valid()) return false;
  connection_->own = PacketSocket::named(connection_->name);
  return connection_->own.valid();
}

bool BlockingIpcHandler::sendRequest(const Variant& message, const std::string& destination) {
  Request request{};
  if (!connection_->own.valid() || !message["id"].read(request.id)) return false;
  if (!host::encode(message, request.packet)) return false;
  for (const Request& other : connection_->requests) {
    if (other.id == request.id) return false;  // replies could not be told apart
  }
  request.destination = destination;
  message["responseExpected"].read(request.expectsReply);
  connection_->requests.push_back(std::move(request));
  return true;
}

bool BlockingIpcHandler::waitAllRequestsSent(unsigned int timeoutMs) {
  if (!connection_->own.valid()) return false;
  for (const Deadline deadline(timeoutMs);;) {
    bool left = false;
    if (!connection_->sendQueued(left)) return false;
    if (!left) return true;
    if (deadline.passed()) return false;
    poll(nullptr, 0, deadline.leftMs(kRetry));
  }
}

bool BlockingIpcHandler::waitAllResponsesReceived(unsigned int timeoutMs) {
  if (!connection_->own.valid()) return false;
  for (const Deadline deadline(timeoutMs);;) {
    if (!connection_->takeReplies()) return false;
    const auto waits = [](const Request& request) { return request.waits(); };
    const std::vector<Request>& requests = connection_->requests;
    if (std::none_of(requests.begin(), requests.end(), waits)) return true;
    if (deadline.passed()) return false;
    connection_->waitForReplies(deadline.leftMs());
  }
}

int BlockingIpcHandler::getStatus(std::uint64_t id) const {
  for (const Request& request : connection_->requests) {
    if (request.id == id) return request.status;
  }
  return kNoReply;
}

}  // namespace vexo::ipc
