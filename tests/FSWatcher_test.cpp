#include "vexo_utils/FSWatcher.h"

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "files.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo_utils/scheduler.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;
using testing::ElementsAre;

const std::string kFolder = "/tmp/watched/";

int inotifyDescriptor() {
  for (const auto& [fd, target] : openDescriptors()) {
    if (target == "anon_inode:inotify") return fd;
  }
  return -1;
}

class FSWatcherTest : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directory(kFolder);
    ASSERT_TRUE(watcher->start());
  }
  void TearDown() override { fs::remove_all(kFolder); }

  unsigned add(unsigned mask) {
    unsigned id = 0;
    // What happened, as short text: "2 create a" is watch 2, mask and name.
    const auto record = [this, expected = kFolder](unsigned watch, const std::string& path,
                                                   unsigned event, const char* name) {
      static const std::map<unsigned, std::string> words{{IN_CREATE, "create"},
                                                         {IN_DELETE, "delete"},
                                                         {IN_DELETE_SELF, "delete-self"},
                                                         {IN_IGNORED, "ignored"}};
      seen.push_back(std::to_string(watch) + " " + words.at(event) +
                     (name != nullptr ? std::string(" ") + name : ""));
      if (reaction) reaction(watch);
      EXPECT_EQ(path, expected);  // both still there, whatever became of the watch
    };
    EXPECT_TRUE(watcher->add(kFolder, mask, record, &id));
    return id;
  }

  // Everything that happened until now.
  std::vector<std::string> events() {
    for (std::size_t before = ~0U; before != seen.size();) {
      before = seen.size();
      EXPECT_TRUE(watcher->service(0));
    }
    return std::exchange(seen, {});
  }

  static void make(const std::string& name) { writeFile(kFolder + name, ""); }
  static void makeAndRemove(const std::string& name) {
    make(name);
    fs::remove(kFolder + name);
  }

  Scheduler scheduler;
  std::unique_ptr<FSWatcher> watcher = std::make_unique<FSWatcher>(nullptr);
  std::vector<std::string> seen;
  std::function<void(unsigned)> reaction;  // what the callback does besides
};

TEST_F(FSWatcherTest, RegistrationsOfOnePathShareTheKernelsWatch) {
  add(IN_CREATE);
  add(IN_DELETE);  // must not silence the first
  makeAndRemove("a");
  EXPECT_THAT(events(), ElementsAre("1 create a", "2 delete a"));
  EXPECT_TRUE(watcher->remove(2));
  makeAndRemove("a");
  EXPECT_THAT(events(), ElementsAre("1 create a"));
  EXPECT_TRUE(watcher->remove(1));
  makeAndRemove("a");
  EXPECT_THAT(events(), ElementsAre());
  EXPECT_EQ(add(IN_CREATE), 3U);  // and the path can be watched anew
  make("b");
  EXPECT_THAT(events(), ElementsAre("3 create b"));
  EXPECT_TRUE(refused(watcher->add(kFolder, IN_CREATE | IN_MASK_CREATE, nullptr, nullptr),
                      "Failed to inotify_add_watch on: " + kFolder, EEXIST));
  EXPECT_TRUE(logged(kError, "Failed to start new watch", 0));
}

TEST_F(FSWatcherTest, LongNamesAndALongQueueArriveWhole) {
  add(IN_CREATE);
  std::vector<std::string> expected;
  for (const char letter : {'a', 'b'}) {
    for (std::size_t length = 1; length <= 255; ++length) {
      make(std::string(length, letter));
      expected.push_back("1 create " + std::string(length, letter));
    }
  }
  EXPECT_EQ(events(), expected);
}

TEST_F(FSWatcherTest, CallbackMayChangeEverything) {
  struct {
    const char* name;
    std::function<void(unsigned)> reaction;
    std::vector<std::string> expected;  // of two events for two watches
  } const rows[] = {
      {"removes itself", [&](unsigned id) { watcher->remove(id); }, {"1 create a", "2 create a"}},
      {"removes its neighbour",
       [&](unsigned) { EXPECT_TRUE(seen.size() > 1 || watcher->remove(2)); },
       {"1 create a", "1 create b"}},
      {"adds another",
       [&](unsigned) { EXPECT_TRUE(seen.size() > 1 || add(IN_CREATE) == 3); },
       {"1 create a", "2 create a", "1 create b", "2 create b", "3 create b"}},
      {"stops", [&](unsigned) { watcher->stop(); }, {"1 create a"}},
      {"starts anew",
       [&](unsigned) { EXPECT_TRUE(watcher->start() && add(IN_CREATE) == 3); },
       {"1 create a"}},
      {"destroys the watcher", [&](unsigned) { watcher.reset(); }, {"1 create a"}},
  };
  for (const auto& row : rows) {
    watcher = std::make_unique<FSWatcher>(nullptr);
    EXPECT_TRUE(watcher->start());
    add(IN_CREATE);
    add(IN_CREATE);
    reaction = row.reaction;
    makeAndRemove("a");
    makeAndRemove("b");
    EXPECT_TRUE(watcher->service(0));
    EXPECT_EQ(std::exchange(seen, {}), row.expected) << row.name;
  }
}

