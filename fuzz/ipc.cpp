// What other daemons send: a request, and the replies to one.

#include "fuzz.h"
#include "packets.h"
#include "vexo/ipc/BlockingIpcHandler.h"

namespace {

using namespace vexo::host;
using vexo::ipc::BlockingIpcHandler;
using vexo::variant::Variant;

constexpr uint64_t kId = 7;

void checkRequest(const std::string& packet) {
  Variant message = "before";
  if (!decode(packet, message)) {
    MUST(message == Variant("before"));
    return;
  }
  MUST(message.map() != nullptr);
  std::string again;
  if (!encode(message, again)) {
    MUST(message.toJson().size() > kMaxPacket);
    return;
  }
  Variant second;
  MUST(decode(again, second) && second == message);
}

void checkReplies(const std::string& first, const std::string& second) {
  const PacketSocket daemon = PacketSocket::named("daemon");
  MUST(daemon.valid() && daemon.listen());
  BlockingIpcHandler handler("handler");
  const Variant request = Variant::Map{{"id", kId}, {"responseExpected", true}};
  MUST(handler.init() && handler.sendRequest(request, "daemon"));
  MUST(handler.waitAllRequestsSent(0));
  const PacketSocket connection = daemon.accept();
  for (const std::string& reply : {first, second}) {
    MUST(connection.send(reply) == Transfer::kDone);
  }
  const bool received = handler.waitAllResponsesReceived(0);
  const int status = handler.getStatus(kId);
  MUST(received == (status >= 0));
  // Of the replies that can be read, the first one to this request counts.
  for (const std::string& reply : {first, second}) {
    Variant map;
    uint64_t id = 0;
    uint64_t code = 0;
    const bool good =
        decode(reply, map) && map["id"].read(id) && map["status"].read(code) && code <= INT32_MAX;
    if (good && id != kId) continue;
    MUST(good ? status == static_cast<int>(code) : status < 0);
    return;
  }
  MUST(status < 0);
}

}  // namespace

FUZZ_TARGET(ipc) {
  const std::string first = input.take(static_cast<std::size_t>(input.number(2)));
  const std::string second = input.rest();
  checkRequest(second);
  checkReplies(first, second);
  MUST(vexo::fuzz::errors() == 0);
}
