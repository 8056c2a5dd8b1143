// The descriptor index. Buckets are chains through the spare bytes of the task units, so the index
// takes no memory of its own but the bucket heads, which stay untouched pages until descriptors of
// their range are used. Descriptors are small consecutive numbers: their low bits spread them
// evenly.
#include "scheduler/xel_sch_task_index.h"

namespace
{

constexpr u32 kBucketCount = 1U << 16;

// Behind the record in its unit.
struct IndexLink {
    SchTaskCtrl* next;
    i32 fd;     // the key; the record's own descriptor is cleared before the task leaves the index
    u32 linked; // 1 while in a bucket
};
static_assert(sizeof(SchTaskCtrl) + sizeof(IndexLink) <= kTaskUnitSize);
static_assert(sizeof(SchTaskCtrl) % alignof(IndexLink) == 0);

SchTaskCtrl* g_buckets[kBucketCount];

IndexLink* LinkOf(SchTaskCtrl* task)
{
    return reinterpret_cast<IndexLink*>(task + 1);
}

SchTaskCtrl** BucketOf(i32 fd)
{
    return &g_buckets[static_cast<u32>(fd) % kBucketCount];
}

} // namespace

void TaskIndexAdd(SchTaskCtrl* task)
{
    IndexLink* link = LinkOf(task);
    link->next = nullptr;
    link->fd = task->fd;
    link->linked = 1;
    SchTaskCtrl** place = BucketOf(task->fd);
    while (*place != nullptr) {
        place = &LinkOf(*place)->next;
    }
    *place = task;
}

void TaskIndexRemove(SchTaskCtrl* task)
{
    IndexLink* link = LinkOf(task);
    if (link->linked != 1) {
        return;
    }
    link->linked = 0;
    for (SchTaskCtrl** place = BucketOf(link->fd); *place != nullptr;
         place = &LinkOf(*place)->next) {
        if (*place == task) {
            *place = link->next;
            return;
        }
    }
}

SchTaskCtrl* TaskIndexFind(i32 fd)
{
    for (SchTaskCtrl* task = *BucketOf(fd); task != nullptr; task = LinkOf(task)->next) {
        if (LinkOf(task)->fd == fd && SchMatchTaskHandleWithAppFd(task, &fd)) {
            return task;
        }
    }
    return nullptr;
}

void TaskIndexReset()
{
    for (SchTaskCtrl*& bucket : g_buckets) {
        if (bucket != nullptr) {
            bucket = nullptr;
        }
    }
}
