// Puts a process or a thread under a real-time scheduling policy, see sched(7).
//
// Priority:  1 (lowest) to 99 for SCHED_FIFO and SCHED_RR, 0 for the policies without priorities; a
//            negative one stands for the highest of the policy. Out of range fails and changes
//            nothing.
// Policy:    SCHED_RR, SCHED_FIFO, SCHED_OTHER, ...; SCHED_RR in the forms without it.
// Rights:    raising needs CAP_SYS_NICE or room in RLIMIT_RTPRIO.
// Threads:   all functions may be called from any thread.
// Failure:   false and the error "Unable to set priority to N" with errno. Success is logged too,
//            at info level: "Pid P has priority N", "Tid T has priority N".
#pragma once

#include <vexo_utils/export.h>

// Of a process, 0 for the calling one. The kernel schedules threads, and this changes only the one
// whose id is `pid`, the process's first: call it before others are started, which inherit the
// policy.
VEXO_UTILS_API bool SetRealTimePriority(int pid, int priority, int policy);
VEXO_UTILS_API bool SetRealTimePriority(int pid, int priority);

// Of a thread of this process that has not been joined; `thread` is its pthread_t, such as
// pthread_self(). Never pass 0: it is taken for the caller's kernel thread id, which is then used
// as if it were a pthread_t and ends the process with SIGSEGV.
VEXO_UTILS_API bool SetThreadRealTimePriority(unsigned long thread, int priority, int policy);
VEXO_UTILS_API bool SetThreadRealTimePriority(unsigned long thread, int priority);
