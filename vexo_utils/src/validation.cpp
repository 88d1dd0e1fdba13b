#include "vexo_utils/validation.h"

#include <array>
#include <climits>

#include <locale.h>
#include <regex.h>

#include "internal/log.h"

namespace vexo::utils {

namespace {

constexpr char kPsk[] = "^[ -~]{8,64}$";
constexpr char kSsid[] = "^.{1,32}$";
constexpr char kDomainName[] =
    R"(^([a-zA-Z0-9]([a-zA-Z0-9\-]{0,61}[a-zA-Z0-9])?\.)+[a-zA-Z]{1,6}$)";
constexpr char kIpv4Address[] =
    R"(^((25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\.){3}(25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$)";
constexpr char kIpv4Netmask[] = R"(^(254|252|248|240|224|192|128)\.0\.0\.0)"
                                R"(|255\.(254|252|248|240|224|192|128|0)\.0\.0)"
                                R"(|255\.255\.(254|252|248|240|224|192|128|0)\.0)"
                                R"(|255\.255\.255\.(254|252|248|240|224|192|128|0))";
constexpr char kMacAddress[] = "^([0-9A-Fa-f]{2}[:-]){5}([0-9A-Fa-f]{2})$";
constexpr char kUuid[] = "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}";
constexpr char kUsername[] = "^[a-z][-a-z0-9]{0,63}$";

constexpr std::size_t kMaxDomainName = 253;  // bytes

// Puts this thread, and no other, into the C locale until the end of the scope.
class InCLocale {
 public:
  InCLocale() : before(uselocale(cLocale())) {}
  ~InCLocale() { uselocale(before); }
  InCLocale(const InCLocale&) = delete;
  InCLocale& operator=(const InCLocale&) = delete;

 private:
  static locale_t cLocale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
    return locale;
  }

  locale_t before;
};

class Expression {
 public:
  Expression(const char* pattern, int flags, bool quiet) {
    if (pattern == nullptr) return;
    const InCLocale locale;
    const int error = regcomp(&expression, pattern, flags);
    compiled = error == 0;
    // What is wrong is there for a debugger to see, and not logged.
    std::array<char, 1024> reason{};
    if (!compiled && !quiet) regerror(error, &expression, reason.data(), reason.size());
  }
  ~Expression() {
    if (compiled) regfree(&expression);
  }
  Expression(const Expression&) = delete;
  Expression& operator=(const Expression&) = delete;

  explicit operator bool() const { return compiled; }

  // Puts the place of the first match into `found`, unless the expression has REG_NOSUB.
  bool matches(const std::string& text, regmatch_t& found) const {
    if (text.size() >= INT_MAX) return false;  // regoff_t is an int
    const InCLocale locale;
    found = {0, static_cast<regoff_t>(text.size())};  // what REG_STARTEND takes, NULs included
    return regexec(&expression, text.data(), 1, &found, REG_STARTEND) == 0;
  }

 private:
  regex_t expression{};
  bool compiled = false;
};

// Finds the first match, or logs that there is none.
bool find(const Expression& expression, const std::string& text, bool quiet, regmatch_t& found) {
  if (!expression) return false;
  if (expression.matches(text, found)) return true;
  if (!quiet) VEXO_LOG_ERROR("Failed to match regex, pattern = %s", text.c_str());
  return false;
}

bool is_valid(const char* pattern, const std::string& value, bool quiet) {
  regmatch_t anywhere{};
  return find(Expression(pattern, REG_EXTENDED | REG_NOSUB, quiet), value, quiet, anywhere);
}

}  // namespace

bool psk_valid(const std::string& value, bool quiet) {
  return is_valid(kPsk, value, quiet);
}

bool ssid_valid(const std::string& value, bool quiet) {
  return is_valid(kSsid, value, quiet);
}

bool domain_name_valid(const std::string& value, bool quiet) {
  return value.size() <= kMaxDomainName && is_valid(kDomainName, value, quiet);
}

bool ipv4_address_valid(const std::string& value, bool quiet, bool allowZero) {
  if (!allowZero && value == "0.0.0.0") {
    if (!quiet) VEXO_LOG_ERROR("IPv4 address is all-zeroes");
    return false;
  }
  return is_valid(kIpv4Address, value, quiet);
}

bool ipv4_netmask_valid(const std::string& value, bool quiet) {
  return is_valid(kIpv4Netmask, value, quiet);
}

bool mac_address_valid(const std::string& value, bool quiet) {
  return is_valid(kMacAddress, value, quiet);
}

bool uuid_valid(const std::string& value, bool quiet) {
  return is_valid(kUuid, value, quiet);
}

bool username_valid(const std::string& value, bool quiet) {
  return is_valid(kUsername, value, quiet);
}

bool regex_match(const char* pattern, const std::string& value, bool quiet) {
  return is_valid(pattern, value, quiet);
}

std::string regex_replace(const std::string& text, const char* pattern,
                          const std::string& replacement, bool quiet) {
  regmatch_t found{};
  if (!find(Expression(pattern, REG_EXTENDED | REG_ICASE, quiet), text, quiet, found)) return "";
  const auto start = static_cast<std::size_t>(found.rm_so);
  const auto length = static_cast<std::size_t>(found.rm_eo - found.rm_so);
  if (!quiet) {
    VEXO_LOG_INFO("Matched substring \"%s\" is found at position %d to %d",
                  text.substr(start, length).c_str(), found.rm_so, found.rm_eo - 1);
  }
  return std::string(text).replace(start, length, replacement);
}

}  // namespace vexo::utils
