#include "vexo_utils/FSWatcher.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "files.h"
#include "leftovers.h"
#include "log_recorder.h"
#include "process_state.h"
#include "vexo_utils/scheduler.h"
#include "vexo_utils/timer.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using test::kError;
using test::logged;
using test::writeFile;
using testing::ElementsAre;

constexpr char kFolder[] = "/tmp/watched";

void makeFolder() {
  fs::remove_all(kFolder);
  fs::create_directory(kFolder);
}

// What happened, as short text: "2 create,isdir sub" is watch 2, mask and name.
std::string textOf(unsigned id, unsigned mask, const char* name) {
  static const std::vector<std::pair<unsigned, const char*>> names = {
      {IN_MODIFY, "modify"},
      {IN_CLOSE_WRITE, "written"},
      {IN_MOVED_FROM, "from"},
      {IN_MOVED_TO, "to"},
      {IN_CREATE, "create"},
      {IN_DELETE, "delete"},
      {IN_DELETE_SELF, "delete-self"},
      {IN_IGNORED, "ignored"},
      {IN_ISDIR, "isdir"}};
  std::string text = std::to_string(id) + " ";
  for (const auto& [bit, word] : names) {
    if ((mask & bit) == 0) continue;
    if (text.back() != ' ') text += ',';
    text += word;
  }
  return name != nullptr ? text + " " + name : text;
}

class FSWatcherTest : public testing::Test {
 protected:
  void SetUp() override {
    makeFolder();
    ASSERT_TRUE(watcher->start());
  }

  unsigned add(unsigned mask, const std::string& path = kFolder) {
    unsigned id = 0;
    const auto record = [this, path](unsigned watch, const std::string& seenPath, unsigned event,
                                     const char* name) {
      EXPECT_EQ(seenPath, path);
      seen.push_back(textOf(watch, event, name));
      if (reaction) reaction(watch);
    };
    EXPECT_TRUE(watcher->add(path, mask, record, &id));
    return id;
  }

  // Everything that happened until now.
  std::vector<std::string> events() {
    for (std::size_t before = 1; before != 0;) {
      const std::size_t count = seen.size();
      if (watcher != nullptr) {
        EXPECT_TRUE(watcher->service(0));
      }
      before = seen.size() - count;
    }
    return std::exchange(seen, {});
  }

  static std::string file(const std::string& name) { return kFolder + ("/" + name); }

  std::unique_ptr<FSWatcher> watcher = std::make_unique<FSWatcher>(nullptr);
  std::vector<std::string> seen;
  std::function<void(unsigned)> reaction;  // what the callback does besides
};

TEST_F(FSWatcherTest, ReportsWhatEditorsDo) {
  add(IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO | IN_CREATE | IN_DELETE | IN_ISDIR);
  struct {
    std::function<void()> act;
    std::vector<std::string> expected;
  } const rows[] = {
      {[] { writeFile(file("a"), "1"); }, {"1 create a", "1 written a"}},
      {[] { fs::rename(file("a"), file("b")); }, {"1 from a", "1 to b"}},
      {[] { fs::create_directory(file("sub")); }, {"1 create,isdir sub"}},
      {[] { writeFile(file("sub/below"), "1"); }, {}},
      {[] { fs::remove(file("b")); }, {"1 delete b"}},
  };
  for (const auto& row : rows) {
    row.act();
    EXPECT_EQ(events(), row.expected);
  }
}

TEST_F(FSWatcherTest, RegistrationsOfOnePathShareTheKernelsWatch) {
  add(IN_CREATE);
  add(IN_DELETE);  // must not silence the first
  add(IN_MODIFY);
  writeFile(file("a"), "");
  fs::remove(file("a"));
  EXPECT_THAT(events(), ElementsAre("1 create a", "2 delete a"));
  EXPECT_TRUE(watcher->remove(2));
  writeFile(file("a"), "");
  fs::remove(file("a"));
  EXPECT_THAT(events(), ElementsAre("1 create a"));
  EXPECT_TRUE(watcher->remove(1));
  EXPECT_TRUE(watcher->remove(3));
  writeFile(file("a"), "");
  EXPECT_THAT(events(), ElementsAre());
  EXPECT_EQ(add(IN_CREATE), 4U);  // and the path can be watched anew
  writeFile(file("b"), "");
  EXPECT_THAT(events(), ElementsAre("4 create b"));

  EXPECT_FALSE(watcher->add(kFolder, IN_CREATE | IN_MASK_CREATE, nullptr, nullptr));
  EXPECT_TRUE(logged(kError, std::string("Failed to inotify_add_watch on: ") + kFolder, EEXIST));
  EXPECT_TRUE(logged(kError, "Failed to start new watch"));
}

