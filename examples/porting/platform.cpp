// What a device must provide, as little of it as links and runs: the log goes to syslog(3), the
// description has the keys that every camera has, and there are neither files of values nor other
// daemons. docs/porting.md says what each is for; replace them one by one.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <syslog.h>

#include "vexo/ipc/BlockingIpcHandler.h"
#include "vexo/log.h"
#include "vexo/variant/CameraInfo.h"
#include "vexo/variant/Variant.h"

// ---- the log, and the deliberate crash ----

// The levels are those of syslog(3). Also called by the crash handler, on a stack of a few KiB.
void logInternal(const char* module, const char* file, const char* function, int line, int level,
                 int error, unsigned /*flags*/, const char* format, ...) {
  char message[512];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
  syslog(level, "%s %s:%d %s: %s (%d)", module, file, line, function, message, error);
}

// SIGABRT is one of the signals that leave a crash dump.
void forceCrash() {
  std::abort();
}

// ---- the camera's description ----

namespace vexo::variant {

// Here: ask the device's own store.
CameraInfo::CameraInfo() {
  description_["name"] = "Camera";
  description_["hwaddr"] = "0123456789AB";
  description_["sysid"] = 0U;
  description_["hwrev"] = 0U;
  description_["feature_ubifscfg"] = false;
  description_["features"] = Variant::Map();
}

// ---- values as text, and files of them ----

std::string Variant::toJson() const {
  return "null";
}

bool Variant::fromJson(const std::string& /*text*/, Variant& /*out*/) {
  return false;
}

bool Variant::FromJSONFile(const std::string& /*path*/, Variant& /*out*/) {
  return false;
}

bool Variant::FromKVPFile(const std::string& /*path*/, Variant& /*out*/) {
  return false;
}

}  // namespace vexo::variant

// ---- requests to other daemons ----

namespace vexo::ipc {

std::string appendSuffix(const std::string& name) {
  return name;
}

struct BlockingIpcHandler::Connection {};

BlockingIpcHandler::BlockingIpcHandler(const std::string& /*name*/) {}

BlockingIpcHandler::~BlockingIpcHandler() = default;

// There is nobody to talk to: callers stop here.
bool BlockingIpcHandler::init() {
  return false;
}

bool BlockingIpcHandler::sendRequest(const variant::Variant& /*message*/,
                                     const std::string& /*destination*/) {
  return false;
}

bool BlockingIpcHandler::waitAllRequestsSent(unsigned /*timeoutMs*/) {
  return false;
}

bool BlockingIpcHandler::waitAllResponsesReceived(unsigned /*timeoutMs*/) {
  return false;
}

int BlockingIpcHandler::getStatus(std::uint64_t /*id*/) const {
  return -1;
}

}  // namespace vexo::ipc
