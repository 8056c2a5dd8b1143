// Listing the queued events of a BFS policy. May run on any thread beside the dispatch cycle and
// takes no lock of the policy: every word read here is atomic, the memory of nodes and records
// stays mapped, and the scheduler's read hold of the caller keeps the instance alive. A node that
// the cycle moves meanwhile may be missed or end the walk of its list; it is never misread.
#include "scheduler/xel_sch_policy_bfs.h"

#include "common/xel_list_peek.h"
#include "xel_pool.h"

namespace
{

constexpr u32 kCheckAlone = 1;
constexpr u32 kReadAttempts = 8; // a record that changes more often than that is skipped

// What one record says.
struct QueuedEvent {
    SchTaskCtrl* task;
    u32 version;
    u32 mask;
};

// Where the listing stands.
struct Listing {
    SchEventCacheInfo* records;
    u32 capacity;
    u32 filled;
    u32 steps; // nodes still to be visited: no more than were queued at the start
};

// Pairs with the releasing stores of the writer: an even sequence that is the same before and after
// means that all fields between belong together.
bool ReadQueued(const SchBfsEvent* record, QueuedEvent* out)
{
    for (u32 attempt = 0; attempt < kReadAttempts; ++attempt) {
        const u32 before = record->sequence.load(std::memory_order_acquire);
        out->mask = record->mask.load(std::memory_order_acquire);
        const u64 low = record->handle[0].load(std::memory_order_acquire);
        const u64 high = record->handle[1].load(std::memory_order_acquire);
        out->version = record->version.load(std::memory_order_acquire);
        const u32 after = record->sequence.load(std::memory_order_relaxed);
        if (before == after && before % 2 == 0) {
            out->task = reinterpret_cast<SchTaskCtrl*>(high << 32 | low);
            return true;
        }
    }
    return false;
}

void ListNode(const XelDll* node, Listing* listing)
{
    void* data =
        std::atomic_ref<void*>(const_cast<XelDll*>(node)->data).load(std::memory_order_acquire);
    QueuedEvent queued = {};
    if (!FmmUnitIsValid(data, kCheckAlone) ||
        !ReadQueued(static_cast<const SchBfsEvent*>(data), &queued)) {
        return;
    }
    SchEventCacheInfo* record = &listing->records[listing->filled];
    if (SchTaskGetDbgInfo(queued.task, queued.version, record) == XEL_OK) {
        record->events = queued.mask;
        listing->filled += 1;
    }
}

// A node that moved to another list leads to that list's head, which is no pool unit: the walk
// ends there, or at a node that is just out of every list (no next).
void ListQueue(const XelDll* head, Listing* listing)
{
    for (const XelDll* node = DllNext(head); node != head && listing->steps > 0;
         node = DllNext(node)) {
        if (listing->filled == listing->capacity || !FmmUnitIsValid(node, kCheckAlone)) {
            return;
        }
        listing->steps -= 1;
        ListNode(node, listing);
    }
}

} // namespace

uint32_t SCH_BfsGetEventCache(void* policy, SchEventCacheInfo* records, uint32_t* count)
{
    auto* ctrl = static_cast<SchBfsCtrl*>(policy);
    const u32 queued = std::atomic_ref<u32>(ctrl->listAnchor).load(std::memory_order_relaxed);
    Listing listing = {records, *count, 0, queued};
    for (const XelDll& list : ctrl->prioList) {
        ListQueue(&list, &listing);
    }
    ListQueue(&ctrl->fifoList, &listing);
    ListQueue(&ctrl->delayList, &listing);
    for (const XelDll& list : ctrl->groupList) {
        ListQueue(&list, &listing);
    }
    *count = listing.filled;
    return XEL_OK;
}
