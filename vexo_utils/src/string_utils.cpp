#include "vexo_utils/string_utils.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string_view>

#include <arpa/inet.h>
#include <idn2.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "internal/late_library.h"
#include "internal/log.h"
#include "vexo/variant/CameraInfo.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {

namespace {

// ---- finding and cutting ----

// Whether a change of `list` would move or destroy `s`.
bool isElementOf(const std::vector<std::string>& list, const std::string& s) {
  const std::less<const std::string*> before;
  return !before(&s, list.data()) && before(&s, list.data() + list.size());
}

// Each finder gives the first place in [from, end) where its delimiter begins, or null.

struct OneByte {
  char wanted;

  const char* operator()(const char* from, const char* end) const {
    return static_cast<const char*>(
        std::memchr(from, wanted, static_cast<std::size_t>(end - from)));
  }
};

struct AnyByte {
  explicit AnyByte(const std::string& bytes) {
    for (const char byte : bytes) wanted[static_cast<unsigned char>(byte)] = true;
  }

  const char* operator()(const char* from, const char* end) const {
    for (; from != end; ++from) {
      if (wanted[static_cast<unsigned char>(*from)]) return from;
    }
    return nullptr;
  }

  std::array<bool, UCHAR_MAX + 1> wanted{};
};

struct Text {
  const std::string& wanted;  // not empty

  // Not memmem(3), which prepares a table in every call.
  const char* operator()(const char* from, const char* end) const {
    const auto rest = static_cast<std::ptrdiff_t>(wanted.size()) - 1;
    while (end - from > rest) {
      from = OneByte{wanted.front()}(from, end - rest);
      if (from == nullptr) break;
      // The last byte first: it mostly spares a call.
      if (from[rest] == wanted.back() && std::memcmp(from, wanted.data(), wanted.size()) == 0) {
        return from;
      }
      ++from;
    }
    return nullptr;
  }
};

// Appends what lies between the delimiters, which are `width` bytes long.
template <typename Find>
void appendPieces(std::vector<std::string>& out, const std::string& s, const Find& find,
                  std::size_t width, bool skipEmpty) {
  // Views first: once their number is known, `out` grows in one step. To move strings again and
  // again while it grows takes longer than all the rest.
  std::vector<std::string_view> pieces;
  pieces.reserve(16);  // most texts have no more
  const char* const end = s.data() + s.size();
  for (const char* from = s.data(); from != nullptr;) {
    const char* const delimiter = find(from, end);
    const char* const to = delimiter != nullptr ? delimiter : end;
    if (from != to || !skipEmpty) pieces.emplace_back(from, static_cast<std::size_t>(to - from));
    from = delimiter != nullptr ? delimiter + width : nullptr;
  }
  out.insert(out.end(), pieces.begin(), pieces.end());
}

template <typename Find>
void replaceFound(std::string& s, const Find& find, std::size_t width, const std::string& to) {
  const char* from = s.data();
  const char* const end = from + s.size();
  const char* found = find(from, end);
  if (found == nullptr) return;
  std::string replaced;
  replaced.reserve(s.size());
  for (; found != nullptr; found = find(from, end)) {
    replaced.append(from, found).append(to);
    from = found + width;
  }
  replaced.append(from, end);
  s.swap(replaced);
}

// Not a function: through a pointer to one the scan takes four times as long.
constexpr auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };

// ---- formatting ----

struct Free {
  void operator()(char* text) const { std::free(text); }
};

// Nothing when it cannot be formatted.
__attribute__((format(printf, 1, 0))) std::optional<std::string> formattedLong(const char* fmt,
                                                                               va_list args) {
  char* allocated = nullptr;
  const int length = vasprintf(&allocated, fmt, args);
  if (length < 0) return std::nullopt;  // `allocated` is undefined
  const std::unique_ptr<char, Free> text(allocated);
  if (!text) return "";
  return std::string(text.get(), static_cast<std::size_t>(length));
}

// ---- time stamps ----

