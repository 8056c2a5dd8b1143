// Inside of the adaptation to the alternative epoll implementation: its records and function table.
#ifndef XEL_THREAD_ADAPT_MOX_H
#define XEL_THREAD_ADAPT_MOX_H

#include <cstddef>
#include <pthread.h>

#include "common/xel_int.h"
#include "common/xel_log_site.h"
#include "xel_types.h"

inline constexpr LogSite kMoxLog{"thread/xel_adapt_mox", 78};

// The library's event record; its layout is fixed.
struct XelMoxEpollEvent {
    u32 events; // same bits as the kernel's
    u8 fdType;  // written on ctl, ignored on wait
    u8 reserved[19];
    u64 data;
};
static_assert(sizeof(XelMoxEpollEvent) == 32 && offsetof(XelMoxEpollEvent, fdType) == 4 &&
              offsetof(XelMoxEpollEvent, data) == 24);

// One function of the library.
struct XelMoxEpollFunc {
    u64 id;
    void* function; // filled at load time
    const char* symbol;
};

struct XelMoxEpollCtl {
    XelMoxEpollFunc* map;
    pthread_mutex_t mutex; // one load at a time
};

// A thread's buffer for waits.
struct XelMoxEventsInfo {
    XelMoxEpollEvent* buffer;
    i32 capacity; // records; set before the buffer is known to exist
};

constexpr u32 kMoxFuncCount = 5;

XEL_EXTERN_C_BEGIN

XEL_API extern XelMoxEpollFunc g_xelMoxEpollFuncMap[kMoxFuncCount];
XEL_API extern XelMoxEpollCtl g_xelMoxEpollCtl;
XEL_API extern u8 g_xelMoxEpollLoaded; // under the mutex
XEL_API extern __thread XelMoxEventsInfo* g_xelMoxEventsInfo;

// The calling thread's buffer with count cleared records, or null (count below 1, no memory).
XEL_API XelMoxEpollEvent* ThreadMoxEventsPrepare(i32 count);
XEL_API XelMoxEpollEvent* ThreadMoxEpollEventsCreate(i32 count);

XEL_EXTERN_C_END

#endif // XEL_THREAD_ADAPT_MOX_H
