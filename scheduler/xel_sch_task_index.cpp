// The descriptor index. Buckets are chains through the spare bytes of the task units, so the index
// takes no memory of its own but the bucket heads, which stay untouched pages until descriptors of
// their range are used. Descriptors are small consecutive numbers: their low bits spread them
// evenly.
#include "scheduler/xel_sch_task_index.h"

namespace
{

constexpr u32 kBucketCount = 1U << 16;

SchTaskCtrl* g_buckets[kBucketCount];

// The key of a linked task; the record's own descriptor is cleared before it leaves the index.
u32 KeyOf(i32 fd)
{
    return static_cast<u32>(fd) + 1;
}

SchTaskCtrl** BucketOf(i32 fd)
{
    return &g_buckets[static_cast<u32>(fd) % kBucketCount];
}

} // namespace

void TaskIndexAdd(SchTaskCtrl* task)
{
    SchTaskTail* tail = TailOf(task);
    tail->next = nullptr;
    tail->key = KeyOf(task->fd);
    SchTaskCtrl** place = BucketOf(task->fd);
    while (*place != nullptr) {
        place = &TailOf(*place)->next;
    }
    *place = task;
}

void TaskIndexRemove(SchTaskCtrl* task)
{
    SchTaskTail* tail = TailOf(task);
    const auto fd = static_cast<i32>(tail->key - 1);
    tail->key = 0;
    for (SchTaskCtrl** place = BucketOf(fd); *place != nullptr; place = &TailOf(*place)->next) {
        if (*place == task) {
            *place = tail->next;
            return;
        }
    }
}

SchTaskCtrl* TaskIndexFind(i32 fd)
{
    for (SchTaskCtrl* task = *BucketOf(fd); task != nullptr; task = TailOf(task)->next) {
        if (TailOf(task)->key == KeyOf(fd) && SchMatchTaskHandleWithAppFd(task, &fd)) {
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
