// Two processes, an owner and a tenant: the tenant waits until the owner has started, reads what it
// has left in shared memory, and takes a lock that only one of them can hold.

#include <cstdio>

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vexo_utils/InterProcessMutex.h>
#include <vexo_utils/shm_posix_utils.h>
#include <vexo_utils/startupcontrolfile.h>

namespace {

using namespace vexo::utils;

constexpr char kStartup[] = "/run/camera.startup";
constexpr char kBlock[] = "/camera.picture";
constexpr char kLock[] = "camera.picture";
constexpr startup_control_file_state_t kReady{'r'};
constexpr int kWriter = 2;  // of shmpInit
constexpr int kReader = 1;

struct Picture {
  int width;
  int height;
};

int beTenant() {
  StartupControlFile startup(kStartup, false);
  if (startup.Init() != 0 || startup.AwaitState(kReady, nullptr) != 0) return 1;
  std::puts("tenant: the owner is ready");

  ShmpBuf_t* const block = shmpInit(kBlock, sizeof(Picture), kReader);
  if (block == nullptr) return 1;
  Picture picture{};
  shmpRead(block, reinterpret_cast<char*>(&picture), 0, sizeof picture);
  shmpDestroy(block, kBlock, kReader);
  std::printf("tenant: the picture has %d x %d pixels\n", picture.width, picture.height);

  InterProcessMutex lock(kLock, false);
  if (lock.acquire() == 0) return 1;
  std::puts("tenant: the owner has the lock");
  return 0;
}

bool beOwner() {
  InterProcessMutex lock(kLock, true);
  StartupControlFile startup(kStartup, true);
  ShmpBuf_t* const block = shmpInit(kBlock, sizeof(Picture), kWriter);
  if (block == nullptr || lock.acquire() != 0) return false;
  const Picture picture{1920, 1080};
  shmpWrite(block, reinterpret_cast<const char*>(&picture), 0, sizeof picture);
  const bool ready = startup.Init() == 0 && startup.Set(kReady) == 0;

  int status = -1;
  const bool ended = wait(&status) > 0;  // for the tenant, while this one holds the lock
  shmpDestroy(block, kBlock, kWriter);
  return ready && ended && status == 0 && shm_unlink(kBlock) == 0;
}

}  // namespace

int main() {
  const pid_t tenant = fork();
  if (tenant == 0) {
    const int status = beTenant();
    std::fflush(stdout);
    _exit(status);
  }
  if (tenant > 0 && beOwner()) return 0;
  if (tenant > 0) kill(tenant, SIGKILL);
  return 1;
}
