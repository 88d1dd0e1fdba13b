// FSWatcher: calls back when watched files and folders change, by one inotify(7) instance.
//
// With a Scheduler, the watcher is served from its Service; without one, the owner calls service.
//
// Threads:   one, that of the scheduler's Service or the owner's. Not locked.
// Ownership: borrows the Scheduler, which must outlive the watcher; owns its inotify descriptor
//            (not close-on-exec: programs that the process executes inherit it).
// Watch ids: from 1, not used again until the 32-bit counter wraps, also across stop and start.
// Masks:     inotify(7)'s, handed to the kernel as they are. A callback sees those bits of an event
//            that its own mask names: name IN_ISDIR, IN_IGNORED or IN_UNMOUNT to see them.
// Failure:   false, logged at error level, with errno where a call failed.
// Limits:    when more changes pile up than fs.inotify.max_queued_events, the kernel drops the rest
//            and nobody is told. A file that rename(2) replaces is a new one, which a watch on the
//            old one does not follow: watch its folder for IN_MOVED_TO instead.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <vexo_utils/export.h>

namespace vexo::utils {

class Scheduler;

class VEXO_UTILS_API FSWatcher {
 public:
  // `path` is the one given to add, `mask` what happened, `name` the entry within a watched folder
  // that it happened to, null when it is the watched path itself. The texts are valid during the
  // call. A callback may call any function of the watcher, and may destroy it.
  // An empty function throws std::bad_function_call when it should be called.
  using Callback = std::function<void(unsigned int watchId, const std::string& path,
                                      unsigned int mask, const char* name)>;

  // Opens nothing. `scheduler` may be null.
  explicit FSWatcher(Scheduler* scheduler);
  FSWatcher(const FSWatcher&) = delete;
  FSWatcher& operator=(const FSWatcher&) = delete;
  // As stop.
  ~FSWatcher();

  // Opens a new inotify instance, after a stop, and registers it with the scheduler. Watches of
  // before are not taken up again: add them anew.
  // False: "Failed to inotify_init1", or the scheduler's error; nothing is open then.
  bool start();

  // Ends all watches and closes the instance; no callback follows, also when one of them calls it.
  // Watches that were not removed stay known, without effect, until remove. True also when nothing
  // was started.
  // False: "Failed to stopWatch", "Unexpected state, all watch descriptors should be closed",
  // "Failed to close inotifyFD" (the descriptor was closed behind the watcher's back); it counts as
  // stopped all the same.
  bool stop();

  // Watches `path` (a file or a folder, not what lies below its folders) and puts the watch's id
  // into `*watchId` (untouched on failure; null when the caller does not need it). Several watches
  // of the same file share the kernel's one, which then reports what any of them asked for.
  // IN_MASK_CREATE refuses to share; IN_ONESHOT ends the watch for all who share it.
  // False: "Should be starter before calling add.", "No events mask",
  // "Failed to inotify_add_watch on: PATH" and "Failed to start new watch".
  bool add(std::string path, unsigned int mask, Callback callback, unsigned int* watchId);

  // Ends a watch; its callback is not called any more. A watch whose file is gone, so that the
  // kernel has ended it already, is removed without a word.
  // False: "Failed to stopWatch", also for an unknown id; the watch is forgotten all the same.
  bool remove(unsigned int watchId);

  // Waits up to `timeoutMs` for changes (0: does not wait) and calls back for what one read(2)
  // gives, about ten changes; more are left to the next call. A signal does not end the wait.
  // True also when nothing happened. False: "Should be starter before calling service.", "Poll
  // events error", "Read events failed" and "Failed to read events".
  bool service(unsigned int timeoutMs);

 private:
  struct WatchObject {
    std::string path;
    unsigned int mask;
    Callback callback;
    int wd;  // the kernel's watch descriptor, -1 when not watching
  };
  struct Event {
    int wd;
    unsigned int mask;
    bool named;
    std::string name;
  };

  unsigned int nextWatchId();
  bool startWatch(unsigned int watchId, WatchObject& object);
  bool stopWatch(unsigned int watchId, WatchObject& object);
  int waitReadable(unsigned int timeoutMs) const;
  bool readEvents(std::vector<Event>& events);
  void forget(int wd);

  Scheduler* scheduler;
  unsigned int lastWatchId = 0;
  int inotifyFd = -1;
  unsigned long long taskId = 0;
  std::map<unsigned int, WatchObject> watches;
  std::map<int, std::set<unsigned int>> descriptors;  // by the kernel's watch descriptor
  std::vector<char> buffer;
  std::shared_ptr<const bool> running;  // released by stop; who serves sees the watcher end
};

}  // namespace vexo::utils
