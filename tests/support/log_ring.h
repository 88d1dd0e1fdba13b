// A system log ring made by hand: true ones, and such as no logger writes. For a private world.
#pragma once

#include <cstdint>
#include <string>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace vexo::test {

class LogRing {
 public:
  static constexpr key_t kKey = 0x414e4547;

  // `size` and `tail` stand in the header as given, true or not.
  LogRing(std::size_t space, int32_t size, int32_t tail, const std::string& data = "")
      : shm(shmget(kKey, space + sizeof(Header), IPC_CREAT | IPC_EXCL | 0600)),
        sem(semget(kKey, 2, IPC_CREAT | IPC_EXCL | 0600)),
        header(static_cast<Header*>(shmat(shm, nullptr, 0))) {
    *header = {size, tail};
    data.copy(bytes(), space);
  }
  ~LogRing() {
    shmdt(header);
    shmctl(shm, IPC_RMID, nullptr);
    semctl(sem, 0, IPC_RMID);
  }
  LogRing(const LogRing&) = delete;
  LogRing& operator=(const LogRing&) = delete;

  // As the logger does it.
  void write(const std::string& message) {
    for (const char byte : message + '\0') {
      bytes()[header->tail] = byte;
      header->tail = (header->tail + 1) % header->size;
    }
  }

  void setTail(int32_t tail) { header->tail = tail; }
  void setWriting(bool writing) const { semctl(sem, 1, SETVAL, writing ? 1 : 0); }
  int readers() const { return semctl(sem, 0, GETVAL); }
  int waiting() const { return semctl(sem, 1, GETZCNT); }

 private:
  struct Header {
    int32_t size;
    int32_t tail;
  };
  char* bytes() const { return reinterpret_cast<char*>(header + 1); }

  const int shm;
  const int sem;
  Header* const header;
};

}  // namespace vexo::test
