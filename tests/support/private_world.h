// A world of its own for a test or a demonstration: the paths, names and keys that belong to a
// camera, without touching the machine.
//
// Inside, /etc, /usr (with /bin, /sbin and /lib) and /var are copy-on-write views; /tmp, /run and
// /dev are new and small; the host name is "camera"; System V keys, POSIX shared memory, processes
// and the network (loopback only) are its own. /proc/sys and /sys can only be read. All of it goes
// when the last process inside ends.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vexo::test {

// Runs `body` as a process of a new world and returns its exit status, 128 + N if signal N ended
// it. The folders of `keep` (the sources, the build) stay what they are, wherever they lie. Root is
// not needed where the kernel allows user namespaces. Where no world can be made: calls
// `unavailable` with the reason instead and returns its result. Must be called while the process
// has one thread.
int runInPrivateWorld(const std::vector<std::string>& keep, const std::function<int()>& body,
                      const std::function<int(const std::string& reason)>& unavailable);

}  // namespace vexo::test
