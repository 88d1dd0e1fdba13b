// Options of sockets and other descriptors, and a test whether a TCP port can be reached.
//
// Threads:   any.
// Ownership: descriptors stay the caller's.
// Failure:   false; the setters log the quoted error with errno, hostReachable never logs.
#pragma once

#include <string>

#include <vexo_utils/export.h>

namespace vexo::utils {

// ---- single options ----

// O_NONBLOCK on and off, on any descriptor; it is a property of the open file (fcntl(2)), and so
// holds for its duplicates too.
// "Unable to get socket flags", "Unable to set socket flags".
VEXO_UTILS_API bool SetFdNonBlock(int fd);
VEXO_UTILS_API bool SetFdBlock(int fd);

// Lets several sockets bind the same local address: SO_REUSEADDR and SO_REUSEPORT (socket(7)).
// "Unable to reuse address", "Unable to reuse port" (the address then is).
VEXO_UTILS_API bool SetFdReuseIpPort(int fd);

// TCP_NODELAY (tcp(7)): small packets are sent at once. "Unable to set TCP_NODELAY".
VEXO_UTILS_API bool SetFdLowDelay(int fd);

// Ignores SIGPIPE in the whole process, the first time that it succeeds; the descriptor does not
// count. Programs that are executed from here on ignore it too. "Unable to ignore SIGPIPE signal".
VEXO_UTILS_API bool SetFdNoSIGPIPE(int fd);

// FD_CLOEXEC, on any descriptor. "Unable to set FD_CLOEXEC".
VEXO_UTILS_API bool SetFdCloseOnExec(int fd);

// TCP_CORK (tcp(7)): only full packets are sent, or what has waited for 200 ms. "Unable to set
// TCP_CORK".
VEXO_UTILS_API bool SetFdTcpCork(int fd);

// IP_TOS (ip(7)) of what is sent over IPv4. The kernel may apply another value, as on TCP sockets,
// where it keeps the two lowest bits for itself: that is only the warning "TOS mismatch. Wanted
// value: %u; Applied value: %d", and true. "Unable to set/get IP_TOS".
VEXO_UTILS_API bool SetFdTos(int fd, unsigned char tos);

// ---- several options at once ----

// Sets what the bits of `options` stand for, in this order; other bits are ignored. Stops with
// false at the first that fails, with those before it set.
//
//   0x80000000  SetFdNonBlock          0x08000000  SetFdNoSIGPIPE
//   0x40000000  SetFdBlock             0x04000000  SetFdCloseOnExec
//   0x20000000  SetFdReuseIpPort       0x02000000  SetFdTcpCork
//   0x10000000  SetFdLowDelay          0x01000000  SetFdTos 184 (expedited forwarding)
VEXO_UTILS_API bool SetFdOptions(int fd, unsigned int options);

// ---- time-outs ----

// How long one call that sends, or connects, may wait, and one that receives; then it fails with
// EAGAIN (connect(2): EINPROGRESS). 0 and 0: for ever, the default. The kernel refuses 1000000
// microseconds and more (EDOM).
// "Unable to set SO_SNDTIMEO", "Unable to set SO_RCVTIMEO".
VEXO_UTILS_API bool SetSendTimeout(int fd, unsigned int seconds, unsigned int microseconds);
VEXO_UTILS_API bool SetRecvTimeout(int fd, unsigned int seconds, unsigned int microseconds);

// ---- reachability ----

// Whether the host's first IPv4 address accepts a TCP connection, which is closed at once; nothing
// is sent. `host` is a name or a dotted address. Blocks: for as long as the resolver takes to look
// a name up, then up to 7 s for a host that does not answer (ETIMEDOUT). Signals end no wait.
// `error` is 0 for true. For false it is errno of the call that failed, such as ECONNREFUSED; or,
// when no address was found (so also for a null `host`), the resolver's code, see gethostbyname(3):
// HOST_NOT_FOUND (1), TRY_AGAIN (2), NO_RECOVERY (3), NO_DATA (4), NETDB_INTERNAL (-1). The number
// alone does not tell the two apart.
VEXO_UTILS_API bool hostReachable(const char* host, unsigned short port, int& error);
VEXO_UTILS_API bool hostReachable(const std::string& host, unsigned short port, int& error);

}  // namespace vexo::utils
