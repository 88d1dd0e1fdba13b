// Checks of configuration values, and a search and a replacement for patterns of the caller's.
//
// Patterns are POSIX extended regular expressions (regex(7)), compiled anew on every call. What is
// looked at is all bytes of a value (a NUL does not end it), as the C locale sees them whatever the
// process's locale is: letters are those of ASCII, "{1,32}" counts bytes, and "." is any byte but
// NUL. A value of 2 GB or more matches nothing.
//
// `quiet`:   true: nothing is logged. Else a value that does not match is logged, up to its first
//            NUL, as the error "Failed to match regex, pattern = VALUE": be quiet about secrets.
// Threads:   any.
// Failure:   false, or ""; nothing throws but std::bad_alloc. A pattern that is null or does not
//            compile matches nothing, and is never logged.
#pragma once

#include <string>

#include <vexo_utils/export.h>

namespace vexo::utils {

// ---- validators ----

// A pass phrase or key of a wireless network: "^[ -~]{8,64}$".
VEXO_UTILS_API bool psk_valid(const std::string& value, bool quiet);

// The name of a wireless network, any 1 to 32 bytes but NUL: "^.{1,32}$".
VEXO_UTILS_API bool ssid_valid(const std::string& value, bool quiet);

// A domain name of at least two labels; a longer one than 253 bytes is false without a line in the
// log. Its last label has up to 6 letters, and a backslash passes where a hyphen does:
// "^([a-zA-Z0-9]([a-zA-Z0-9\-]{0,61}[a-zA-Z0-9])?\.)+[a-zA-Z]{1,6}$".
VEXO_UTILS_API bool domain_name_valid(const std::string& value, bool quiet);

// An IPv4 address of four numbers, with leading zeros or without. "0.0.0.0" only if `allowZero`:
// else the error is "IPv4 address is all-zeroes".
// "^((25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\.){3}(25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$".
VEXO_UTILS_API bool ipv4_address_valid(const std::string& value, bool quiet, bool allowZero);

// An IPv4 net mask other than 0.0.0.0 and 255.255.255.255. Text after a mask passes, and so does
// text before one that begins with 255: whoever uses the whole value checks it with
// ipv4_address_valid too.
// "^(254|252|248|240|224|192|128)\.0\.0\.0|255\.(254|252|248|240|224|192|128|0)\.0\.0|
// 255\.255\.(254|252|248|240|224|192|128|0)\.0|255\.255\.255\.(254|252|248|240|224|192|128|0)",
// in one piece.
VEXO_UTILS_API bool ipv4_netmask_valid(const std::string& value, bool quiet);

// Six bytes in hexadecimal, separated by ':' or '-', also mixed:
// "^([0-9A-Fa-f]{2}[:-]){5}([0-9A-Fa-f]{2})$".
VEXO_UTILS_API bool mac_address_valid(const std::string& value, bool quiet);

// Whether there is a UUID in lower case anywhere in the value:
// "[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}".
VEXO_UTILS_API bool uuid_valid(const std::string& value, bool quiet);

// The name of an account, which is then no option to a program either: "^[a-z][-a-z0-9]{0,63}$".
VEXO_UTILS_API bool username_valid(const std::string& value, bool quiet);

// ---- patterns of the caller's ----
//
// Never let a pattern come from outside: some take all memory, or all of the stack.

// True when `pattern` matches anywhere in `value`.
VEXO_UTILS_API bool regex_match(const char* pattern, const std::string& value, bool quiet);

// `text` with the first match of `pattern`, letters of either case being the same, replaced by
// `replacement` as it stands. Unless `quiet`, a match is logged at info level: "Matched substring
// "..." is found at position FIRST to LAST".
// "": no match, or a bad pattern; it is also what is left when all of the text is replaced by "".
VEXO_UTILS_API std::string regex_replace(const std::string& text, const char* pattern,
                                         const std::string& replacement, bool quiet);

}  // namespace vexo::utils
