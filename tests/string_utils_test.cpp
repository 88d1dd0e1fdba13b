#include "vexo_utils/string_utils.h"

#include <climits>
#include <cstdlib>
#include <filesystem>

#include <gmock/gmock.h>
#include <unistd.h>

#include "files.h"
#include "log_recorder.h"
#include "vexo/host/log_sink.h"
#include "vexo_utils/exec.h"
#include "vexo_utils/timer.h"
#include "wait.h"

namespace {

using namespace vexo::test;
using namespace vexo::utils;
using testing::ElementsAre;
using Strings = std::vector<std::string>;

std::string joined(const Strings& parts, const std::string& sep) {
  std::string out = "before";
  join(out, sep, parts);
  return out;
}

Strings pieces(const std::string& s, const std::string& delimiter) {
  Strings out = {"before"};
  split(s, delimiter, out);
  return out;
}

Strings tokens(const std::string& s, const std::string& delimiters, bool skipEmpty) {
  Strings out;
  tokenize(s, out, delimiters, skipEmpty);
  return out;
}

std::string replaced(std::string s, const std::string& from, const std::string& to) {
  replaceAll(s, from, to);
  return s;
}

TEST(Strings, CaseAndBlanksAreThoseOfAscii) {
  EXPECT_EQ(lowerCase("aB-[Z]\xC3\x9C\xFF"), "ab-[z]\xC3\x9C\xFF");
  EXPECT_EQ(upperCase("aB-{z}\xC3\xBC\xFF"), "AB-{Z}\xC3\xBC\xFF");
  const auto trimmed = [](std::string left) {
    std::string right = left;
    return Strings{lTrim(left), rTrim(right), trim(left), right};
  };
  EXPECT_THAT(trimmed(" \t\r\n"), testing::Each(""));
  EXPECT_THAT(trimmed("\n a b\t"), ElementsAre("a b\t", "\n a b", "a b", "\n a b"));
  EXPECT_THAT(trimmed("\v \xA0"), testing::Each("\v \xA0"));
}

TEST(Strings, CutsAndReplaces) {
  EXPECT_THAT(tokens(",a,,b", ",", true), ElementsAre("a", "b"));
  EXPECT_THAT(tokens(";a\xFF,", ",;\xFF", false), ElementsAre("", "a", "", ""));
  EXPECT_THAT(tokens("a,b", "", true), ElementsAre("a,b"));
  EXPECT_THAT(pieces("a,b", ""), ElementsAre("a,b"));
  EXPECT_THAT(pieces({"a\0b\0c", 5}, {"\0", 1}), ElementsAre("a", "b", "c"));
  EXPECT_EQ(replaced("aaa", "a", "aa"), "aaaaaa");
  EXPECT_EQ(replaced("abc", "", "x"), "abc");
}

TEST(Strings, ArgumentsMayBeTheResult) {
  std::string out = "before";
  join(out, ",", 3, "x", static_cast<const char*>(nullptr), "z");
  join(out, out, 2, "a", "b", "c");
  EXPECT_EQ(out, "axb");
  join(out, ",", -1, "x");
  EXPECT_EQ(out, "");
  // Both, as a string holds few bytes in itself and many elsewhere.
  for (const std::string half : {"short", "longer than what a string holds in itself"}) {
    const std::string both = joined({half, half}, ";");
    Strings parts = {both, ";"};
    tokenize(parts[0], parts, parts[1], true);
    EXPECT_THAT(parts, ElementsAre(both, ";", half, half));
    split(parts[0], parts[1], parts);
    EXPECT_THAT(parts, ElementsAre(half, half));
    replaceAll(parts[0], half.substr(1), parts[0]);
    EXPECT_EQ(parts[0], half[0] + half);
    join(parts[0], "-", parts);
    EXPECT_EQ(parts[0], half[0] + joined({half, half}, "-"));
  }
}

// All strings of up to 6 of three bytes, with all delimiters of up to 3 of them.
TEST(Strings, CuttingAndReplacingAgree) {
  Strings all = {""};
  for (std::size_t i = 0; all[i].size() < 6; ++i) {
    for (const char c : {'a', 'b', ','}) all.push_back(all[i] + c);
  }
  for (const std::string& s : all) {
    ASSERT_EQ(tokens(s, ",b", false), pieces(replaced(s, "b", ","), ",")) << s;
    for (std::size_t i = 1; all[i].size() <= 3; ++i) {
      const Strings cut = pieces(s, all[i]);
      ASSERT_EQ(joined(cut, all[i]), s);
      ASSERT_EQ(joined(cut, "a,"), replaced(s, all[i], "a,"));
      for (const std::string& piece : cut) ASSERT_EQ(piece.find(all[i]), std::string::npos);
      ASSERT_EQ(startsWith(s, all[i]), s.find(all[i]) == 0);
      ASSERT_EQ(endsWith(s, all[i]),
                startsWith({s.rbegin(), s.rend()}, {all[i].rbegin(), all[i].rend()}));
    }
  }
}

TEST(Strings, ShellReadsBackEveryByte) {
  Strings words = {"", "''", "$(exit 1)`exit 1`\\", "*\n~ \\'"};
  for (int byte = 1; byte <= UCHAR_MAX; ++byte) words.emplace_back(2, static_cast<char>(byte));
  std::string command = "printf '%s\\0'";
  for (const std::string& word : words) command += " " + escapeShellArg(word);
  std::string heard;
  EXPECT_EQ(shellExec(command, nullptr, &heard, nullptr, 0, 0, 0), 0);
  EXPECT_EQ(heard, joined(words, std::string(1, '\0')) + '\0');
}

TEST(Format, TextsOfAnyLength) {
  EXPECT_EQ(format("%d%c%c", -1, '\0', 'x'), std::string("-1\0x", 4));
  for (const int length : {1, 255, 256, 257, 1 << 20}) {
    const std::string blanks(static_cast<std::size_t>(length - 1), ' ');
    EXPECT_EQ(format("%*d", length, 7), blanks + '7');
  }
  const auto impossible = [] {
    vexo::host::setLogSink(nullptr, nullptr);
    vexo::host::setLogLevel(kError);
    format("%lc", static_cast<wint_t>(0x20AC));  // which the C locale lacks
  };
  EXPECT_EXIT(impossible(), testing::KilledBySignal(SIGABRT), "format: Invalid state\n");
}

TEST(TimeText, IsReadAndWritten) {
  struct {
    const char* text;
    long long seconds;
    const char* inUtc;
  } const rows[] = {
      {"1969-12-31T23:59:59.999+00:00", -1, "1969-12-31T23:59:59.999+00:00"},
      {"2024-02-29T23:59:59.123+02:00", 1'709'243'999, "2024-02-29T21:59:59.123+00:00"},
      {"2001-02-29T 1:00:60.001-29:59", 983'516'400, "2001-03-02T07:00:00.001+00:00"},
      {"2038-01-19T03:14:07.090+00:00", 2'147'483'647, "2038-01-19T03:14:07.090+00:00"},
  };
  timeval time{};
  for (const auto& row : rows) {
    EXPECT_TRUE(stringToTimeval(row.text, 29, &time)) << row.text;
    EXPECT_EQ(time.tv_sec, row.seconds) << row.text;
    EXPECT_EQ(timevalToString(&time), row.inUtc);
  }
  // A minute later, which a time_t of 32 bits cannot hold.
  const bool read = stringToTimeval("2038-01-19T03:14:07.000-00:01", 29, &time);
  EXPECT_EQ(read, sizeof(time_t) == 8);
  EXPECT_EQ(static_cast<long long>(time.tv_sec), read ? 2'147'483'707 : 2'147'483'647);
  time = {0, -1000};  // of its thousands, 16 bits count
  EXPECT_EQ(timevalToString(&time), "1970-01-01T00:00:00.535+00:00");
  time = {static_cast<time_t>(LLONG_MAX), 0};
  EXPECT_THAT(timevalToString(&time), testing::EndsWith(sizeof(time_t) == 8 ? "" : ".000+00:00"));
}

TEST(TimeText, RefusesOtherForms) {
  const std::string good = "2024-02-29T23:59:59.123+02:00";
  timeval time{5, 6};
  const auto refused = [&](std::size_t at, char wrong) {
    std::string text = good;
    text[at] = wrong;
    return !stringToTimeval(text.c_str(), 29, &time);
  };
  for (std::size_t at = 0; at < good.size(); ++at) {
    EXPECT_TRUE(refused(at, 'x') && refused(at, '\0') && refused(at, '/')) << at;
  }
  EXPECT_TRUE(refused(10, ' ') && refused(11, '3') && refused(24, '3') && refused(27, '6'));
  for (const unsigned n : {0U, 28U, 30U}) EXPECT_FALSE(stringToTimeval(good.c_str(), n, &time));
  EXPECT_TRUE(time.tv_sec == 5 && time.tv_usec == 6);
}

TEST(OsdTime, IsLocalOnceSynchronised) {
  const auto uptime = [] {
    const long long s = nowMs() / 1000;
    return format("%lld days %02lld:%02lld:%02lld", s / 86400, s / 3600 % 24, s / 60 % 60, s % 60);
  };
  EXPECT_TRUE(eventually([&] { return generateOsdTimeString("%H") == uptime(); }));

  writeFile("/etc/last_timesync_monotonic_ts", "1");
  for (const char* zone : {"AAA-5:30", "BBB8"}) {
    setenv("TZ", zone, 1);
    EXPECT_EQ(generateOsdTimeString("%Z"), std::string(zone, 3));
  }
  unsetenv("TZ");
  const auto likeItsDefault = [](const char* fmt) {
    return generateOsdTimeString(fmt) == generateOsdTimeString("%Y-%m-%d  %H:%M:%S");
  };
  EXPECT_TRUE(eventually([&] { return likeItsDefault("") && likeItsDefault(nullptr); }));
  EXPECT_EQ(generateOsdTimeString(std::string(255, 'x').c_str()), std::string(255, 'x'));
  EXPECT_EQ(generateOsdTimeString(std::string(256, 'x').c_str()), "");
  std::filesystem::remove("/etc/last_timesync_monotonic_ts");
}

TEST(Names, HostsHaveTheirFirstAddressOfTheFourthVersion) {
  writeFile("/etc/nsswitch.conf", "hosts: files\n");
  writeFile("/etc/hosts", "10.1.2.3 two\n10.1.2.4 two\n2001:db8::1 six both\n10.9.8.255 both\n");
  EXPECT_EQ(getHostByName("two"), "10.1.2.3");
  EXPECT_EQ(getHostByName("both"), "10.9.8.255");
  for (const char* name : {"six", "none", "", "::1"}) EXPECT_EQ(getHostByName(name), "") << name;
}

TEST(Names, HostnameIsMadeValid) {
  setenv("VEXO_CAMERA_INFO", VEXO_BINARY_DIR "/platform/host/boards/3B25.json", 1);
  const std::string longest(63, 'x');
  struct {
    std::string kernelName, modified, valid;
  } const rows[] = {
      {"\t-My  Cam\v1 -", "My-Cam-1", "my-cam-1"},
      {"Stra\u00DFe K\u00FCche", "Stra\u00DFe-K\u00FCche", "xn--strasse-kche-llb"},
      {"\u6444\u50CF\u5934", "\u6444\u50CF\u5934", "xn--o1q97ryrj"},
      {"a - b", "a\u2013\u2013\u2013b", "xn--ab-41taa"},
      {"x.-y", "x.\u2013y", "x.xn--y-5gn"},
      {" -- - ", "", ""},
      {longest, longest, longest},
      {"caf\xE9", "caf\xE9", "Camera-3B25-250e"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(sethostname(row.kernelName.data(), row.kernelName.size()), 0);
    EXPECT_EQ(getValidHostname(), row.valid);
    EXPECT_TRUE(logged(kDebug, "Modified hostname \"" + row.modified + "\""));
  }
  EXPECT_TRUE(logged(kWarning,
                     "idn2_to_ascii_8z conversion fail from string \"caf\xE9\", "
                     "ret[IDN2_ENCODING_ERROR(-200):string encoding error]"));
  EXPECT_EQ(sethostname((longest + "x").data(), 64), 0);
  EXPECT_EQ(getValidHostname(), "");
  EXPECT_TRUE(logged(kError, "Failed to get hostname", ENAMETOOLONG));
}

}  // namespace
