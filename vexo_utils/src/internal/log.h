// The library's way to the platform's log: one macro a level, and one more for each that reports
// errno. They fill in module, file, function and line.
//
// errno is read before the message's arguments are evaluated, and is the same afterwards as before.
#pragma once

#include <cerrno>

#include "vexo/log.h"

namespace vexo::utils::internal {

enum LogLevel : int { kLogError = 3, kLogWarning = 4, kLogInfo = 6, kLogDebug = 7 };

}  // namespace vexo::utils::internal

#define VEXO_LOG_AT(level, withErrno, ...)                                                  \
  do {                                                                                      \
    const int vexoLogErrno = errno;                                                         \
    logInternal("vexo_utils", __FILE__, __func__, __LINE__, ::vexo::utils::internal::level, \
                (withErrno) ? vexoLogErrno : 0, 0, __VA_ARGS__);                            \
    errno = vexoLogErrno;                                                                   \
  } while (false)

#define VEXO_LOG_ERROR(...) VEXO_LOG_AT(kLogError, false, __VA_ARGS__)
#define VEXO_LOG_WARNING(...) VEXO_LOG_AT(kLogWarning, false, __VA_ARGS__)
#define VEXO_LOG_INFO(...) VEXO_LOG_AT(kLogInfo, false, __VA_ARGS__)
#define VEXO_LOG_DEBUG(...) VEXO_LOG_AT(kLogDebug, false, __VA_ARGS__)

#define VEXO_LOG_ERROR_ERRNO(...) VEXO_LOG_AT(kLogError, true, __VA_ARGS__)
#define VEXO_LOG_WARNING_ERRNO(...) VEXO_LOG_AT(kLogWarning, true, __VA_ARGS__)
