// The kernel's host name, which DHCP and users set.

#include <algorithm>
#include <cstdlib>
#include <vector>

#include <unistd.h>

#include "fuzz.h"
#include "vexo_utils/string_utils.h"

namespace {

constexpr char kOfDescription[] = "Camera-0123";

bool isOfNames(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

std::string validFor(const std::string& name) {
  MUST(sethostname(name.data(), name.size()) == 0);
  return vexo::utils::getValidHostname();
}

}  // namespace

FUZZ_TARGET(hostname) {
  static const bool described = [] {
    vexo::fuzz::write("/tmp/camera.json", R"({"name":"Camera","hwaddr":"000000000123"})");
    return setenv("VEXO_CAMERA_INFO", "/tmp/camera.json", 1) == 0;
  }();
  MUST(described);
  const std::string name = input.take(64).c_str();
  const std::string valid = validFor(name);
  if (name.size() == 64) {
    MUST(valid.empty() && vexo::fuzz::errors() == 1);
    return;
  }
  MUST((valid == kOfDescription) == (vexo::fuzz::warnings() == 1));
  if (valid == kOfDescription) return;
  MUST(std::all_of(valid.begin(), valid.end(), isOfNames));
  std::vector<std::string> labels;
  vexo::utils::split(valid, ".", labels);
  for (const std::string& label : labels) MUST(label.size() <= 63);
  const auto isPlain = [](char c) { return isOfNames(c) && c != '-' && c != '.'; };
  if (std::all_of(name.begin(), name.end(), isPlain)) MUST(valid == name);
}
