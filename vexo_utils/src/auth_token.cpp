// The token check of auth.h and the messages that it sends.

#include <cstdint>
#include <string>

#include <sys/time.h>
#include <unistd.h>

#include "internal/log.h"
#include "vexo/ipc/BlockingIpcHandler.h"
#include "vexo_utils/auth.h"
#include "vexo_utils/timer.h"

namespace vexo::ipc::messages {

namespace {

// Process and monotonic nanoseconds. These are cut to 32 signed bits, and negative ones fill the 16
// bits between.
std::uint64_t newId() {
  const timespec time = moment();
  const std::uint32_t nanoseconds = static_cast<std::uint32_t>(time.tv_sec) * 1000000000U +
                                    static_cast<std::uint32_t>(time.tv_nsec);
  const std::int64_t extended = static_cast<std::int32_t>(nanoseconds);
  constexpr std::uint64_t kLow48 = (std::uint64_t{1} << 48) - 1;
  return static_cast<std::uint64_t>(getpid()) << 48 |
         (static_cast<std::uint64_t>(extended) & kLow48);
}

// Keeps what the field holds if it has the type of `value`, else gives it `value`.
template <typename T>
void normalize(BaseMessage& message, const char* key, T value) {
  variant::Variant& field = message[key];
  field.read(value);
  field = value;
}

}  // namespace

void BaseMessage::NormalizeFields() {
  normalize(*this, "id", newId());
  normalize(*this, "timeStamp", utils::now());
  normalize<std::string>(*this, "from", "");
  normalize<std::string>(*this, "to", "");
  normalize<std::string>(*this, "functionName", "");
  normalize(*this, "queueIfDestUnavailable", true);
}

void ValidateAuthToken::NormalizeFields() {
  normalize<std::string>(*this, "functionName", "ValidateAuthToken");
  normalize(*this, "responseExpected", true);
  normalize<std::string>(*this, "authToken", "");
  normalize(*this, "transactionId", std::int64_t{-1});
  normalize(*this, "isBroadcast", false);
  BaseMessage::NormalizeFields();
}

}  // namespace vexo::ipc::messages

namespace vexo::utils {

namespace {

constexpr int kChecked = 0;
constexpr int kTokenEmpty = -5;
constexpr int kNotExchanged = -9000;
constexpr unsigned kWaitMs = 5000;  // for the request to be sent, and for the reply

bool exchange(ipc::BlockingIpcHandler& handler, const ipc::messages::ValidateAuthToken& request) {
  if (!handler.init()) {
    VEXO_LOG_ERROR("Unable to create BlockingIpcHandler instance");
    return false;
  }
  if (!handler.sendRequest(request, "vexo_avclient")) {
    VEXO_LOG_ERROR("Unable to send request");
    return false;
  }
  if (!handler.waitAllRequestsSent(kWaitMs)) {
    VEXO_LOG_ERROR("Error on waiting requests sent");
    return false;
  }
  if (!handler.waitAllResponsesReceived(kWaitMs)) {
    VEXO_LOG_ERROR("Error on waiting responses received");
    return false;
  }
  return true;
}

}  // namespace

int authenticateToken(const std::string& token, bool& ok) {
  ok = false;
  if (token.empty()) return kTokenEmpty;
  ipc::messages::ValidateAuthToken request;
  request["authToken"] = token;
  request["responseExpected"] = true;
  request.NormalizeFields();
  ipc::BlockingIpcHandler handler(ipc::appendSuffix("auth_token"));
  if (!exchange(handler, request)) return kNotExchanged;
  std::uint64_t id = 0;  // the request has one since it was normalized
  request["id"].read(id);
  ok = handler.getStatus(id) == 0;
  return kChecked;
}

}  // namespace vexo::utils
