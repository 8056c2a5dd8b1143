// The list of live timers and the memory of its nodes. It owns the control block's timer half:
// list, count, lock, and an index by address of the nodes whose memory is there, which answers
// handle checks as a walk of the list would. A node is freed by whoever takes it out of the list,
// or, when its scheduler thread is running it at that moment, by the end of that run.
#include "timer/xel_timer_list.h"

#include <cerrno>
#include <unistd.h>

#include "common/xel_address_index.h"
#include "common/xel_memory.h"
#include "thread/xel_sch_thread_inner.h"
#include "timer/xel_timer_type.h"

constinit XelTimerCtrl g_xelTimerCtrl = {
    0, {&g_xelTimerCtrl.timerList, &g_xelTimerCtrl.timerList}, PTHREAD_RWLOCK_INITIALIZER,
    0, {&g_xelTimerCtrl.groupList, &g_xelTimerCtrl.groupList}, PTHREAD_MUTEX_INITIALIZER,
};

namespace
{

constexpr u32 kIndexBits = 14;

// The block of a node that was made here: the record, and behind it what only this file knows.
struct TimerBlock {
    XelTimerNode node;
    AddressLink indexLink;
    // Runs in progress; changed under the read side, read under the write side. More than one only
    // when a late run of a freed timer meets a new one at the same address.
    std::atomic<u32> runs;
    u32 isListed;            // written under the write side
    u32 isLeft;              // the last run is to release the node; written under the write side
    TimerTypeData* typeData; // held until then; null for most
};

// Guarded by the timer lock, as the list. A node stands here from its allocation until its release
// is decided, whether it is listed or not.
constinit AddressIndex<kIndexBits> g_index = {};

// Listed nodes that somebody else made: the record is all there is. Guarded as the list.
constinit u32 g_foreign = 0;

TimerBlock* BlockOf(XelTimerNode* node)
{
    return reinterpret_cast<TimerBlock*>(node);
}

const TimerBlock* BlockOf(const XelTimerNode* node)
{
    return reinterpret_cast<const TimerBlock*>(node);
}

XelTimerNode* NodeOf(XelLink* link)
{
    return reinterpret_cast<XelTimerNode*>(reinterpret_cast<uintptr_t>(link) -
                                           offsetof(XelTimerNode, link));
}

bool IsForeignInList(const XelTimerNode* node)
{
    const auto link = reinterpret_cast<uintptr_t>(node) + offsetof(XelTimerNode, link);
    return g_foreign != 0 && node != nullptr &&
           LinkIsIn(&g_xelTimerCtrl.timerList, reinterpret_cast<const XelLink*>(link));
}

} // namespace

// The descriptor is read while the lock is held: the creation of a half-made timer may fail, and
// its number become somebody else's.
TimerRun::TimerRun(XelTimerNode* node, u32 mask)
    : node_(node), isLive_(false), magic_(0), call_(), expiry_()
{
    const TimerReadGuard guard;
    const bool isOwn = g_index.Contains(node);
    if (!isOwn && !IsForeignInList(node)) {
        return;
    }
    const u32 magic = node->magic.load(std::memory_order_acquire);
    const bool isMade = magic == kTimerMagic;
    if (isMade && !ThreadMayRunHere(node->thread)) {
        return;
    }
    if (isOwn) {
        BlockOf(node)->runs.fetch_add(1, std::memory_order_relaxed);
        isLive_ = true;
    }
    magic_ = magic;
    if (!isMade) {
        return;
    }
    call_ = {node->fd, node->mode, node->callback, node->userData};
    if ((mask & EPOLLIN) != 0 && !TimerIsEnding(node)) {
        expiry_.length = read(call_.fd, &expiry_.count, sizeof(expiry_.count));
        expiry_.error = errno;
    }
}

void TimerRun::End()
{
    if (!isLive_) {
        return;
    }
    isLive_ = false;
    TimerBlock* block = BlockOf(node_);
    bool isLeft = false;
    {
        const TimerReadGuard guard;
        const u32 runs = block->runs.fetch_sub(1, std::memory_order_acq_rel); // each other's end
        isLeft = runs == 1 && block->isLeft != 0;
    }
    if (isLeft) {
        TimerTypeData* typeData = block->typeData;
        TimerReleaseNode(node_);
        TimerTypeDataRelease(typeData);
    }
}

