// How the monitor thread comes into being. A platform, or a test, may put a pthread_create of its
// own in front of the process; the monitor is not meant for it. The C11 thread calls of the C
// library reach its thread creation by an internal binding that nothing in front can catch, and
// they need no dlopen or dlsym, which may be replaced as well. The sanitizers have to see a thread
// begin and follow pthread_create only, so their builds use that one.
// Called by the registry under its lock (start) and outside of it (join).
#include "foundation/xel_deadloop_thread.h"

#include <csignal>
#include <threads.h>
#include <type_traits>

#include "common/xel_barrier.h"

#if defined(__SANITIZE_ADDRESS__)
#define XEL_FOLLOWED_THREADS 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define XEL_FOLLOWED_THREADS 1
#endif
#endif
#ifndef XEL_FOLLOWED_THREADS
#define XEL_FOLLOWED_THREADS XEL_THREAD_SANITIZER
#endif

static_assert(std::is_same_v<thrd_t, pthread_t>, "both kinds of calls must name a thread alike");

#if XEL_FOLLOWED_THREADS

static void* FollowedEntry(void* argument)
{
    auto entry = reinterpret_cast<int (*)(void*)>(argument);
    (void)entry(nullptr);
    return nullptr;
}

static bool Create(pthread_t& thread, int (*entry)(void*))
{
    return pthread_create(&thread, nullptr, FollowedEntry, reinterpret_cast<void*>(entry)) == 0;
}

void DeadloopThreadJoin(pthread_t thread) noexcept
{
    (void)pthread_join(thread, nullptr);
}

#else

static bool Create(pthread_t& thread, int (*entry)(void*))
{
    return thrd_create(&thread, entry, nullptr) == thrd_success;
}

void DeadloopThreadJoin(pthread_t thread) noexcept
{
    (void)thrd_join(thread, nullptr);
}

#endif

bool DeadloopThreadStart(pthread_t& thread, int (*entry)(void*)) noexcept
{
    // A thread inherits the mask of its creator: blocking here leaves no moment without the mask.
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t created;
    bool started = Create(created, entry);
    (void)pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (started) {
        thread = created;
    }
    return started;
}
