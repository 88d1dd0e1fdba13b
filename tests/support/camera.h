// The camera's description, as a test wants it.
#pragma once

#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "vexo/host/log_sink.h"
#include "vexo/variant/CameraInfo.h"

namespace vexo::test {

// What the library reads from here on. Anything but JSON makes the description null.
inline void describeCamera(const std::string& json) {
  setenv("VEXO_CAMERA_INFO", VEXO_BINARY_DIR "/platform/host/boards/other.json", 1);
  variant::Variant& description = variant::CameraInfo::instance().description();
  description = variant::Variant();
  variant::Variant::fromJson(json, description);
}

// `ask` ends the process by forceCrash, after the error, with each of these descriptions and with
// those that have no usable "sysid".
inline void expectCrashes(const std::function<void()>& ask,
                          std::vector<std::pair<const char*, const char*>> rows) {
  rows.insert(rows.end(),
              {{"[]", "Invalid variant type detected"},
               {R"({"hwrev":1,"features":{}})", "Key \"sysid\" not available"},
               {R"({"sysid":"3B24"})", "Key \"sysid\" has a different type than expected"}});
  host::setLogLevel(3);
  for (const auto& [json, error] : rows) {
    describeCamera(json);
    EXPECT_EXIT(ask(), testing::KilledBySignal(SIGABRT), error) << json;
  }
  host::setLogLevel(-1);
}

}  // namespace vexo::test
