#include "vexo_utils/inode_listener.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "files.h"
#include "log_recorder.h"
#include "process_state.h"

namespace vexo::utils {
namespace {

namespace fs = std::filesystem;
using namespace test;
using Strings = std::vector<std::string>;

constexpr unsigned long kLong = 20'000;  // ms
constexpr char kFolder[] = "/tmp/folder";

class InodeListenerTest : public testing::Test, protected IInodeNotifier {
 protected:
  void SetUp() override { fs::create_directory(kFolder); }
  void notify(const std::string& name, unsigned int) override {
    seen.push_back(name);
    if (reaction) reaction();
  }
  bool start(const std::string& pattern, unsigned mask = IN_CREATE) {
    return listener->start(kFolder, pattern, mask, this);
  }
  static void put(const Strings& names) {
    for (const std::string& name : names) writeFile(kFolder + ("/" + name), "");
  }

  std::unique_ptr<InodeListener> listener = std::make_unique<InodeListener>();
  Strings seen;
  std::function<void()> reaction;  // what the notifier does besides
};

TEST_F(InodeListenerTest, PassesMatchingNamesAndTheFolder) {
  EXPECT_TRUE(listener->service(kLong));  // at once: not started
  EXPECT_TRUE(start("\\.mp4$", IN_CREATE | IN_DELETE_SELF));
  put({"a.mp4", "a.jpg", "b.mp4x", "c.mp4"});
  EXPECT_TRUE(listener->service(kLong));
  EXPECT_TRUE(listener->service(1));
  fs::remove_all(kFolder);
  EXPECT_TRUE(listener->service(kLong));
  EXPECT_EQ(seen, (Strings{"a.mp4", "c.mp4", "", ""}));  // the last two: gone, and IN_IGNORED
}

TEST_F(InodeListenerTest, BurstsOfLongNamesBeyondTheSetsOfSelect) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const int last = fcntl(0, F_DUPFD, 1023);
  ASSERT_EQ(last, 1023);
  std::vector<int> taken{last};
  while (taken.back() <= last) taken.push_back(dup(0));
  ASSERT_TRUE(start("."));
  EXPECT_TRUE(listener->service(0));
  Strings expected;
  for (int i = 0; i < 10'000; ++i) {
    expected.push_back(std::to_string(100'000 + i) + std::string(249, 'x'));
    put({expected.back()});
    while (i % 1000 == 999 && seen.size() < expected.size()) ASSERT_TRUE(listener->service(kLong));
  }
  EXPECT_EQ(seen, expected);
  for (const int fd : taken) close(fd);
}

TEST_F(InodeListenerTest, NotifierMayChangeEverything) {
  const struct {
    std::function<void()> reaction;
    std::size_t calls;  // of three events
  } rows[] = {{[&] { listener->stop(); }, 1},
              {[&] { listener->stop(), start("."); }, 1},
              {[&] { listener.reset(); }, 1},
              {[] { throw std::logic_error("refused"); }, 3}};
  for (const auto& row : rows) {
    listener = std::make_unique<InodeListener>();
    ASSERT_TRUE(start(".", IN_CLOSE_WRITE));
    put({"a", "b", "c"});
    reaction = row.reaction;
    if (row.calls == 3) {
      EXPECT_THROW(listener->service(kLong), std::logic_error);
    } else {
      EXPECT_TRUE(listener->service(kLong));
    }
    EXPECT_EQ(seen.size(), row.calls);
    seen.clear();
  }
}

TEST_F(InodeListenerTest, Failures) {
  const struct {
    const char *folder, *pattern;
    unsigned mask;
    IInodeNotifier* notifier;
    const char* error;
  } rows[] = {
      {"", ".", 1, this, "Invalid directory name (empty)"},
      {kFolder, ".", 0, this, "Invalid flags value (should be non-zero)"},
      {kFolder, ".", 1, nullptr, "Invalid notifier (null)"},
      {kFolder, "", 1, this, "Failed to compile regex: Invalid preceding regular expression"},
      {"/none", ".", 1, this, "`inotify_add_watch()` error"}};
  for (const auto& row : rows) {
    listener->stop();
    EXPECT_FALSE(listener->start(row.folder, row.pattern, row.mask, row.notifier));
    EXPECT_TRUE(logged(kError, row.error));
  }
  std::vector<inotify_event*> events;
  EXPECT_TRUE(refused(InodeListener().read(events), "Data buffer is not allocated"));
  EXPECT_TRUE(listener->init());
  EXPECT_TRUE(logged(kWarning, "Calling `init()` on already initialized object"));
  EXPECT_FALSE(start("."));  // counts as started
  EXPECT_TRUE(logged(kError, "Already started", 0));
  listener->stop();
  const int next = dup(0);
  close(next);
  ASSERT_TRUE(start("."));
  const InterruptingSignal interrupting(SIGALRM);
  ualarm(1000, 1000);
  EXPECT_FALSE(listener->service(kLong));
  ualarm(0, 0);
  EXPECT_TRUE(logged(kError, "`select()` error", EINTR));
  close(next);
  EXPECT_FALSE(listener->service(kLong));
  EXPECT_TRUE(logged(kError, "`select()` error", EBADF));
  EXPECT_FALSE(listener->close());
  EXPECT_TRUE(logged(kError, "close() error", EBADF));
}

}  // namespace
}  // namespace vexo::utils
