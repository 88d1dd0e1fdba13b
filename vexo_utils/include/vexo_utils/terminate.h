// Tells the network that this process is about to restart, or the camera to reboot, and does so.
//
// An announcement is one UDP datagram with the text
//
//   Announce KIND. reason code: CODE; reason description: DESCRIPTION
//
// and a line feed, no terminating NUL. KIND is "reboot" or "app restart", CODE has eight
// hexadecimal digits, and a null description is an empty one.
//
// Threads:   any.
// Failure:   what cannot be sent is not; nothing tells. Every announcement is logged at info level.
#pragma once

#include <netinet/in.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

// Prepares `address`, and a socket in `fd`, which the caller closes, that may send to it, broadcast
// addresses included. `host` is a dotted IPv4 address, no name (see inet_addr(3)).
// `fd` is -1 when there is none: for a null `host` and port 0 (`address` is as it was then), for
// what is no address and for "255.255.255.255", which inet_addr cannot tell from that: use the
// network's own broadcast address. Also when no socket is to be had.
VEXO_UTILS_API void openUdp(int& fd, sockaddr_in& address, const char* host, unsigned short port);

// Logs one announcement and, unless `fd` is negative, sends it.
VEXO_UTILS_API void announce(int fd, sockaddr_in& address, bool reboot, int code,
                             const char* description);

// Announces at once and then every `intervalSeconds`, for `totalSeconds` but never longer than 10;
// of 10 and 3, at 0, 3, 6 and 9 s. Once only when the interval is not from 1 to the total. When the
// time is up, whatever signals came meanwhile, the process ends:
//   by exit(3) with `code`, of which the parent sees the lowest 8 bits. Functions of atexit(3) and
//   destructors of static objects run in this thread while others go on;
//   with `reboot`, after the shell commands "cfgmtd -p /etc/ -w", which saves the configuration,
//   and "reboot"; by abort(3) when the latter fails. What they are is up to PATH.
[[noreturn]] VEXO_UTILS_API void announceTerminate(const char* host, unsigned short port,
                                                   int totalSeconds, int intervalSeconds, int code,
                                                   const char* description, bool reboot);

}  // namespace vexo::utils
