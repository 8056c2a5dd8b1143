/* A foreign program in C: one pipe, one task, one dispatched callback. */
#include <stdio.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <xel_scheduler.h>

static int g_runs;

static uint32_t OnReadable(struct epoll_event* events, uint64_t data)
{
    char byte;
    (void)events;
    g_runs += read((int)data, &byte, 1) == 1;
    return 0;
}

int main(void)
{
    int ends[2];
    int epFd = epoll_create(1);
    SchCtrl* sch = XEL_SchCreate((uint32_t)epFd, 8);
    XelTaskAttr* attr = XEL_TaskCreateAttr();
    if (sch == NULL || attr == NULL || pipe(ends) != 0) {
        return 1;
    }
    XelTaskUsrCb callback = {OnReadable, (uint64_t)ends[0]};
    SchEpollCtlReq request = {EPOLLIN, attr};
    if (XEL_TaskSetAttr(attr, XEL_TASK_ATTR_USR_CB, &callback, sizeof(callback)) != 0 ||
        SCH_EpollCtrl(sch, XEL_SCH_EPOLL_ADD, ends[0], &request) != 0) {
        return 1;
    }
    XEL_TaskDestroyAttr(attr);
    if (write(ends[1], "x", 1) != 1) {
        return 1;
    }
    XEL_SchDispatch(sch);
    if (SCH_EpollCtrl(sch, XEL_SCH_EPOLL_DEL, ends[0], NULL) != 0) {
        return 1;
    }
    XEL_SchDestroy(sch);
    printf("version %s, %d callback\n", g_xelSchMiniVer, g_runs);
    return g_runs == 1 ? 0 : 1;
}
