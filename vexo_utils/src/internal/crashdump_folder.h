// The folders that crash dumps go to: /tmp/crashdumps/APP/NUMBER.
#pragma once

#include <string>

#include "internal/unique_fd.h"

namespace vexo::utils::internal {

// Evicts old dump folders of `app` and makes the next one: its descriptor, with its path in
// `folder`. Nothing, with errno, when that cannot be done; only steps that have a message of their
// own are logged. No link is followed below /tmp, from where all names start at descriptors.
UniqueFd makeCrashDumpFolder(const char* app, std::string& folder);

}  // namespace vexo::utils::internal
