// Starting and joining the monitor thread through the C library itself.
#ifndef XEL_DEADLOOP_THREAD_H
#define XEL_DEADLOOP_THREAD_H

#include <pthread.h>

// Starts entry on a joinable thread with all signals blocked; thread is written on success only.
bool DeadloopThreadStart(pthread_t& thread, int (*entry)(void*)) noexcept;

// Waits for the end of a started thread and gives its resources back.
void DeadloopThreadJoin(pthread_t thread) noexcept;

#endif // XEL_DEADLOOP_THREAD_H