XelTimerNode* TimerAllocNode()
{
    auto* block = XEL_ALLOC_RECORD(TimerBlock, kTimerLog);
    if (block == nullptr) {
        return nullptr;
    }
    const TimerWriteGuard guard;
    g_index.Add(&block->indexLink, &block->node);
    return &block->node;
}

void TimerLinkNode(XelTimerNode* node)
{
    LinkAddFront(&g_xelTimerCtrl.timerList, &node->link);
    if (g_index.Contains(node)) {
        BlockOf(node)->isListed = 1;
    } else {
        g_foreign += 1;
    }
    g_xelTimerCtrl.timerCount += 1;
}

void TimerUnlinkNode(XelTimerNode* node)
{
    LinkRemove(&node->link);
    if (g_index.Contains(node)) {
        BlockOf(node)->isListed = 0;
    } else {
        g_foreign -= 1;
    }
    if (g_xelTimerCtrl.timerCount > 0) {
        g_xelTimerCtrl.timerCount -= 1;
    }
}

bool TimerLeaveToRun(XelTimerNode* node, TimerTypeData* typeData)
{
    if (!g_index.Contains(node)) {
        return false;
    }
    TimerBlock* block = BlockOf(node);
    g_index.Remove(node); // no further run begins
    if (block->runs.load(std::memory_order_relaxed) == 0) {
        return false;
    }
    if (typeData != nullptr) {
        TimerTypeDataHold(typeData);
    }
    block->typeData = typeData;
    block->isLeft = 1;
    return true;
}

void TimerReleaseUnlessRunning(XelTimerNode* node)
{
    {
        const TimerWriteGuard guard;
        if (TimerLeaveToRun(node, nullptr)) {
            return;
        }
    }
    TimerReleaseNode(node);
}

void TimerDiscardNode(XelTimerNode* node)
{
    node->destructor = nullptr;
    TimerReleaseUnlessRunning(node);
}

// The descriptor is closed here too: a run that was in progress may still have been about to read
// it.
void TimerReleaseNode(XelTimerNode* node)
{
    if (node->fd >= 0) {
        close(node->fd);
        node->fd = -1;
    }
    if (node->destructor != nullptr) {
        node->destructor(node->userData);
    }
    node->magic.store(0, std::memory_order_relaxed);
    XEL_FREE(kTimerLog, BlockOf(node));
}

void TimerAddNode(XelTimerNode* node)
{
    const TimerWriteGuard guard;
    TimerLinkNode(node);
}

u32 TimerDelNode(XelTimerNode* node)
{
    const TimerWriteGuard guard;
    if (!TimerIsHandleLegal(node)) {
        XEL_LOG_FAIL(kTimerLog, "Timer handle invalid.");
        return XEL_EINVAL;
    }
    TimerUnlinkNode(node);
    return XEL_OK;
}

bool TimerIsNodeInList(const XelTimerNode* node)
{
    return g_index.Contains(node) ? BlockOf(node)->isListed != 0 : IsForeignInList(node);
}

// The address is looked up before any field is read, so the handle of a freed timer is harmless.
bool TimerIsHandleLegal(const XelTimerNode* node)
{
    return node != nullptr && TimerIsNodeInList(node) &&
           node->magic.load(std::memory_order_relaxed) == kTimerMagic;
}

bool TimerHandleIsAvailable(const XelTimerNode* node)
{
    return TimerIsHandleLegal(node) && !TimerIsEnding(node);
}

// The destruction is synchronous, pending timers included; a timer whose task cannot be removed
// stays listed. Destructors run once the lock is given back.
void TimerCommonDestroyTimer(u32 groupId, u32 typeId, TimerMatch match)
{
    XelLink released;
    LinkInit(&released);
    {
        const TimerWriteGuard guard;
        XelLink* next = nullptr;
        for (XelLink* link = g_xelTimerCtrl.timerList.next; link != &g_xelTimerCtrl.timerList;
             link = next) {
            next = link->next;
            XelTimerNode* node = NodeOf(link);
            if (match(node, groupId, typeId) && TimerDetachNode(node)) {
                TimerUnlinkNode(node);
                if (!TimerLeaveToRun(node, TimerSharedTypeData(node))) {
                    LinkAddFront(released.prev, link); // behind the last: destructors run in order
                }
            }
        }
    }
    while (released.next != &released) {
        XelTimerNode* node = NodeOf(released.next);
        LinkRemove(&node->link);
        TimerReleaseNode(node);
    }
}