constexpr char kTimeFormat[] = "%Y-%m-%dT%H:%M:%S";
constexpr std::size_t kSecondsLength = 19;  // of a text in that format
constexpr std::size_t kTimeLength = 29;     // with ".mmm+HH:MM"

// Whether `c` is a digit up to `last`.
bool isDigit(char c, char last = '9') {
  return c >= '0' && c <= last;
}

// ".mmm+HH:MM"
bool isFractionAndOffset(const char* text) {
  return text[0] == '.' && isDigit(text[1]) && isDigit(text[2]) && isDigit(text[3]) &&
         (text[4] == '+' || text[4] == '-') && isDigit(text[5], '2') && isDigit(text[6]) &&
         text[7] == ':' && isDigit(text[8], '5') && isDigit(text[9]);
}

// Of two digits.
int number(const char* digits) {
  return (digits[0] - '0') * 10 + (digits[1] - '0');
}

// ---- the clock in the picture ----

// In seconds: more than any uptime, so that every synchronisation since boot counts.
constexpr unsigned long long kTrustedForSec = 86'400'000;

std::string localTimeText(const char* fmt) {
  const time_t current = time(nullptr);
  tzset();  // localtime_r(3) need not, and the zone may have changed
  tm local{};
  if (localtime_r(&current, &local) == nullptr) return "";
  if (fmt == nullptr || *fmt == '\0') {
    return format("%04d-%02d-%02d  %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
                  local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  }
  std::array<char, 256> text{};
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"  // it is the user's own, from the settings
  const std::size_t length = strftime(text.data(), text.size(), fmt, &local);
#pragma GCC diagnostic pop
  return {text.data(), length};
}

std::string uptimeText() {
  const auto ms = static_cast<unsigned long long>(nowMs());
  return format("%llu days %02llu:%02llu:%02llu", ms / 86'400'000, ms / 3'600'000 % 24,
                ms / 60'000 % 60, ms / 1000 % 60);
}

// ---- the host name ----

constexpr char kEnDash[] = "\xE2\x80\x93";  // U+2013

// Without blanks and dashes at the ends; those inside as the header says.
std::string withPlainDashes(const std::string& name) {
  std::string plain;
  const std::size_t first = name.find_first_not_of(" -");
  if (first == std::string::npos) return plain;
  const std::size_t last = name.find_last_not_of(" -");
  char previous = '\0';
  for (std::size_t i = first; i <= last; ++i) {
    const char c = name[i];
    if (c != '-' && std::isspace(static_cast<unsigned char>(c)) == 0) {
      plain += c;
    } else if (c != previous) {
      plain += '-';
    }
    previous = c;
  }
  return plain;
}

struct Libidn2 : internal::LateLibrary {
  Libidn2() : LateLibrary("libidn2.so.0") {}
  VEXO_LATE_FUNCTION(idn2_to_ascii_8z);
  VEXO_LATE_FUNCTION(idn2_free);
  VEXO_LATE_FUNCTION(idn2_strerror);
  VEXO_LATE_FUNCTION(idn2_strerror_name);
};

struct Ascii {
  int code;  // IDN2_OK or why there is no text
  std::unique_ptr<char, decltype(&idn2_free)> text;
};

Ascii toAscii(const Libidn2& libidn2, const std::string& name) {
  char* text = nullptr;
  const int code = libidn2.idn2_to_ascii_8z(
      name.c_str(), &text, IDN2_NFC_INPUT | IDN2_TRANSITIONAL | IDN2_USE_STD3_ASCII_RULES);
  return {code, {text, libidn2.idn2_free}};
}

std::string hostnameOfDescription() {
  constexpr std::size_t kSkipped = 8;  // the bytes of "hwaddr" that all cameras have in common
  variant::CameraInfo& info = variant::CameraInfo::instance();
  std::string name = info.getString("name");
  name += '-';
  name += info.getStringOrEmpty("hwaddr").substr(kSkipped);
  replaceAll(name, " ", "-");
  return name;
}

}  // namespace

std::string changeCase(std::string s, bool toLower) {
  const auto change = toLower ? [](unsigned char c) { return static_cast<char>(std::tolower(c)); }
                              : [](unsigned char c) { return static_cast<char>(std::toupper(c)); };
  std::transform(s.begin(), s.end(), s.begin(), change);
  return s;
}

std::string lowerCase(std::string s) {
  return changeCase(std::move(s), true);
}

std::string upperCase(std::string s) {
  return changeCase(std::move(s), false);
}

void join(std::string& out, const std::string& sep, const std::vector<std::string>& parts) {
  std::size_t size = parts.size() * sep.size();
  for (const std::string& part : parts) size += part.size();
  std::string joined;
  joined.reserve(size);
  for (const std::string& part : parts) {
    if (&part != &parts.front()) joined += sep;
    joined += part;
  }
  out = std::move(joined);
}

void join(std::string& out, const std::string& sep, int count, ...) {
  std::vector<std::string> parts;
  va_list args;
  va_start(args, count);
  for (int i = 0; i < count; ++i) {
    const char* const part = va_arg(args, const char*);
    if (part == nullptr) break;
    parts.emplace_back(part);
  }
  va_end(args);
  join(out, sep, parts);
}

bool startsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

void tokenize(const std::string& s, std::vector<std::string>& out, const std::string& delimiters,
              bool skipEmpty) {
  if (isElementOf(out, s)) return tokenize(std::string(s), out, delimiters, skipEmpty);
  // The finders copy `delimiters`, which may be an element of `out`.
  if (delimiters.size() == 1) {
    appendPieces(out, s, OneByte{delimiters.front()}, 1, skipEmpty);
  } else {
    appendPieces(out, s, AnyByte(delimiters), 1, skipEmpty);
  }
}

void split(const std::string& s, const std::string& delimiter, std::vector<std::string>& out) {
  if (isElementOf(out, s) || isElementOf(out, delimiter)) {
    return split(std::string(s), std::string(delimiter), out);
  }
  out.clear();
  if (delimiter.empty()) {
    out.push_back(s);
  } else if (delimiter.size() == 1) {
    appendPieces(out, s, OneByte{delimiter.front()}, 1, false);
  } else {
    appendPieces(out, s, Text{delimiter}, delimiter.size(), false);
  }
}

std::string& lTrim(std::string& s) {
  const auto first = std::find_if_not(s.begin(), s.end(), isBlank);
  s.erase(s.begin(), first);
  return s;
}

std::string& rTrim(std::string& s) {
  const auto last = std::find_if_not(s.rbegin(), s.rend(), isBlank);
  s.erase(last.base(), s.end());
  return s;
}

std::string& trim(std::string& s) {
  return lTrim(rTrim(s));  // so that there is less to move
}

void replaceAll(std::string& s, const std::string& from, const std::string& to) {
  if (from.empty()) return;
  if (from.size() == 1) {
    replaceFound(s, OneByte{from.front()}, 1, to);
  } else {
    replaceFound(s, Text{from}, from.size(), to);
  }
}

std::string escapeShellArg(const char* arg) {
  std::string word = "'";
  for (;; ++arg) {
    const char* const quote = strchrnul(arg, '\'');
    word.append(arg, quote);
    if (*quote == '\0') break;
    word += R"('\'')";
    arg = quote;
  }
  word += '\'';
  return word;
}

std::string escapeShellArg(const std::string& arg) {
  return escapeShellArg(arg.c_str());
}

std::string format(const char* fmt, ...) {
  try {
    // Most texts fit here, and so take no allocation but that of the result.
    char brief[256];
    va_list args;
    va_start(args, fmt);
    const int length = std::vsnprintf(brief, sizeof brief, fmt, args);
    va_end(args);
    if (length >= 0 && static_cast<std::size_t>(length) < sizeof brief) {
      return std::string(brief, static_cast<std::size_t>(length));
    }
    va_start(args, fmt);
    std::optional<std::string> text = formattedLong(fmt, args);
    va_end(args);
    if (text) return *std::move(text);
  } catch (const std::bad_alloc&) {
    // No memory for the result: as below.
  }
  VEXO_LOG_ERROR("Invalid state");
  forceCrash();
}

bool stringToTimeval(const char* text, unsigned int length, timeval* tv) {
  if (length != kTimeLength || !isFractionAndOffset(text + kSecondsLength)) return false;
  const std::string seconds(text, kSecondsLength);  // strptime wants its end marked
  tm fields{};
  const char* const end = strptime(seconds.c_str(), kTimeFormat, &fields);
  if (end != seconds.c_str() + kSecondsLength) return false;

  const time_t local = timegm(&fields);
  // -1 is also the last second of 1969, and that only.
  if (local == -1 && fields.tm_year != 69) return false;
  const char* const sign = text + kSecondsLength + 4;
  const int offset = number(sign + 1) * 3600 + number(sign + 4) * 60;
  const long long utc = static_cast<long long>(local) + (*sign == '+' ? -offset : offset);
  if (utc != static_cast<time_t>(utc)) return false;

  const char* const ms = text + kSecondsLength + 1;
  tv->tv_sec = static_cast<time_t>(utc);
  tv->tv_usec = (number(ms) * 10 + (ms[2] - '0')) * 1000L;
  return true;
}

std::string timevalToString(const timeval* tv) {
  std::array<char, 24> text{};
  tm fields{};
  std::size_t length = 0;
  if (gmtime_r(&tv->tv_sec, &fields) != nullptr) {
    length = strftime(text.data(), text.size(), kTimeFormat, &fields);
  }
  const unsigned ms = static_cast<std::uint16_t>(tv->tv_usec / 1000) % 1000U;
  return std::string(text.data(), length) + format(".%03u+00:00", ms);
}

std::string getHostByName(const std::string& host) {
  addrinfo hints{};
  hints.ai_flags = AI_PASSIVE;
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), "80", &hints, &list) != 0) return "";
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(list, freeaddrinfo);
  if (list == nullptr || list->ai_addr == nullptr) return "";
  sockaddr_in address{};
  std::memcpy(&address, list->ai_addr, sizeof address);
  std::array<char, INET_ADDRSTRLEN> text{};
  if (inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) == nullptr) return "";
  return text.data();
}

