// Helpers of the policy tests.
#include "bfs_support.h"

#include <cstring>

namespace schtest
{

u32 TestBfs::Insert(const std::vector<bfsmodel::Event>& events)
{
    std::vector<struct epoll_event> array(events.size() + 1);
    for (size_t i = 0; i < events.size(); ++i) {
        array[i].data.u64 = events[i].first;
        array[i].events = events[i].second;
    }
    return SCH_BfsInsertEvents(policy_, array.data(), static_cast<u32>(events.size()));
}

std::vector<bfsmodel::Event> TestBfs::Select()
{
    struct epoll_event* out = nullptr;
    const u32 count = SCH_BfsSelectEvents(policy_, &out);
    EXPECT_EQ(out, policy_->outEvents);
    EXPECT_LE(count, 2U);
    std::vector<bfsmodel::Event> events;
    for (u32 i = 0; i < count; ++i) {
        events.emplace_back(u64{out[i].data.u64}, u32{out[i].events});
    }
    return events;
}

std::vector<SchTaskCtrl*> TestBfs::SelectTasks()
{
    std::vector<SchTaskCtrl*> tasks;
    for (const bfsmodel::Event& event : Select()) {
        tasks.push_back(reinterpret_cast<SchTaskCtrl*>(event.first));
    }
    return tasks;
}

std::vector<bfsmodel::Cached> TestBfs::ListCache(u32 capacity)
{
    constexpr char kGuard = 0x5A;
    std::vector<SchEventCacheInfo> records(capacity + 1);
    memset(static_cast<void*>(&records[capacity]), kGuard, sizeof(SchEventCacheInfo));
    u32 count = capacity;
    EXPECT_EQ(SCH_BfsGetEventCache(policy_, records.data(), &count), 0U);
    EXPECT_LE(count, capacity);
    std::string guard(sizeof(SchEventCacheInfo), kGuard);
    EXPECT_EQ(memcmp(&records[capacity], guard.data(), guard.size()), 0) << "written too far";
    std::vector<bfsmodel::Cached> out;
    for (u32 i = 0; i < count; ++i) {
        const SchEventCacheInfo& r = records[i];
        out.push_back({r.name, r.type, r.fd, r.insertTime, r.lastInsertTime, r.events});
    }
    return out;
}

BoundTask::BoundTask(const TestBfs& bfs, i32 fd, u32 type, u32 prio, const char* name)
    : task_(MakeTask(fd, {NopProc, 0, type, prio, name}))
{
    EXPECT_NE(task_, nullptr);
    EXPECT_EQ(SchTaskAddScheduler(task_, bfs.Get()), 0U);
}

void BoundTask::Destroy()
{
    if (task_ != nullptr) {
        XEL_TaskDestroy(task_);
        task_ = nullptr;
    }
}

void ForceTypePrio(SchTaskCtrl* task, u32 type, u32 prio)
{
    const Attr attr;
    attr.Get()->type = type;
    attr.Get()->prio = prio;
    EXPECT_EQ(SchFdModify(task, attr.Get()), 0U);
}

std::vector<bfsmodel::Item> WalkList(const XelDll& head)
{
    std::vector<bfsmodel::Item> items;
    const XelDll* back = &head;
    for (const XelDll* node = head.next; node != &head; node = node->next) {
        EXPECT_EQ(node->prev, back);
        back = node;
        const auto* event = static_cast<const SchBfsEvent*>(node->data);
        u32 halves[2] = {event->handle[0].load(), event->handle[1].load()};
        u64 handle = 0;
        memcpy(&handle, halves, sizeof(handle));
        items.push_back({handle, event->version.load(), event->mask.load(), event->key});
    }
    EXPECT_EQ(head.prev, back);
    return items;
}

} // namespace schtest
