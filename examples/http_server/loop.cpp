// The epoll instance, the scheduler on it and the attribute object behind every task of the server.
// Called by the server on the loop's thread only.
#include "examples/http_server/loop.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace
{

constexpr u32 kEventsPerWait = 1024; // the policy grows up to it, from 8
constexpr u32 kBulkStep = 32U * 1024U;
constexpr u32 kHighestPriority = 31;

struct PlaceRow {
    const char* name;
    u32 type;
    u32 priority;
};

constexpr std::array<PlaceRow, 6> kPlaces = {{
    {"signals", XEL_TASK_TYPE_PRIO, 0},
    {"listener", XEL_TASK_TYPE_PRIO, 1},
    {"admin", XEL_TASK_TYPE_PRIO, 2},
    {"sweep", XEL_TASK_TYPE_PRIO, 3},
    {"http", XEL_TASK_TYPE_FIFO, 0},
    {"bulk", XEL_TASK_TYPE_DELAY, 0},
}};
static_assert(static_cast<size_t>(TaskClass::Bulk) + 1 == kPlaces.size());

} // namespace

TaskPlace BulkPlace(u32 bodySize)
{
    return {TaskClass::Bulk, std::min((bodySize + kBulkStep - 1) / kBulkStep, kHighestPriority)};
}

Loop::Loop() : epoll_(epoll_create1(EPOLL_CLOEXEC))
{
    if (!epoll_.IsOpen()) {
        throw std::runtime_error("no epoll instance");
    }
    attr_ = XEL_TaskCreateAttr();
    if (attr_ == nullptr) {
        throw std::runtime_error("no task attributes");
    }
    sch_ = XEL_SchCreate(static_cast<u32>(epoll_.Get()), kEventsPerWait);
    if (sch_ == nullptr) {
        XEL_TaskDestroyAttr(attr_);
        throw std::runtime_error("no scheduler");
    }
}

Loop::~Loop()
{
    XEL_SchDestroy(sch_);
    XEL_TaskDestroyAttr(attr_);
}

// A modify replaces all attributes of a task, so each description is complete.
bool Loop::Describe(TaskPlace place, XelTaskProc proc, void* data)
{
    const PlaceRow& row = kPlaces.at(static_cast<size_t>(place.taskClass));
    const u32 priority = row.type == XEL_TASK_TYPE_DELAY ? place.bulkPriority : row.priority;
    const XelTaskUsrCb callback = {proc, reinterpret_cast<u64>(data)};
    return XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)) == XEL_OK &&
           XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_TYPE, &row.type, sizeof(row.type)) == XEL_OK &&
           XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_PRIO, &priority, sizeof(priority)) == XEL_OK &&
           XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_NAME, row.name, strlen(row.name)) == XEL_OK;
}

bool Loop::Add(int fd, TaskPlace place, XelTaskProc proc, void* data)
{
    SchEpollCtlReq request = {EPOLLIN, attr_};
    return Describe(place, proc, data) &&
           SCH_EpollCtrl(sch_, XEL_SCH_EPOLL_ADD, fd, &request) == XEL_OK;
}

bool Loop::Move(int fd, TaskPlace place, XelTaskProc proc, void* data)
{
    SchEpollCtlReq request = {0, attr_};
    return Describe(place, proc, data) &&
           SCH_EpollCtrl(sch_, XEL_SCH_EPOLL_MOD, fd, &request) == XEL_OK;
}

void Loop::Remove(int fd)
{
    SCH_EpollCtrl(sch_, XEL_SCH_EPOLL_DEL, fd, nullptr);
}

bool Loop::Watch(int fd, u32 events, void* task) const
{
    struct epoll_event event = {};
    event.events = events;
    event.data.ptr = task;
    return epoll_ctl(epoll_.Get(), EPOLL_CTL_MOD, fd, &event) == 0;
}

void Loop::Run()
{
    while (!stopped_) {
        XEL_SchDispatch(sch_);
    }
}
