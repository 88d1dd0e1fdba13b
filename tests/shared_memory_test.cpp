#include <cerrno>
#include <climits>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include "files.h"
#include "in_child.h"
#include "log_recorder.h"
#include "vexo_utils/shm_posix_utils.h"
#include "vexo_utils/shmem_utils.h"

namespace vexo::utils {
namespace {

using namespace test;

constexpr char kName[] = "/block";
constexpr int kReader = 1;
constexpr int kWriter = 2;

void destroyWriter(ShmpBuf_t* buf) {
  shmpDestroy(buf, kName, kWriter);
  EXPECT_EQ(shm_unlink(kName), 0);  // it was still there
  EXPECT_TRUE(
      logged(kWarning,
             "shm /block has been destroyed. The data remains in shm may not be the lastest", 0));
}

TEST(SharedMemory, PartsGoToTheirOwnPlace) {
  EXPECT_EQ(shmpInit(kName, 100, 0), nullptr);
  ShmpBuf_t* writer = shmpInit(kName, 100, kWriter);
  EXPECT_EQ(std::filesystem::file_size("/dev/shm/block"), 100 + sizeof(ShmpBuf_t));
  ShmpBuf_t* reader = shmpInit(kName, 100, kReader);
  const std::string local = "0123456789abcdefgh";
  std::string copy(18, '-');
  shmpWrite(writer, local.data(), 8, 4);
  shmpRead(reader, copy.data(), 7, 6);
  EXPECT_EQ(copy, std::string("-------\00089ab\0-----", 18));
  EXPECT_TRUE(shmpWriteTimed(reader, local.data(), 17, 1, 0));
  EXPECT_TRUE(shmpReadTimed(writer, copy.data(), 17, 1, UINT_MAX));
  EXPECT_EQ(copy[17], 'h');

  ShmpBuf_t* below = shmpInit(kName, 100, kReader);
  below->size = UINT_MAX / 2;
  shmpDestroy(below, kName, kReader);  // takes nothing of its neighbours with it
  shmpRead(reader, copy.data(), 8, 1);
  shmpDestroy(reader, kName, kReader);
  destroyWriter(writer);
}

TEST(SharedMemory, RecordsAreNeverTorn) {
  constexpr int kSize = 4096;
  constexpr int kRecords = 20'000;
  ShmpBuf_t* writer = shmpInit(kName, kSize, kWriter);
  const auto read = [&] {
    ShmpBuf_t* reader = shmpInit(kName, kSize, kReader);
    std::vector<int> record(kSize / sizeof(int));
    for (int last = 0; last < kRecords; last = record[0]) {
      shmpRead(reader, reinterpret_cast<char*>(record.data()), 0, kSize);
      for (const int value : record) {
        if (value != record[0] || value < last) return 1;
      }
      usleep(1);  // lets the writer in
    }
    return 0;
  };
  const pid_t readers[] = {startChild(read), startChild(read), startChild(read)};
  for (int number = 1; number <= kRecords; ++number) {
    const std::vector<int> record(kSize / sizeof(int), number);
    shmpWrite(writer, reinterpret_cast<const char*>(record.data()), 0, kSize);
  }
  for (const pid_t reader : readers) EXPECT_EQ(endOfChild(reader), 0);
  destroyWriter(writer);
}

TEST(SharedMemory, Failures) {
  EXPECT_EQ(shmpInit("/none", 1, kReader), nullptr);
  EXPECT_TRUE(logged(kError, "shm_open /none failed", ENOENT));
  EXPECT_EQ(inChild([] { return shmpInit(kName, 1, 3) == nullptr; }), 128 + SIGABRT);
  ShmpBuf_t* buf = shmpInit(kName, UINT_MAX, kWriter);
  if (buf == nullptr) {  // no room for it in 32 bits
    EXPECT_TRUE(logged(kError, "mmap 4294967295 size failed", ENOMEM));
    buf = shmpInit(kName, 1, kWriter);
  }
  char byte = 0;
  shmpRead(buf, nullptr, 0, 1);
  shmpWrite(buf, &byte, 0, -1);
  shmpDestroy(nullptr, kName, kWriter);
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(logged(kError, "Invalid shared memory access", 0));
  // One who died with the lock.
  EXPECT_EQ(inChild([&] { return pthread_rwlock_wrlock(&buf->lock); }), 0);
  EXPECT_FALSE(shmpReadTimed(buf, &byte, 0, 1, 1));
  EXPECT_FALSE(shmpWriteTimed(buf, &byte, 0, 1, 1));
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(logged(kError, "Failed to lock shared memory", ETIMEDOUT));
  }
  destroyWriter(buf);
}

TEST(Shmem, IsAttachedByKeyAndByPath) {
  writeFile("/tmp/key", "");
  const key_t key = ftok("/tmp/key", 0);
  const std::string number = std::to_string(key);
  EXPECT_EQ(attachShmem("/tmp/key", 0), nullptr);
  EXPECT_TRUE(logged(kInfo, "keyPath=/tmp/key key=" + number, 0));
  EXPECT_TRUE(logged(kError, "failed to get shared memory id for key " + number, ENOENT));
  EXPECT_TRUE(logged(kError, "Failed to attach shmem /tmp/key", 0));
  EXPECT_EQ(attachShmem("/none", 0), nullptr);
  EXPECT_TRUE(logged(kError, "Failed to generate shmem key from /none", ENOENT));
  const int id = shmget(key, 100, IPC_CREAT | 0600);
  {
    const ShmemHandle byKey = attachShmem(static_cast<unsigned>(key), 0);
    const ShmemHandle byPath = attachShmem("/tmp/key", SHM_RDONLY);
    static_cast<char*>(byKey.get())[99] = 'x';
    EXPECT_EQ(static_cast<char*>(byPath.get())[99], 'x');
  }
  shmid_ds status{};
  shmctl(id, IPC_STAT, &status);
  EXPECT_EQ(status.shm_nattch, 0U);
  shmctl(id, IPC_RMID, nullptr);
}

}  // namespace
}  // namespace vexo::utils
