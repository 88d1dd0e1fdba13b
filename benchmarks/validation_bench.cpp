// Measures the validators: a value that each accepts, beside the same with the pattern compiled
// only once. The difference is what compiling anew on every call costs.
#include <string>

#include <regex.h>

#include <vexo_utils/validation.h>

#include "measure.h"

namespace vexo::bench {

namespace {

using benchmark::State;

constexpr char kOurs[] = "vexo";
constexpr char kCompiled[] = "compiled-once";

const std::vector<Contestant> kContestants = {{kOurs, false, nullptr}, {kCompiled, true, nullptr}};

using Validator = bool (*)(const std::string& value, bool quiet);

void addRow(const std::string& row, Validator valid, const char* pattern,
            const std::string& value) {
  benchmark::RegisterBenchmark((row + "/" + kOurs).c_str(), [valid, value](State& state) {
    measure(state, [&] { require(valid(value, true), "match"); });
  });
  benchmark::RegisterBenchmark((row + "/" + kCompiled).c_str(), [pattern, value](State& state) {
    regex_t expression;
    require(regcomp(&expression, pattern, REG_EXTENDED | REG_NOSUB) == 0, "compile");
    measure(state,
            [&] { require(regexec(&expression, value.c_str(), 0, nullptr, 0) == 0, "match"); });
    regfree(&expression);
  });
}

void addRows() {
  addRow("valid/psk", utils::psk_valid, "^[ -~]{8,64}$", "correct horse battery");
  addRow("valid/ssid", utils::ssid_valid, "^.{1,32}$", "Front door");
  addRow("valid/domain", utils::domain_name_valid,
         R"(^([a-zA-Z0-9]([a-zA-Z0-9\-]{0,61}[a-zA-Z0-9])?\.)+[a-zA-Z]{1,6}$)",
         "camera-1.example.com");
  addRow(
      "valid/address",
      [](const std::string& value, bool quiet) {
        return utils::ipv4_address_valid(value, quiet, false);
      },
      R"(^((25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\.){3}(25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$)",
      "192.168.1.20");
  addRow("valid/netmask", utils::ipv4_netmask_valid,
         R"(^(254|252|248|240|224|192|128)\.0\.0\.0|)"
         R"(255\.(254|252|248|240|224|192|128|0)\.0\.0|)"
         R"(255\.255\.(254|252|248|240|224|192|128|0)\.0|)"
         R"(255\.255\.255\.(254|252|248|240|224|192|128|0))",
         "255.255.255.0");
  addRow("valid/mac", utils::mac_address_valid, "^([0-9A-Fa-f]{2}[:-]){5}([0-9A-Fa-f]{2})$",
         "02:a5:c0:3a:01:14");
  addRow("valid/uuid", utils::uuid_valid,
         "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}",
         "0123abcd-0123-4567-89ab-0123456789ab");
  addRow("valid/username", utils::username_valid, "^[a-z][-a-z0-9]{0,63}$", "operator");
}

}  // namespace

}  // namespace vexo::bench

int main(int argc, char** argv) {
  using namespace vexo::bench;
  addRows();
  ComparisonReporter reporter(kContestants, {});
  return run(argc, argv,
             {"--benchmark_enable_random_interleaving=true", "--benchmark_repetitions=9",
              "--benchmark_min_time=0.05"},
             reporter);
}
