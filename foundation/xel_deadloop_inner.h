// The records that the registry and the monitor thread of the dead-loop monitor share.
#ifndef XEL_DEADLOOP_INNER_H
#define XEL_DEADLOOP_INNER_H

#include <atomic>
#include <pthread.h>

#include "common/xel_int.h"
#include "common/xel_lock_guard.h"
#include "xel_deadloop.h"

constexpr u32 kDeadloopSlots = XEL_DEADLOOP_MAX;
constexpr u32 kDeadloopWordBits = 64;
constexpr u64 kDeadloopTickNs = 10'000'000;

// What a watched thread writes at each begin and end, on a cache line of its own.
struct alignas(64) DeadloopSlot {
    std::atomic<u32> live;     // the registration's handle, 0 when free; written under the lock
    std::atomic<u32> depth;    // open units, only the outermost counts; the bound thread's own
    std::atomic<u64> sequence; // odd while inside a unit; the monitor reads this word alone, so
                               // relaxed order is enough on both sides
};

// What the monitor keeps of a registration. Apart from the slots, so that its counting does not
// take the watched threads' cache lines away.
struct DeadloopRow {
    XelDeadloopThreshold threshold;
    u64 seenSequence; // at the last look
    u64 insideNs;     // time in the unit of seenSequence, 0 when that is even
    u64 pthreadId;
    i32 tid;
    u32 generation; // of the last handle, survives the registration
    u32 reported;   // reports made about the unit: 0 to XEL_DEADLOOP_DEAD
    char name[XEL_NAME_SIZE];
};

enum class DeadloopState : u32 {
    Stopped,  // no monitor thread
    Running,  // it runs
    Stopping, // it was told to end and is being joined by the last XelDeadloopMonUnreg
};

// The monitor but its tables. This record and the rows are guarded by lock, which is held for short
// scans only: never while a report function runs or a thread is joined. It is taken last.
struct Deadloop {
    pthread_mutex_t lock;
    pthread_cond_t changed; // a state change, or a report has returned
    pthread_cond_t wake;    // for the monitor thread; exists while the state is not Stopped
    DeadloopState state;
    bool poked;       // a registration came: the planned sleep may be too long for it
    pthread_t thread; // the monitor thread, unless the state is Stopped
    u32 reporting;    // handle of the report that runs, 0 when none
    u64 reportsDone;  // reports that have returned
    XelDeadloopReportFunc report;
    void* context;
    u64 used[kDeadloopSlots / kDeadloopWordBits]; // one bit per slot
};

extern Deadloop g_deadloop;

// Set by the monitor thread for itself.
extern constinit thread_local bool t_deadloopIsMonitor;

// Zero pages until they are used: the tables cost no memory in a process without registrations.
extern DeadloopRow g_deadloopRows[kDeadloopSlots];
extern DeadloopSlot g_deadloopSlots[kDeadloopSlots];

// A stretch without the lock inside a hold of it: the constructor gives back, the destructor takes.
class WithoutLock : NoCopy
{
public:
    WithoutLock() { (void)pthread_mutex_unlock(&g_deadloop.lock); }
    ~WithoutLock() { (void)pthread_mutex_lock(&g_deadloop.lock); }
};

// The body of the monitor thread; runs until the state leaves Running.
int DeadloopMonitorMain(void* unused);

#endif // XEL_DEADLOOP_INNER_H
