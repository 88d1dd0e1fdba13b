// vexo check: the validators of configuration values.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include <vexo_utils/validation.h>

#include "command.h"

namespace {

using vexo::utils::ipv4_address_valid;

bool anyAddress(const std::string& value, bool quiet) {
  return ipv4_address_valid(value, quiet, true);
}

bool address(const std::string& value, bool quiet) {
  return ipv4_address_valid(value, quiet, false);
}

constexpr struct {
  const char* kind;
  bool (*valid)(const std::string& value, bool quiet);
} kKinds[] = {
    {"domain", vexo::utils::domain_name_valid},
    {"ipv4", address},
    {"ipv4-or-zero", anyAddress},
    {"mac", vexo::utils::mac_address_valid},
    {"netmask", vexo::utils::ipv4_netmask_valid},
    {"psk", vexo::utils::psk_valid},
    {"ssid", vexo::utils::ssid_valid},
    {"user", vexo::utils::username_valid},
    {"uuid", vexo::utils::uuid_valid},
};

// The first line of standard input.
bool readValue(std::string& value) {
  if (!readInput(value)) return false;
  value.resize(std::min(value.find('\n'), value.size()));
  return true;
}

int run(int argc, char** argv) {
  if (argc != 2 && argc != 3) return misused("give a kind and a value");
  for (const auto& each : kKinds) {
    if (std::strcmp(each.kind, argv[1]) != 0) continue;
    std::string value = argc == 3 ? argv[2] : "";
    if (argc == 2 && !readValue(value)) return failed("cannot read standard input");
    const bool valid = each.valid(value, true);
    std::puts(valid ? "valid" : "not valid");
    return valid ? kDone : kFailed;
  }
  return misused("no kind '%s'", argv[1]);
}

}  // namespace

const Command checkCommand = {"check", "tell whether a configuration value is valid",
                              R"(usage: vexo check KIND [VALUE]

Prints "valid" or, with exit status 1, "not valid". Without a value it checks a line of standard
input: others can see arguments. Kinds:

  domain  ipv4  ipv4-or-zero  mac  netmask  psk  ssid  user  uuid

  vexo check ipv4 192.168.1.20
)",
                              run};
