#include "vexo_utils/threadpriority.h"

#include <cerrno>

#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "internal/log.h"

namespace {

sched_param parameter(int priority, int policy) {
  sched_param result{};
  result.sched_priority = priority < 0 ? sched_get_priority_max(policy) : priority;
  return result;
}

}  // namespace

bool SetRealTimePriority(int pid, int priority, int policy) {
  if (pid == 0) pid = getpid();
  const sched_param wanted = parameter(priority, policy);
  if (sched_setscheduler(pid, policy, &wanted) != 0) {
    VEXO_LOG_ERROR_ERRNO("Unable to set priority to %d", wanted.sched_priority);
    return false;
  }
  VEXO_LOG_INFO("Pid %llu has priority %d", static_cast<unsigned long long>(pid),
                wanted.sched_priority);
  return true;
}

bool SetRealTimePriority(int pid, int priority) {
  return SetRealTimePriority(pid, priority, SCHED_RR);
}

bool SetThreadRealTimePriority(unsigned long thread, int priority, int policy) {
  if (thread == 0) thread = static_cast<unsigned long>(syscall(SYS_gettid));  // see the header
  const sched_param wanted = parameter(priority, policy);
  const int error = pthread_setschedparam(static_cast<pthread_t>(thread), policy, &wanted);
  if (error != 0) {
    errno = error;
    VEXO_LOG_ERROR_ERRNO("Unable to set priority to %d", wanted.sched_priority);
    return false;
  }
  VEXO_LOG_INFO("Tid %llu has priority %d", static_cast<unsigned long long>(thread),
                wanted.sched_priority);
  return true;
}

bool SetThreadRealTimePriority(unsigned long thread, int priority) {
  return SetThreadRealTimePriority(thread, priority, SCHED_RR);
}
