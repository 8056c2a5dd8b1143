// Attributes, registration and the epoll instance behind a scheduler thread. Called by the owners
// of the descriptors on their threads; no locks.
#include "examples/service_platform/tasks.h"

#include <array>
#include <cstring>
#include <stdexcept>

namespace
{

struct PlaceRow {
    const char* name;
    u32 type;
    u32 priority;
};

constexpr std::array<PlaceRow, 4> kPlaces = {{
    {"admin", XEL_TASK_TYPE_PRIO, 0},
    {"listener", XEL_TASK_TYPE_PRIO, 2},
    {"http", XEL_TASK_TYPE_FIFO, 0},
    {"desk", XEL_TASK_TYPE_PRIO, 0},
}};
static_assert(static_cast<size_t>(TaskPlace::Desk) + 1 == kPlaces.size());

// The threads of this program and a few more.
constexpr u32 kThreadRoom = 16;

int EpollOf(XelThreadCtrl* thread)
{
    u64 tid = 0;
    std::array<XelSchDeployInfo, kThreadRoom> rows = {};
    u32 count = kThreadRoom;
    if (XEL_ThreadGetInfo(thread, XEL_THREAD_INFO_TID, &tid, sizeof(tid)) == XEL_OK &&
        THREAD_GetSchDeployInfo(-1, rows.data(), &count) == XEL_OK) {
        for (u32 i = 0; i < count; ++i) {
            if (rows[i].tid == tid) {
                return rows[i].epFd;
            }
        }
    }
    throw std::runtime_error("a scheduler thread is not listed");
}

} // namespace

Tasks::Tasks(const Worker& worker)
    : thread_(worker.Handle()), epoll_(EpollOf(worker.Handle())), attr_(XEL_TaskCreateAttr())
{
    if (attr_ == nullptr) {
        throw std::runtime_error("no task attributes");
    }
}

Tasks::~Tasks()
{
    XEL_TaskDestroyAttr(attr_);
}

// A modify replaces all attributes of a task, so each description is complete.
bool Tasks::Describe(TaskPlace place, XelTaskProc proc, void* data)
{
    const PlaceRow& row = kPlaces.at(static_cast<size_t>(place));
    const XelTaskUsrCb callback = {proc, reinterpret_cast<u64>(data)};
    return XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)) == XEL_OK &&
           XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_TYPE, &row.type, sizeof(row.type)) == XEL_OK &&
           XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_PRIO, &row.priority, sizeof(row.priority)) ==
               XEL_OK &&
           XEL_TaskSetAttr(attr_, XEL_TASK_ATTR_NAME, row.name, strlen(row.name)) == XEL_OK;
}

bool Tasks::Add(int fd, TaskPlace place, XelTaskProc proc, void* data)
{
    SchEpollCtlReq request = {EPOLLIN, attr_};
    return Describe(place, proc, data) &&
           XEL_ThreadCtrl(thread_, XEL_THREAD_CTRL_ADD, fd, &request) == XEL_OK;
}

bool Tasks::Move(int fd, TaskPlace place, XelTaskProc proc, void* data)
{
    SchEpollCtlReq request = {0, attr_};
    return Describe(place, proc, data) &&
           XEL_ThreadCtrl(thread_, XEL_THREAD_CTRL_MOD, fd, &request) == XEL_OK;
}

void Tasks::Remove(int fd)
{
    (void)XEL_ThreadCtrl(thread_, XEL_THREAD_CTRL_DEL, fd, nullptr);
}

bool Tasks::Watch(int fd, u32 events, void* task) const
{
    struct epoll_event event = {};
    event.events = events;
    event.data.ptr = task;
    return epoll_ctl(epoll_, EPOLL_CTL_MOD, fd, &event) == 0;
}
