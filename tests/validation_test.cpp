#include "vexo_utils/validation.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <locale.h>

#include "log_recorder.h"

namespace vexo::utils {
namespace {

using namespace test;
using namespace std::string_literals;
using Strings = std::vector<std::string>;

const std::string kFailed = "Failed to match regex, pattern = ";
const std::string kLabel(63, 'a');
const std::string kLabels = kLabel + "." + kLabel + "." + kLabel + "." + std::string(57, 'a');
const std::string kUuid = "0123abcd-0123-4567-89ab-0123456789ab";

const struct {
  bool (*valid)(const std::string& value, bool quiet);
  Strings good, bad;
} kRows[] = {
    {psk_valid,
     {"12345678", std::string(64, '~'), "        "},
     {"1234567", std::string(65, '~'), "12345678\n", "1234567\xC3\xBC", "12345678\0"s}},
    {ssid_valid,
     {"a", "a\nb", std::string(32, '\xFF'), std::string(28, 'a') + "\xC3\xBC\xC3\xBC"},
     {std::string(33, 'a'), std::string(31, 'a') + "\xC3\xBC", "a\0b"s}},
    {domain_name_valid,
     {"a.b", "x-1.Example.co", R"(a\b.com)", kLabels + ".com"},
     {"localhost", "a..b", "-a.com", "a.example", "a.com\n", "a.com\0"s, "a" + kLabel + ".com"}},
    {[](const std::string& value, bool quiet) { return ipv4_address_valid(value, quiet, true); },
     {"0.0.0.0", "255.255.255.255", "01.2.3.004"},
     {"256.1.1.1", "1.2.3", " 1.2.3.4", "1.2.3.4\n", "1.2.3.4\0"s}},
    {ipv4_netmask_valid,
     {"255.255.255.0", "255.255.255.0abc", "\0 255.128.0.0"s, "192.0.0.01"},
     {"255.255.255.255", "0.0.0.0", "x192.0.0.0", "255.0.255.0", "1.2.3.4"}},
    {mac_address_valid,
     {"00:11:22:aA:Bb:fF", "00-11:22-33:44-55"},
     {"00:11:22:33:44", "00:11:22:33:44:5g", "001122334455", "00:11:22:33:44:55\0"s}},
    {uuid_valid,
     {"{" + kUuid + "}", "\xFF\0"s + kUuid, std::string(1 << 20, 'a') + kUuid},
     {"0123ABCD-0123-4567-89AB-0123456789AB", kUuid.substr(1)}},
    {username_valid,
     {"a", "a-1-", "a" + kLabel},
     {"-d", "1a", "A", "aa" + kLabel, "a:b", "a\n", "a\0"s, "\xE4"}}};

TEST(Validators, SeeAllBytesInAnyLocale) {
  ASSERT_NE(setlocale(LC_ALL, "C.UTF-8"), nullptr);
  const locale_t mine = newlocale(LC_ALL_MASK, "C.UTF-8", nullptr);
  uselocale(mine);
  for (const auto& [valid, good, bad] : kRows) {
    for (const std::string& value : good) EXPECT_TRUE(valid(value, false)) << value;
    for (const std::string& value : bad) {
      EXPECT_FALSE(valid(value, true) || valid(value, false)) << value;
      EXPECT_TRUE(logged(kError, kFailed + value.c_str()));
    }
    EXPECT_FALSE(valid("", true) || valid(std::string(1 << 20, '\xFF'), true));
  }
  EXPECT_FALSE(domain_name_valid(kLabels + "a.com", false));  // silently
  EXPECT_TRUE(ipv4_address_valid("0.0.0.00", false, false));
  EXPECT_FALSE(ipv4_address_valid("0.0.0.0", false, false));
  EXPECT_TRUE(logged(kError, "IPv4 address is all-zeroes"));
  EXPECT_EQ(uselocale(LC_GLOBAL_LOCALE), mine);
  EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C.UTF-8");
  freelocale(mine);
}

TEST(Regex, ReplacesTheFirstMatch) {
  EXPECT_EQ(regex_replace("Hello World", "world", "there", false), "Hello there");
  EXPECT_TRUE(logged(kInfo, "Matched substring \"World\" is found at position 6 to 10"));
  EXPECT_EQ(regex_replace("a\0bb"s, "B", "\\0&bb", true), "a\0\\0&bbb"s);
  EXPECT_EQ(regex_replace("abc", "x*", "-", true), "-abc");
  EXPECT_EQ(regex_replace("abc", "d", "x", false), "");
  EXPECT_TRUE(logged(kError, kFailed + "abc"));
  for (const char* bad : {"(", "[b-a]", "a{2,1}", "*\\", static_cast<const char*>(nullptr)}) {
    EXPECT_FALSE(regex_match(bad, "a", false));
    EXPECT_EQ(regex_replace("a", bad, "b", false), "");
  }
}

}  // namespace
}  // namespace vexo::utils
