// Byte strings: case, joining and cutting, trimming, replacing, shell words, printf into a string,
// time stamps as text, and the names that a camera has on the network and in its picture.
//
// Strings are bytes; where they are text, it is UTF-8. Nothing here keeps state.
//
// Threads:   any, as long as the arguments are not shared; generateOsdTimeString and
//            getValidHostname have a note of their own.
// Aliasing:  an argument that is also the result, or an element of the vector that is the result,
//            is read as it was before the call.
// Failure:   as each function says. No pointer may be null unless its function allows it.
#pragma once

#include <string>
#include <vector>

#include <sys/time.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

// ---- case: each byte by tolower(3) or toupper(3), so that UTF-8 beyond ASCII stays as it is ----

VEXO_UTILS_API std::string changeCase(std::string s, bool toLower);
VEXO_UTILS_API std::string lowerCase(std::string s);
VEXO_UTILS_API std::string upperCase(std::string s);

// ---- joining and cutting ----

// `out` becomes the parts with `sep` between them; "" when there are none.
VEXO_UTILS_API void join(std::string& out, const std::string& sep,
                         const std::vector<std::string>& parts);

// As above, of `count` further arguments, all of type const char*; a null pointer among them ends
// the list early. None are read when `count` is 0 or less.
VEXO_UTILS_API void join(std::string& out, const std::string& sep, int count, ...);

// An empty prefix or suffix fits every string.
VEXO_UTILS_API bool startsWith(const std::string& s, const std::string& prefix);
VEXO_UTILS_API bool endsWith(const std::string& s, const std::string& suffix);

// Appends to `out` (what it holds stays) the tokens of `s`, which any one byte of `delimiters`
// separates. Empty ones, between neighbouring delimiters and at the ends, only when `skipEmpty` is
// false. Without delimiters `s` is one token.
VEXO_UTILS_API void tokenize(const std::string& s, std::vector<std::string>& out,
                             const std::string& delimiters, bool skipEmpty);

// `out` becomes the pieces of `s` between the occurrences of the whole `delimiter`, empty ones
// included: n occurrences give n + 1 pieces. With an empty delimiter `s` is one piece.
VEXO_UTILS_API void split(const std::string& s, const std::string& delimiter,
                          std::vector<std::string>& out);

// ---- trimming and replacing, in place ----

// Remove blanks, tabs, line feeds and carriage returns, and nothing else, at the left end, the
// right one, or both. The result is the argument.
VEXO_UTILS_API std::string& lTrim(std::string& s);
VEXO_UTILS_API std::string& rTrim(std::string& s);
VEXO_UTILS_API std::string& trim(std::string& s);

// Replaces every occurrence of `from`, left to right; what `to` brings in is not searched again. An
// empty `from` changes nothing.
VEXO_UTILS_API void replaceAll(std::string& s, const std::string& from, const std::string& to);

// ---- shell words ----

// One word of sh(1) that stands for exactly these bytes: in single quotes, with ' as '\''. Ends at
// the first null byte, which no argument of a program can hold.
VEXO_UTILS_API std::string escapeShellArg(const char* arg);
VEXO_UTILS_API std::string escapeShellArg(const std::string& arg);

// ---- formatting ----

// printf(3) into a string of any length. What cannot be formatted (no memory, more than INT_MAX
// bytes, a wide character that the locale lacks) ends the process by forceCrash, after the error
// "Invalid state".
VEXO_UTILS_API std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// ---- time stamps: "2024-02-29T23:59:59.123+02:00", always 29 bytes ----

// Reads `length` bytes, which need no null byte at their end, into UTC with whole milliseconds.
// Date and time are read as strptime(3) does, which allows a blank for a leading zero; a day or a
// second past the end of its month or minute counts on into the next. The offset's hours go up to
// 29. False, with `tv` as it was: another length or form, or a time that time_t cannot hold (on a
// system where it has 32 bits, before December 1901 or after January 2038). Logs nothing.
VEXO_UTILS_API bool stringToTimeval(const char* text, unsigned int length, timeval* tv);

// Writes the time in UTC, with "+00:00"; microseconds are cut off. Of `tv_usec` / 1000 the low 16
// bits count, modulo 1000. The form holds for the years 1000 to 9999; others have as many digits as
// they need. Above eight, and beyond gmtime(3), the date is empty.
VEXO_UTILS_API std::string timevalToString(const timeval* tv);

// ---- names and texts of the camera ----

// The first IPv4 address of a host in dotted form. "" when there is none or the look-up fails,
// which is not logged. Blocks as getaddrinfo(3) does.
VEXO_UTILS_API std::string getHostByName(const std::string& host);

// The clock in the picture. Once the wall clock has been synchronised since boot: the local time by
// strftime(3) with `fmt`, or as "2024-02-29  23:59:59" (two blanks) when `fmt` is null or empty; ""
// when strftime gives nothing or more than 255 bytes. Before: the time since boot, as
// "3 days 04:05:06", whatever `fmt` is. What is wrong with the record of the synchronisation is
// logged as isTimeSyncedLately says. Calls tzset(3): not while another thread changes TZ.
VEXO_UTILS_API std::string generateOsdTimeString(const char* fmt);

// The kernel's host name as a valid name for DNS. White space and '-' are cut off at its ends;
// inside, each becomes '-', and a run of one and the same of them a single '-'. Other than ASCII
// becomes its ASCII form ("küche" is "xn--kche-0ra"); where hyphens stand that such names must not
// have (as in "ab--c"), they become en dashes first. A name of nothing but blanks and dashes is "".
//
// A name that cannot be converted (an ASCII form longer than a label's 63 bytes, no UTF-8) is
// logged as the warning "idn2_to_ascii_8z conversion fail from string ...", and the result is made
// of the camera's description, as it is while libidn2.so.0, which the first call loads, cannot be
// loaded (the error "Failed to load library: REASON"): "NAME-HWADDR", with the bytes of "hwaddr"
// from the ninth on, and each ' ' as '-'. CameraInfo::getString says what a description without
// "name" leads to (forceCrash). A description without "hwaddr" gets it as "", which is a change
// that no lock guards; that, as any of less than 8 bytes, throws std::out_of_range.
//
// "" when there is no host name to be had, or it has 64 bytes, the kernel's longest: the error
// "Failed to get hostname". The steps are logged at debug level.
VEXO_UTILS_API std::string getValidHostname();

}  // namespace vexo::utils
