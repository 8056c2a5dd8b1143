// The life of a timer's memory: from its block, through the list of live timers, to its release,
// which waits for a run that is in progress on the timer's scheduler thread.
#ifndef XEL_TIMER_TIMER_LIST_H
#define XEL_TIMER_TIMER_LIST_H

#include "common/xel_lock_guard.h"
#include "timer/xel_timer_inner.h"

// Holds of the timer lock.
class TimerReadGuard : NoCopy
{
public:
    TimerReadGuard() { (void)pthread_rwlock_rdlock(&g_xelTimerCtrl.timerLock); }
    ~TimerReadGuard() { (void)pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock); }
};

class TimerWriteGuard : NoCopy
{
public:
    TimerWriteGuard() { (void)pthread_rwlock_wrlock(&g_xelTimerCtrl.timerLock); }
    ~TimerWriteGuard() { (void)pthread_rwlock_unlock(&g_xelTimerCtrl.timerLock); }
};

// Whether XEL_TimerDestroy has marked the timer.
inline bool TimerIsEnding(const XelTimerNode* node)
{
    return node->destroyPending.load(std::memory_order_seq_cst) == kTimerPending;
}

// What a run needs of its timer: a copy, since the timer may be gone after its callback.
struct TimerCall {
    i32 fd;
    u32 mode;
    XelTimerProc callback;
    void* userData;
};

// What reading the expiration count gave.
struct TimerExpiry {
    ssize_t length;
    int error;
    u64 count;
};

// One run of a timer on its scheduler thread. A timer that somebody else ends meanwhile is released
// by the end of the run.
class TimerRun : NoCopy
{
public:
    // Reads the expiration count as well when the mask has EPOLLIN and the timer is not ending.
    TimerRun(XelTimerNode* node, u32 mask);
    ~TimerRun() { End(); }

    // The magic that was found; 0, and nothing of the timer may be read, when its memory was gone
    // before the run began, or has become a timer of another scheduler thread.
    u32 Magic() const { return magic_; }
    // Taken under one hold of the lock, for a timer with the right magic: a late run of a freed
    // timer may meet a new one at its address that is just being set up.
    const TimerCall& Call() const { return call_; }
    const TimerExpiry& Expiry() const { return expiry_; }
    void End();

private:
    XelTimerNode* node_;
    bool isLive_;
    u32 magic_;
    TimerCall call_;
    TimerExpiry expiry_;
};

// Type data that a timer without user data of its own works with.
struct TimerTypeData;

// A cleared node, in no list; null without memory. Takes the write side.
XelTimerNode* TimerAllocNode();

// Puts a node into the list; the caller holds the write side.
void TimerLinkNode(XelTimerNode* node);

// Takes a legal node out of the list; the caller holds the write side.
void TimerUnlinkNode(XelTimerNode* node);

// For a node that is out of the list, with the write side held: it is to be released, and no
// further run of it begins. True when one is in progress; then that run releases it. typeData (may
// be null) is kept until then as well.
bool TimerLeaveToRun(XelTimerNode* node, TimerTypeData* typeData);

// Releases a node that is out of the list, or leaves that to a run of it that is in progress.
// No lock held.
void TimerReleaseUnlessRunning(XelTimerNode* node);

// The same for a node whose user data is not to be released: its creation failed.
void TimerDiscardNode(XelTimerNode* node);

// Releases a node that is out of the list and not running: descriptor, destructor, magic, memory.
// No lock held.
void TimerReleaseNode(XelTimerNode* node);

// Counts the users of a type's data: the type itself, and runs of timers that outlive it.
void TimerTypeDataHold(TimerTypeData* typeData);
void TimerTypeDataRelease(TimerTypeData* typeData);

#endif // XEL_TIMER_TIMER_LIST_H