TEST_F(FSWatcherTest, WatchesOfWhatIsGoneEndSilently) {
  add(IN_DELETE_SELF | IN_IGNORED);
  add(IN_CREATE);
  fs::remove_all(kFolder);
  EXPECT_THAT(events(), ElementsAre("1 delete-self", "1 ignored"));
  EXPECT_TRUE(watcher->remove(1));
  fs::create_directory(kFolder);
  make("a");
  EXPECT_THAT(events(), ElementsAre());  // another folder of the same name
  EXPECT_EQ(add(IN_CREATE), 3U);
  make("b");
  EXPECT_THAT(events(), ElementsAre("3 create b"));
  fs::remove_all(kFolder);
  EXPECT_TRUE(watcher->remove(3));  // before the kernel's word of it was read
  EXPECT_TRUE(watcher->stop());
  EXPECT_TRUE(watcher->remove(2));
}

TEST_F(FSWatcherTest, WhatIsRefusedLeavesNothingBehind) {
  EXPECT_TRUE(refused(watcher->add(kFolder, 0, nullptr, nullptr), "No events mask", 0));
  unsigned id = 77;
  EXPECT_TRUE(refused(watcher->add("/missing", IN_CREATE, nullptr, &id),
                      "Failed to inotify_add_watch on: /missing", ENOENT));
  EXPECT_TRUE(logged(kError, "Failed to start new watch", 0));
  EXPECT_EQ(id, 77U);
  for (const unsigned unknown : {0U, 1U, ~0U}) {
    EXPECT_TRUE(refused(watcher->remove(unknown), "Failed to stopWatch"));
  }
  EXPECT_EQ(add(IN_CREATE), 2U);
  EXPECT_TRUE(watcher->stop() && watcher->stop());
  EXPECT_TRUE(refused(watcher->add(kFolder, IN_CREATE, nullptr, nullptr),
                      "Should be starter before calling add."));
  EXPECT_TRUE(refused(watcher->service(0), "Should be starter before calling service."));
  EXPECT_TRUE(watcher->start());  // empty, and ids go on
  make("a");
  EXPECT_THAT(events(), ElementsAre());
  EXPECT_EQ(add(IN_CREATE), 3U);
}

TEST_F(FSWatcherTest, OverflowLosesChangesOnly) {
  add(IN_CREATE | IN_DELETE | IN_Q_OVERFLOW);
  const int most = std::stoi(readFile("/proc/sys/fs/inotify/max_queued_events"));
  for (int i = 0; i <= most / 2; ++i) makeAndRemove("a");
  EXPECT_EQ(events().size(), static_cast<std::size_t>(most));
  make("b");
  EXPECT_THAT(events(), ElementsAre("1 create b"));
}

TEST_F(FSWatcherTest, WaitsThroughSignals) {
  const InterruptingSignal interrupting(SIGUSR1);
  add(IN_CREATE);
  EXPECT_TRUE(watcher->service(1));
  EXPECT_THAT(seen, ElementsAre());
  std::thread writer([owner = pthread_self()] {
    for (int i = 0; i < 20; ++i) {
      pthread_kill(owner, SIGUSR1);
      std::this_thread::yield();
    }
    make("a");
  });
  EXPECT_TRUE(watcher->service(~0U));
  writer.join();
  EXPECT_THAT(seen, ElementsAre("1 create a"));
}

TEST_F(FSWatcherTest, Faults) {
  add(IN_CREATE);
  close(inotifyDescriptor());  // behind its back
  EXPECT_TRUE(refused(watcher->service(0), "Read events failed", EBADF));
  EXPECT_TRUE(logged(kError, "Failed to read events", 0));
  EXPECT_TRUE(refused(watcher->stop(), "Failed to stopWatch", EBADF));
  EXPECT_TRUE(logged(kError, "Unexpected state, all watch descriptors should be closed", 0));
  EXPECT_TRUE(logged(kError, "Failed to close inotifyFD", EBADF));
  EXPECT_TRUE(watcher->start());
}

TEST_F(FSWatcherTest, OnASchedulerThatIsNotRunningOrSeesItFail) {
  watcher = std::make_unique<FSWatcher>(&scheduler);
  EXPECT_TRUE(refused(watcher->start(), "Failed to add task", EBADF));
  EXPECT_EQ(inotifyDescriptor(), -1);

  ASSERT_TRUE(scheduler.Init());
  ASSERT_TRUE(watcher->start());
  add(IN_CREATE);
  // The number now names a file that cannot be read, while epoll still sees the inotify instance.
  const int number = inotifyDescriptor();
  const int kept = dup(number);
  const int unreadable = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(unreadable, number);
  close(unreadable);
  make("a");
  EXPECT_TRUE(scheduler.Service(-1));
  EXPECT_TRUE(logged(kError, "Read events failed", EBADF));
  EXPECT_TRUE(logged(kError, "Failed to read events", 0));
  EXPECT_TRUE(logged(kError, "Failed FSWatcher::service()", 0));
  dup2(kept, number);
  close(kept);
  reaction = [&](unsigned) { watcher.reset(); };
  EXPECT_TRUE(scheduler.Service(-1));
  EXPECT_THAT(seen, ElementsAre("1 create a"));
}

}  // namespace
}  // namespace vexo::utils
