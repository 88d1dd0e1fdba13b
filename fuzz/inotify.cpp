// What the kernel tells of files whose names, and changes, come from outside.

#include <algorithm>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fuzz.h"
#include "vexo_utils/FSWatcher.h"
#include "vexo_utils/inode_listener.h"
#include "vexo_utils/string_utils.h"

namespace {

using namespace vexo::utils;
using Changes = std::vector<std::pair<unsigned, std::string>>;

constexpr char kFolder[] = "/tmp/watched";
constexpr unsigned kMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;

class Recorder : public IInodeNotifier {
 public:
  void notify(const std::string& name, unsigned int mask) override {
    changes.emplace_back(mask & kMask, name);
  }

  Changes changes;
};

// The same folder, watched in three ways for the whole run: to close an instance takes longer than
// all the rest.
struct Watchers {
  Watchers() {
    MUST(mkdir(kFolder, 0755) == 0);
    const auto record = [this](unsigned, const std::string&, unsigned mask, const char* name) {
      MUST(name != nullptr);
      seen.emplace_back(mask, name);
    };
    MUST(watcher.start() && watcher.add(kFolder, kMask, record, nullptr));
    MUST(everything.start(kFolder, ".", kMask, &all));
    MUST(recordings.start(kFolder, "\\.mp4$", kMask, &mp4));
  }

  FSWatcher watcher{nullptr};
  Changes seen;
  InodeListener everything;
  Recorder all;
  InodeListener recordings;
  Recorder mp4;
};

// What is done in the folder, and what the kernel should tell of it.
class Folder {
 public:
  ~Folder() {
    while (!names.empty()) remove(names.back());
  }

  void create(const std::string& name, bool folder) {
    const std::string path = pathOf(name);
    const int fd = folder ? mkdir(path.c_str(), 0700)
                          : open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0) return;
    if (!folder) close(fd);
    names.push_back(name);
    expected.emplace_back(IN_CREATE, name);
  }

  void remove(const std::string& name) {
    MUST(::remove(pathOf(name).c_str()) == 0);
    expected.emplace_back(IN_DELETE, name);
    names.erase(std::find(names.begin(), names.end(), name));
  }

  void rename(const std::string& from, const std::string& to) {
    if (::renameat2(AT_FDCWD, pathOf(from).c_str(), AT_FDCWD, pathOf(to).c_str(),
                    RENAME_NOREPLACE) != 0) {
      return;
    }
    *std::find(names.begin(), names.end(), from) = to;
    expected.emplace_back(IN_MOVED_FROM, from);
    expected.emplace_back(IN_MOVED_TO, to);
  }

  std::vector<std::string> names;
  Changes expected;

 private:
  static std::string pathOf(const std::string& name) { return kFolder + ("/" + name); }
};

void checkSeen(Watchers& watchers, const Changes& expected) {
  for (std::size_t before = 0;; before = watchers.seen.size()) {
    MUST(watchers.watcher.service(0));
    if (watchers.seen.size() == before) break;
  }
  for (std::size_t before = 0;; before = watchers.all.changes.size()) {
    MUST(watchers.everything.service(0) && watchers.recordings.service(0));
    if (watchers.all.changes.size() == before) break;
  }
  MUST(watchers.seen == expected && watchers.all.changes == expected);
  Changes filtered = expected;
  const auto isOther = [](const auto& change) { return !endsWith(change.second, ".mp4"); };
  filtered.erase(std::remove_if(filtered.begin(), filtered.end(), isOther), filtered.end());
  MUST(watchers.mp4.changes == filtered && vexo::fuzz::errors() == 0);
  watchers.seen.clear();
  watchers.all.changes.clear();
  watchers.mp4.changes.clear();
}

}  // namespace

FUZZ_TARGET(inotify) {
  static Watchers watchers;
  Changes expected;
  {
    Folder folder;
    while (!input.empty()) {
      const unsigned what = input.byte();
      std::string name = input.part().c_str();
      replaceAll(name, "/", "\xFF");
      const auto any = [&] { return folder.names[what / 4 % folder.names.size()]; };
      if (name.empty() || name == "." || name == "..") {
        if (!folder.names.empty()) folder.remove(any());
      } else if (what % 4 == 0 && !folder.names.empty()) {
        folder.rename(any(), name);
      } else {
        folder.create(name, what % 4 == 1);
      }
    }
    while (!folder.names.empty()) folder.remove(folder.names.back());
    expected = folder.expected;
  }
  checkSeen(watchers, expected);
}
