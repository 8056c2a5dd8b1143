// Helpers of the dispatch tests.
#include "sch_dispatch_support.h"

#include <algorithm>

namespace schtest
{

u32 NoteProc(struct epoll_event* /*event*/, u64 data)
{
    HookRecorder::Note(Text("run %lu", data));
    return 0;
}

u32 FailingProc(struct epoll_event* event, u64 data)
{
    (void)NoteProc(event, data);
    return 5;
}

void NoteHook(u64 context, u32 phase)
{
    HookRecorder::Note(Text("hook %lu %u", context, phase));
}

u32 FakePolicy::prepareResult = 16;
u32 FakePolicy::insertResult = 0;
u32 FakePolicy::selectLimit = 16;
u32 FakePolicy::left = 0;
bool FakePolicy::createFails = false;
bool FakePolicy::noting = true;
std::vector<struct epoll_event> FakePolicy::queue;

namespace
{

int g_instance; // its address is the policy

void NoteCall(const char* what)
{
    if (FakePolicy::noting) {
        HookRecorder::Note(what);
    }
}

void* Create(u32 /*epSize*/)
{
    NoteCall("create");
    return FakePolicy::createFails ? nullptr : &g_instance;
}

void Destroy(void* policy)
{
    EXPECT_EQ(policy, &g_instance);
    NoteCall("destroy");
}

u32 Prepare(void* policy)
{
    EXPECT_EQ(policy, &g_instance);
    NoteCall("prepare");
    return FakePolicy::prepareResult;
}

u32 Insert(void* policy, struct epoll_event* events, u32 count)
{
    EXPECT_EQ(policy, &g_instance);
    NoteCall(Text("insert %u", count).c_str());
    FakePolicy::queue.assign(events, events + count);
    return FakePolicy::insertResult;
}

u32 Select(void* policy, struct epoll_event** out)
{
    EXPECT_EQ(policy, &g_instance);
    NoteCall("select");
    *out = FakePolicy::queue.data();
    return std::min(static_cast<u32>(FakePolicy::queue.size()), FakePolicy::selectLimit);
}

u32 Cache(void* policy, SchEventCacheInfo* records, u32* count)
{
    EXPECT_EQ(policy, &g_instance);
    NoteCall("cache");
    EXPECT_GE(*count, 1U);
    records[0].fd = 77;
    *count = 1;
    return 0;
}

u32 Left(void* policy)
{
    EXPECT_EQ(policy, &g_instance);
    NoteCall("left");
    return FakePolicy::left;
}

} // namespace

SchPolicyOps FakePolicy::Ops()
{
    return {Create, Destroy, Prepare, Insert, Select, Cache, Left};
}

void FakePolicy::Reset()
{
    prepareResult = 16;
    insertResult = 0;
    selectLimit = 16;
    left = 0;
    createFails = false;
    noting = true;
    queue.clear();
}

ReadyTask::ReadyTask(SchCtrl* sch, const TaskSpec& spec, u32 count, u32 events)
    : fd_(xeltest::Fd::Event(count)), sch_(sch)
{
    EXPECT_EQ(AddFd(sch, fd_.Get(), spec, events), 0U);
}

void ReadyTask::Remove()
{
    EXPECT_EQ(DelFd(sch_, fd_.Get()), 0U);
    fd_.Reset();
}

ReadyTask::~ReadyTask()
{
    if (fd_.Get() >= 0) {
        Remove();
    }
}

} // namespace schtest
