// InodeListener: tells a notifier what happens in one folder to the files whose names match, by
// inotify(7). The owner calls service in a loop of its own; FSWatcher is the one for a Scheduler.
//
// Threads:   one; the notifier is called from service.
// Ownership: borrows the notifier, until stop; owns its inotify descriptor (not close-on-exec:
//            programs that the process executes inherit it).
// Masks:     inotify(7)'s, handed to the kernel as they are.
// Failure:   false, logged at error level, with errno where a call failed.
// Limits:    when more changes pile up than fs.inotify.max_queued_events, the kernel drops the rest
//            and tells by one event without a name, IN_Q_OVERFLOW.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include <regex.h>
#include <sys/inotify.h>

#include <vexo_utils/export.h>

namespace vexo::utils {

// Who is told.
class VEXO_UTILS_API IInodeNotifier {
 public:
  virtual ~IInodeNotifier();

  // `name` is the file's within the folder, empty when it happened to the folder itself. May call
  // any function of the listener, also stop, after which no more calls follow, and may destroy it.
  // When it throws, it is called for the other events of the batch all the same; what it threw
  // last then comes out of service.
  virtual void notify(const std::string& name, unsigned int mask) = 0;
};

// Forwards to a plain function; a null one is not called.
class VEXO_UTILS_API BareInodeNotifier : public IInodeNotifier {
 public:
  // The function may be called for as long as the notifier lives.
  explicit BareInodeNotifier(void (*function)(const std::string& name, unsigned int mask));

  void notify(const std::string& name, unsigned int mask) override;

 private:
  void (*function)(const std::string& name, unsigned int mask);
};

class VEXO_UTILS_API InodeListener {
 public:
  // What is watched: the kernel's watch descriptor, and the names that count.
  struct VEXO_UTILS_API WatchObject {
    WatchObject() = default;
    WatchObject(const WatchObject&) = delete;
    WatchObject& operator=(const WatchObject&) = delete;
    ~WatchObject();

    // The watch descriptor, the compiled names and whether they are compiled.
    int wd = -1;
    regex_t regex{};
    bool compiled = false;
  };

  // Opens nothing.
  InodeListener();
  InodeListener(const InodeListener&) = delete;
  InodeListener& operator=(const InodeListener&) = delete;
  // As stop.
  ~InodeListener();

  // Watches the folder `dir` for what `mask` names. `pattern` is an extended regular expression,
  // see regex(7), that a name must contain a match of: "\\.mp4$" for what ends in .mp4, "." for
  // all. An empty pattern stands for "*", which the C library refuses.
  // False: "Already started"; "Invalid directory name (empty)"; "Invalid flags value (should be
  // non-zero)"; "Invalid notifier (null)"; "`std::new` error". False, but started, so that stop
  // must be called before another start: as init and add.
  bool start(const std::string& dir, const std::string& pattern, unsigned int mask,
             IInodeNotifier* notifier);

  // Waits up to `timeoutMs` for something to happen and notifies of up to 16 KiB of events; more
  // are left to the next call. True also when nothing happened, when the listener is not started,
  // and after "Failed to read events".
  // False: "`select()` error", also when a signal handler ran (EINTR); nothing is lost then.
  bool service(unsigned long timeoutMs);

  // Forgets the notifier and closes the inotify instance, with which the watch ends. start may
  // follow.
  void stop();

  // ---- the steps of which start and service consist ----

  // Opens the inotify instance. When it is open already, true with the warning "Calling `init()` on
  // already initialized object". False: "inotify_init1() error".
  bool init();

  // Compiles the pattern into `watch` and adds a watch of the folder. Service passes names by the
  // pattern of start, whatever was added besides.
  // False: "Failed to compile regex: REASON", "`inotify_add_watch()` error".
  bool add(const std::string& dir, const std::string& pattern, unsigned int mask,
           WatchObject& watch);

  // Replaces `events` by what one read(2) gives, without waiting; valid until the next read or
  // stop. True also with the warnings "`read()` was interruped. Try again" and "`read()` has
  // nothing to return. Try again". False: "Data buffer is not allocated" (not started), "`read()`
  // error", "buffer is too small".
  bool read(std::vector<inotify_event*>& events);

  // Calls the notifier for the events without a name and those whose name matches. Always true.
  bool notifyMatchedEvents(const std::vector<inotify_event*>& events);

  // Closes the inotify instance; true when there is none. False: "close() error"; it is closed all
  // the same.
  bool close();

 private:
  bool matches(const char* name) const;

  int fd = -1;
  WatchObject watch;
  IInodeNotifier* notifier = nullptr;
  std::unique_ptr<char[]> buffer;
  std::shared_ptr<const bool> running;  // released by stop; who notifies sees the listener end
};

}  // namespace vexo::utils
