// The system's time zone: /etc/localtime, a symbolic link to a file of the zone database, and
// /etc/TZ, the same zone as a POSIX rule (see tzset(3)) for programs that do not read such files.
#pragma once

#include <string>

#include <vexo_utils/export.h>

namespace vexo::utils {

// Switches the system to the zone of `zoneFile`, a compiled zone file (see tzfile(5)) below
// /usr/share/zoneinfo/ such as "/usr/share/zoneinfo/Europe/Berlin". Links in its path are followed
// first: where they, or "..", lead out of that folder, the file is refused. Whether the file is a
// zone's is not looked at.
//
// /etc/TZ becomes the file's last line, up to 128 bytes of it, with its line feed and readable for
// everyone (0644); then /etc/localtime becomes the link. Both are replaced by rename(2), so that a
// reader finds the old one or the new one, and whole. Programs that start afterwards are in the new
// zone; one that has used its local time already, the caller too, mostly stays in the old one:
// glibc looks at another zone only when the variable TZ changes.
//
// Needs write access to /etc. Waits for tail(1) and for the storage. From any thread, but only one
// call in the system at a time: with two, rule and link can end up in different zones.
//
// False: "Failed to resolve path: %s", "Illegal path: %s", "%s doesn't exists" (it went away
// meanwhile), "Failed to read TZ string" (also for a folder and an empty file), "Failed to make
// temp file", "Failed to create sym link", "Failed to write TZ string"; with errno where a call
// failed. Nothing is changed then, and nothing left behind. "Failed to rename sym link": likewise,
// except that /etc/TZ is the new one if only /etc/localtime could not be replaced.
VEXO_UTILS_API bool setTimeZone(const std::string& zoneFile);

}  // namespace vexo::utils