std::string generateOsdTimeString(const char* fmt) {
  return isTimeSyncedLately(kTrustedForSec) ? localTimeText(fmt) : uptimeText();
}

std::string getValidHostname() {
  // A name of 64 bytes, the kernel's longest, leaves no room for the null byte and fails. It could
  // be no label of DNS either.
  std::array<char, 64> original{};
  if (gethostname(original.data(), original.size()) != 0) {
    VEXO_LOG_ERROR_ERRNO("Failed to get hostname");
    return "";
  }
  VEXO_LOG_DEBUG("Original hostname \"%s\"", original.data());
  std::string name = original.data();
  name = withPlainDashes(trim(name));
  VEXO_LOG_DEBUG("Modified hostname \"%s\"", name.c_str());

  const Libidn2 libidn2;
  if (!libidn2) return hostnameOfDescription();
  Ascii ascii = toAscii(libidn2, name);
  if (ascii.code == IDN2_2HYPHEN || ascii.code == IDN2_HYPHEN_STARTEND) {
    replaceAll(name, "-", kEnDash);
    VEXO_LOG_DEBUG("Modified hostname \"%s\"", name.c_str());
    ascii = toAscii(libidn2, name);
  }
  if (ascii.code != IDN2_OK) {
    VEXO_LOG_WARNING("idn2_to_ascii_8z conversion fail from string \"%s\", ret[%s(%d):%s]",
                     name.c_str(), libidn2.idn2_strerror_name(ascii.code), ascii.code,
                     libidn2.idn2_strerror(ascii.code));
  }
  if (ascii.text) return ascii.text.get();
  return hostnameOfDescription();
}

}  // namespace vexo::utils