TEST_F(FSWatcherTest, LongNamesAndALongQueueArriveWhole) {
  add(IN_CREATE);
  std::vector<std::string> expected;
  for (const char letter : {'a', 'b'}) {
    for (std::size_t length = 1; length <= 255; ++length) {
      const std::string name(length, letter);
      writeFile(file(name), "");
      expected.push_back("1 create " + name);
    }
  }
  EXPECT_EQ(events(), expected);
}

TEST_F(FSWatcherTest, CallbackMayChangeEverything) {
  const unsigned all = IN_CREATE;
  struct {
    const char* name;
    std::function<void(unsigned)> reaction;
    std::vector<std::string> expected;  // of two events for two watches
  } const rows[] = {
      {"removes itself", [&](unsigned id) { watcher->remove(id); }, {"1 create a", "2 create a"}},
      {"removes its neighbour",
       [&](unsigned) {
         if (seen.size() == 1) watcher->remove(2);
       },
       {"1 create a", "1 create b"}},
      {"adds another",
       [&](unsigned id) {
         if (seen.size() == 1) {
           EXPECT_EQ(add(all), id + 2);
         }
       },
       {"1 create a", "2 create a", "1 create b", "2 create b", "3 create b"}},
      {"stops", [&](unsigned) { watcher->stop(); }, {"1 create a"}},
      {"starts anew",
       [&](unsigned) {
         watcher->start();
         add(all);
       },
       {"1 create a"}},
      {"destroys the watcher", [&](unsigned) { watcher.reset(); }, {"1 create a"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    watcher = std::make_unique<FSWatcher>(nullptr);
    ASSERT_TRUE(watcher->start());
    add(all);
    add(all);
    reaction = row.reaction;
    writeFile(file("a"), "");
    writeFile(file("b"), "");
    EXPECT_TRUE(watcher->service(0));
    EXPECT_EQ(seen, row.expected);
    seen.clear();
    reaction = nullptr;
    fs::remove(file("a"));
    fs::remove(file("b"));
  }
}

TEST_F(FSWatcherTest, WatchesOfWhatIsGoneEndSilently) {
  add(IN_DELETE_SELF | IN_IGNORED);
  add(IN_CREATE);
  fs::remove_all(kFolder);
  EXPECT_THAT(events(), ElementsAre("1 delete-self", "1 ignored"));
  EXPECT_TRUE(watcher->remove(1));

  fs::create_directory(kFolder);
  writeFile(file("a"), "");
  EXPECT_THAT(events(), ElementsAre());  // another folder of the same name
  EXPECT_EQ(add(IN_CREATE), 3U);
  writeFile(file("b"), "");
  EXPECT_THAT(events(), ElementsAre("3 create b"));

  fs::remove_all(kFolder);
  EXPECT_TRUE(watcher->remove(3));  // before the kernel's word of it was read
  EXPECT_TRUE(watcher->stop());
  EXPECT_TRUE(watcher->remove(2));
}

TEST_F(FSWatcherTest, ForgottenIdsFailAndOthersGoOn) {
  EXPECT_FALSE(watcher->add(kFolder, 0, nullptr, nullptr));
  EXPECT_TRUE(logged(kError, "No events mask", 0));
  unsigned id = 77;
  EXPECT_FALSE(watcher->add("/missing", IN_CREATE, nullptr, &id));
  EXPECT_TRUE(logged(kError, "Failed to inotify_add_watch on: /missing", ENOENT));
  EXPECT_TRUE(logged(kError, "Failed to start new watch", 0));
  EXPECT_EQ(id, 77U);
  for (const unsigned unknown : {0U, 1U, ~0U}) {
    EXPECT_FALSE(watcher->remove(unknown));
    EXPECT_TRUE(logged(kError, "Failed to stopWatch"));
  }
  EXPECT_TRUE(watcher->add(kFolder, IN_CREATE, nullptr, nullptr));
  writeFile(file("a"), "");
  EXPECT_THROW(watcher->service(0), std::bad_function_call);
}

TEST_F(FSWatcherTest, StoppedItRefusesAndStartsEmpty) {
  const unsigned before = add(IN_CREATE);
  EXPECT_TRUE(watcher->stop());
  EXPECT_TRUE(watcher->stop());
  EXPECT_FALSE(watcher->add(kFolder, IN_CREATE, nullptr, nullptr));
  EXPECT_TRUE(logged(kError, "Should be starter before calling add."));
  EXPECT_FALSE(watcher->service(0));
  EXPECT_TRUE(logged(kError, "Should be starter before calling service."));

  ASSERT_TRUE(watcher->start());
  writeFile(file("a"), "");
  EXPECT_THAT(events(), ElementsAre());
  EXPECT_EQ(add(IN_CREATE), before + 1);
  writeFile(file("b"), "");
  EXPECT_THAT(events(), ElementsAre("2 create b"));
}

TEST_F(FSWatcherTest, OverflowLosesChangesOnly) {
  add(IN_CREATE | IN_DELETE | IN_Q_OVERFLOW);
  const int most = std::stoi(test::readFile("/proc/sys/fs/inotify/max_queued_events"));
  for (int i = 0; i <= most / 2; ++i) {
    writeFile(file("a"), "");
    fs::remove(file("a"));
  }
  EXPECT_EQ(events().size(), static_cast<std::size_t>(most));
  writeFile(file("b"), "");
  EXPECT_THAT(events(), ElementsAre("1 create b"));
}

TEST_F(FSWatcherTest, WaitsThroughSignals) {
  const test::InterruptingSignal interrupting(SIGUSR1);
  add(IN_CREATE);
  EXPECT_TRUE(watcher->service(1));
  EXPECT_THAT(seen, ElementsAre());
  std::thread writer([owner = pthread_self()] {
    for (int i = 0; i < 20; ++i) {
      pthread_kill(owner, SIGUSR1);
      std::this_thread::yield();
    }
    writeFile(file("a"), "");
  });
  EXPECT_TRUE(watcher->service(~0U));
  writer.join();
  EXPECT_THAT(seen, ElementsAre("1 create a"));
}

// ---- faults ----

int inotifyDescriptor() {
  for (const auto& [fd, target] : test::openDescriptors()) {
    if (target == "anon_inode:inotify") return fd;
  }
  return -1;
}

TEST_F(FSWatcherTest, DescriptorClosedBehindItsBack) {
  add(IN_CREATE);
  close(inotifyDescriptor());
  EXPECT_FALSE(watcher->service(0));
  EXPECT_TRUE(logged(kError, "Read events failed", EBADF));
  EXPECT_TRUE(logged(kError, "Failed to read events", 0));
  EXPECT_FALSE(watcher->stop());
  EXPECT_TRUE(logged(kError, "Failed to stopWatch", EBADF));
  EXPECT_TRUE(logged(kError, "Unexpected state, all watch descriptors should be closed", 0));
  EXPECT_TRUE(logged(kError, "Failed to close inotifyFD", EBADF));
  EXPECT_TRUE(watcher->start());
}

TEST_F(FSWatcherTest, NoDescriptorsLeft) {
  watcher->stop();
  {
    const test::DescriptorLimit none(0);
    EXPECT_FALSE(watcher->start());
    EXPECT_TRUE(logged(kError, "Failed to inotify_init1", EMFILE));
  }
  ASSERT_TRUE(watcher->start());
  const test::DescriptorLimit none(-inotifyDescriptor() - 1);  // poll(2) refuses even one
  EXPECT_FALSE(watcher->service(1000));
  EXPECT_TRUE(logged(kError, "Poll events error", EINVAL));
}

// ---- on a scheduler ----

TEST(FSWatcherOnScheduler, IsServedByIt) {
  makeFolder();
  Scheduler scheduler;
  FSWatcher watcher(&scheduler);
  EXPECT_FALSE(watcher.start());  // the scheduler is not running
  EXPECT_TRUE(logged(kError, "Failed to add task", EBADF));
  EXPECT_EQ(inotifyDescriptor(), -1);

  ASSERT_TRUE(scheduler.Init());
  ASSERT_TRUE(watcher.start());
  int calls = 0;
  const auto once = [&](unsigned, const std::string&, unsigned, const char*) {
    ++calls;
    watcher.stop();
  };
  ASSERT_TRUE(watcher.add(kFolder, IN_CREATE, once, nullptr));
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 0);
  writeFile(std::string(kFolder) + "/a", "");
  writeFile(std::string(kFolder) + "/b", "");
  EXPECT_TRUE(scheduler.Service(-1));
  EXPECT_TRUE(scheduler.Service(0));
  EXPECT_EQ(calls, 1);
}

TEST(FSWatcherOnScheduler, FailingServiceIsReported) {
  makeFolder();
  Scheduler scheduler;
  ASSERT_TRUE(scheduler.Init());
  FSWatcher watcher(&scheduler);
  ASSERT_TRUE(watcher.start());
  ASSERT_TRUE(watcher.add(kFolder, IN_CREATE, nullptr, nullptr));
  // The number now names a file that cannot be read, while epoll still sees the inotify instance.
  const int number = inotifyDescriptor();
  const int kept = dup(number);
  const int unreadable = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(unreadable, number);
  close(unreadable);
  writeFile(std::string(kFolder) + "/a", "");
  EXPECT_TRUE(scheduler.Service(-1));
  EXPECT_TRUE(logged(kError, "Read events failed", EBADF));
  EXPECT_TRUE(logged(kError, "Failed to read events", 0));
  EXPECT_TRUE(logged(kError, "Failed FSWatcher::service()", 0));
  dup2(kept, number);
  close(kept);
}

}  // namespace
}  // namespace vexo::utils
