// The BFS policy: turns what epoll reports into an ordered run list. It owns an instance per
// scheduler: free slots, two pools and the lists of queued events. Prepare, insert and select run
// in the dispatch cycle, one at a time; creation and destruction run alone. Data flows: prepare
// provides free slots, insert moves a slot into a list, select moves it back. A single event that
// meets empty lists goes straight to where select would put it.
#include "scheduler/xel_sch_policy_bfs.h"

#include <bit>
#include <cstring>

#include "common/xel_list_peek.h"
#include "common/xel_memory.h"
#include "scheduler/xel_sch_task_watch.h"
#include "xel_pool.h"
#include "xel_queue.h"

namespace
{

constexpr LogSite kBfsLog{"scheduler/xel_sch_policy_bfs", 86};

constexpr u32 kPoolNumber = 8;
constexpr u32 kPoolMode = 1;
constexpr u32 kBatchMin = 8;
constexpr u32 kCrowd = 6;
constexpr i32 kNoEpoll = -1;
constexpr u32 kPrioPerGroup = 8;
constexpr u64 kFifoPerDelay = 8; // type 1 picks for each type 2 pick
constexpr u64 kSeqPerPrio = 2; // a type 2 event is overdue after this many selections per priority
// The first quota period favours the last group, all later ones the first: both are as intended.
constexpr u32 kFirstQuota[kBfsGroupCount] = {1, 2, 4, 8};
constexpr u32 kRefillQuota[kBfsGroupCount] = {8, 4, 2, 1};

enum class End { Front, Back };

SchBfsCtrl* Instance(void* policy)
{
    return static_cast<SchBfsCtrl*>(policy);
}

// With so many events queued it costs less to take their registrations out of epoll's ready list
// than to hear of them again in every wait.
bool IsCrowded(const SchBfsCtrl* ctrl)
{
    return ctrl->listAnchor >= kCrowd;
}

SchBfsEvent* EventOf(const XelDll* node)
{
    return static_cast<SchBfsEvent*>(node->data);
}

SchTaskCtrl* TaskOf(const struct epoll_event& event)
{
    return static_cast<SchTaskCtrl*>(event.data.ptr);
}

// The bitmap as one word, bit p for priority p.
u32 PrioWord(const SchBfsCtrl* ctrl)
{
    static_assert(std::endian::native == std::endian::little);
    u32 word = 0;
    memcpy(&word, ctrl->prioBitmap, sizeof(word));
    return word;
}

void SetPrioBit(SchBfsCtrl* ctrl, u32 prio)
{
    ctrl->prioBitmap[prio / 8] = static_cast<u8>(ctrl->prioBitmap[prio / 8] | (1U << (prio % 8)));
}

void ClearPrioBit(SchBfsCtrl* ctrl, u32 prio)
{
    ctrl->prioBitmap[prio / 8] = static_cast<u8>(ctrl->prioBitmap[prio / 8] & ~(1U << (prio % 8)));
}

// Only the cycle changes the count, so a load and a store do; other threads read it at any time.
void AddEventLeft(SchBfsCtrl* ctrl, u32 change)
{
    const u32 left = ctrl->eventLeft.load(std::memory_order_relaxed);
    ctrl->eventLeft.store(left + change, std::memory_order_relaxed);
}

// Fills a record behind its sequence word: odd, fields, even. All stores release, so that a reader
// that meets a new field also meets the odd number in front of it.
void WriteEvent(SchBfsEvent* record, const struct epoll_event& event, const SchBfsTaskInfo& info)
{
    const u32 sequence = record->sequence.load(std::memory_order_relaxed);
    record->sequence.store(sequence | 1, std::memory_order_release);
    record->mask.store(event.events, std::memory_order_release);
    record->handle[0].store(static_cast<u32>(event.data.u64), std::memory_order_release);
    record->handle[1].store(static_cast<u32>(event.data.u64 >> 32), std::memory_order_release);
    record->version.store(info.version, std::memory_order_release);
    record->reserved = info.reserved;
    record->key = info.key;
    record->sequence.store((sequence | 1) + 1, std::memory_order_release);
}

// The cycle's own look at a record; it is the only writer, so no sequence check is due.
void ReadEvent(const SchBfsEvent* record, struct epoll_event* event, SchBfsTaskInfo* info)
{
    event->events = record->mask.load(std::memory_order_relaxed);
    event->data.u64 = record->handle[0].load(std::memory_order_relaxed) |
                      static_cast<u64>(record->handle[1].load(std::memory_order_relaxed)) << 32;
    info->version = record->version.load(std::memory_order_relaxed);
    info->reserved = record->reserved;
    info->key = record->key;
}

void FreeSlot(const SchBfsSlot& slot)
{
    FmmUnitFree(slot.node);
    FmmUnitFree(slot.event);
}

// Moves an event into a free slot and links it. Without a slot the event is dropped, and its task
// can be queued again. Returns whether it was linked.
bool QueueEvent(SchBfsCtrl* ctrl, XelDll* list, End end, const struct epoll_event& event,
                const SchBfsTaskInfo& info)
{
    SchBfsSlot slot = {};
    if (XelQueDequeue(ctrl->slotQueue, &slot) != XEL_OK || slot.node == nullptr ||
        slot.event == nullptr) {
        SchTaskDropEvent(TaskOf(event), info.version);
        return false;
    }
    WriteEvent(slot.event, event, info);
    if (end == End::Front) {
        XelDllInitAndAddNext(list, slot.node, slot.event);
    } else {
        XelDllInitAndAddPrev(list, slot.node, slot.event);
    }
    return true;
}

// Whether it is the turn of type 1, which shares with type 2.
bool IsFifoTurn(const SchBfsCtrl* ctrl)
{
    return ctrl->fifoServed < ctrl->delayServed * kFifoPerDelay;
}

// Chooses list and end by the type, which was checked.
void QueueByType(SchBfsCtrl* ctrl, const struct epoll_event& event, const SchTaskInsertInfo& task)
{
    SchBfsTaskInfo info = {task.version, 0, 0};
    switch (task.type) {
    case XEL_TASK_TYPE_PRIO:
        if (QueueEvent(ctrl, &ctrl->prioList[task.prio], End::Back, event, info)) {
            SetPrioBit(ctrl, task.prio);
        }
        return;
    case XEL_TASK_TYPE_FIFO: {
        (void)QueueEvent(ctrl, IsFifoTurn(ctrl) ? &ctrl->fifoList : &ctrl->delayList, End::Back,
                         event, info);
        return;
    }
    case XEL_TASK_TYPE_DELAY:
        info.key = ctrl->selectSeq + task.prio * kSeqPerPrio;
        (void)QueueEvent(ctrl, &ctrl->delayList,
                         info.key > ctrl->selectSeq ? End::Back : End::Front, event, info);
        return;
    default:
        (void)QueueEvent(ctrl, &ctrl->groupList[task.prio / kPrioPerGroup], End::Back, event, info);
        return;
    }
}

// The next event would be the only one in the policy, and so be selected at once.
void ServeAtOnce(SchBfsCtrl* ctrl, const struct epoll_event& event, const SchTaskInsertInfo& task)
{
    u64 key = 0;
    if (task.type == XEL_TASK_TYPE_DELAY) {
        key = ctrl->selectSeq + task.prio * kSeqPerPrio;
        ctrl->delayServed += 1;
    } else if (task.type == XEL_TASK_TYPE_FIFO) {
        (IsFifoTurn(ctrl) ? ctrl->fifoServed : ctrl->delayServed) += 1;
    }
    ctrl->selectSeq += 1;
    ctrl->outEvents[0] = event;
    ctrl->outInfo[0] = {task.version, 0, key};
}

void QueueInserted(SchBfsCtrl* ctrl, const struct epoll_event& event, const SchTaskInsertInfo& task)
{
    if (task.isFirst == 0) {
        if (IsCrowded(ctrl) && ctrl->asideFd != kNoEpoll) {
            TaskWatchSetAside(TaskOf(event), task.version, ctrl->asideFd, event.events);
        }
        return;
    }
    // Counted before the range check, also when the event is dropped there: informational.
    AddEventLeft(ctrl, 1);
    if (task.type >= kTaskTypeCount || task.prio >= kTaskPrioCount) {
        XEL_LOG_FAIL(kBfsLog, "Event insert, invalid task-ctrl, type = %d, priority = %u.",
                     task.type, task.prio);
        SchTaskDropEvent(TaskOf(event), task.version);
        return;
    }
    QueueByType(ctrl, event, task);
}

void InsertEvent(SchBfsCtrl* ctrl, const struct epoll_event& event)
{
    SchTaskInsertInfo task = {};
    if (SchTaskGetInfoInsert(ctrl, TaskOf(event), &event, &task) != XEL_OK) {
        XEL_LOG_FAIL(kBfsLog, "Event insert, invalid task-ctrl.");
        return;
    }
    QueueInserted(ctrl, event, task);
}

// Goes on with an event that was reported, according to its insertion.
void QueueReported(SchBfsCtrl* ctrl, const struct epoll_event& event, const SchTaskInsertInfo& task,
                   SchInserted inserted)
{
    if (inserted == SchInserted::Pending) {
        QueueInserted(ctrl, event, task);
    } else if (inserted == SchInserted::Refused) {
        XEL_LOG_FAIL(kBfsLog, "Event insert, invalid task-ctrl.");
    }
}

// Takes a node out of its list and copies its event out; the slot is kept for reuse when there is
// room, else its units go back to the pools.
void ReleaseNode(SchBfsCtrl* ctrl, XelDll* node, struct epoll_event* event, SchBfsTaskInfo* info)
{
    const SchBfsSlot slot = {node, EventOf(node)};
    ReadEvent(slot.event, event, info);
    XelDllDel(node);
    if (XelQueEnqueue(ctrl->slotQueue, &slot) != XEL_OK) {
        FreeSlot(slot);
    }
}

void ReleaseInto(SchBfsCtrl* ctrl, XelDll* node, u32 place)
{
    ReleaseNode(ctrl, node, &ctrl->outEvents[place], &ctrl->outInfo[place]);
}

u32 PickPrio(SchBfsCtrl* ctrl)
{
    const u32 word = PrioWord(ctrl);
    if (word == 0) {
        return 0;
    }
    const auto prio = static_cast<u32>(std::countr_zero(word));
    XelDll* list = &ctrl->prioList[prio];
    ReleaseInto(ctrl, DllNext(list), 0);
    if (DllIsEmpty(list)) {
        ClearPrioBit(ctrl, prio);
    }
    return 1;
}

u32 PickFifo(SchBfsCtrl* ctrl)
{
    if (DllIsEmpty(&ctrl->fifoList)) {
        return 0;
    }
    ReleaseInto(ctrl, DllNext(&ctrl->fifoList), 0);
    ctrl->fifoServed += 1;
    return 1;
}

// The first overdue node, else the one with the smallest key nearest the front.
u32 PickDelay(SchBfsCtrl* ctrl)
{
    XelDll* list = &ctrl->delayList;
    XelDll* chosen = DllNext(list);
    if (chosen == list) {
        return 0;
    }
    for (XelDll* node = chosen; node != list; node = DllNext(node)) {
        const u64 key = EventOf(node)->key;
        if (key < ctrl->selectSeq) {
            chosen = node;
            break;
        }
        if (key < EventOf(chosen)->key) {
            chosen = node;
        }
    }
    ReleaseInto(ctrl, chosen, 0);
    ctrl->delayServed += 1;
    return 1;
}

u32 PickFromGroup(SchBfsCtrl* ctrl, u32 group)
{
    XelDll* list = &ctrl->groupList[group];
    u32 taken = 0;
    while (taken < kBfsSelectMax && ctrl->groupQuota[group] > 0 && !DllIsEmpty(list)) {
        ReleaseInto(ctrl, DllNext(list), taken);
        ctrl->groupQuota[group] -= 1;
        ++taken;
    }
    return taken;
}

u32 PickGroup(SchBfsCtrl* ctrl)
{
    ctrl->fifoServed = 0;
    ctrl->delayServed = 0;
    for (u32 group = 0; group < kBfsGroupCount; ++group) {
        if (DllIsEmpty(&ctrl->groupList[group])) {
            ctrl->groupQuota[group] = 0; // an empty group forfeits the rest of its quota
            continue;
        }
        if (ctrl->groupQuota[group] > 0) {
            return PickFromGroup(ctrl, group);
        }
    }
    memcpy(ctrl->groupQuota, kRefillQuota, sizeof(ctrl->groupQuota));
    return 0;
}

u32 PickPass(SchBfsCtrl* ctrl)
{
    u32 taken = PickPrio(ctrl);
    if (taken == 0) {
        taken = PickFifo(ctrl);
    }
    if (taken == 0) {
        taken = PickDelay(ctrl);
    }
    return taken != 0 ? taken : PickGroup(ctrl);
}

// Takes the pending masks of the picked events. The first dead task ends the run list; live tasks
// behind it lose this event and can be queued again. Returns how many are to run.
u32 TakePending(SchBfsCtrl* ctrl, u32 picked)
{
    for (u32 i = 0; i < picked; ++i) {
        struct epoll_event* event = &ctrl->outEvents[i];
        bool isOwed = false;
        const u32 ret = SchTaskTakeEvent(TaskOf(*event), ctrl->outInfo[i].version, event,
                                         IsCrowded(ctrl), &isOwed);
        if (isOwed) {
            ctrl->isOwed = 1;
        }
        if (ret == XEL_OK) {
            continue;
        }
        for (u32 rest = i + 1; rest < picked; ++rest) {
            SchTaskDropEvent(TaskOf(ctrl->outEvents[rest]), ctrl->outInfo[rest].version);
        }
        return i;
    }
    return picked;
}

void PutBackOwed(SchBfsCtrl* ctrl)
{
    ctrl->isOwed = TaskWatchPutBackAll(ctrl->asideFd) ? 0 : 1;
}

// A dead task's unit may serve another one meanwhile: then a look too many does no harm.
bool HasReadyAside(const XelDll* list)
{
    for (const XelDll* node = DllNext(list); node != list; node = DllNext(node)) {
        struct epoll_event event = {};
        SchBfsTaskInfo info = {};
        ReadEvent(EventOf(node), &event, &info);
        if (TaskWatchIsAside(TaskOf(event)) && TaskWatchWouldReport(TaskOf(event), info.version)) {
            return true;
        }
    }
    return false;
}

// Empties a list at destruction: no event runs, and each task can be queued again elsewhere.
void DropList(SchBfsCtrl* ctrl, XelDll* list)
{
    while (!DllIsEmpty(list)) {
        struct epoll_event event = {};
        SchBfsTaskInfo info = {};
        ReleaseNode(ctrl, DllNext(list), &event, &info);
        SchTaskDropEvent(TaskOf(event), info.version);
    }
}

// Gives back what creation made so far.
void FreeParts(SchBfsCtrl* ctrl, void* slotQueue, void* nodePool, void* eventPool)
{
    if (slotQueue != nullptr) {
        XelQueDestroy(slotQueue);
    }
    for (void* pool : {nodePool, eventPool}) {
        if (pool != nullptr) {
            FmmCtrlDestroy(pool);
        }
    }
    XEL_FREE(kBfsLog, ctrl);
}

} // namespace

const SchPolicyOps g_schBfsPolicyOps = {
    SCH_BfsCreatePolicy, SCH_BfsDestroyPolicy, SCH_BfsResPrepare,   SCH_BfsInsertEvents,
    SCH_BfsSelectEvents, SCH_BfsGetEventCache, SCH_BfsGetEventLeft,
};

void* SCH_BfsCreatePolicy(uint32_t size)
{
    auto* ctrl = XEL_ALLOC_RECORD(SchBfsCtrl, kBfsLog);
    if (ctrl == nullptr) {
        return nullptr;
    }
    void* slotQueue = XelQueCreate(sizeof(SchBfsSlot), size);
    if (slotQueue == nullptr) {
        XEL_LOG_FAIL(kBfsLog, "Ctrl create, create queue unsuccessfully, unit = %zu, size = %u.",
                     sizeof(SchBfsSlot), size);
        FreeParts(ctrl, nullptr, nullptr, nullptr);
        return nullptr;
    }
    void* nodePool = FmmCtrlCreate(sizeof(XelDll), kPoolNumber, kPoolMode);
    if (nodePool == nullptr) {
        XEL_LOG_FAIL(kBfsLog, "Bfs create dll unsuccessfully, size = %zu, flag = %u.",
                     sizeof(XelDll), kPoolMode);
        FreeParts(ctrl, slotQueue, nullptr, nullptr);
        return nullptr;
    }
    void* eventPool = FmmCtrlCreate(sizeof(SchBfsEvent), kPoolNumber, kPoolMode);
    if (eventPool == nullptr) {
        XEL_LOG_FAIL(kBfsLog, "Bfs create data unsuccessfully, size = %zu, flag = %u.",
                     sizeof(SchBfsEvent), kPoolMode);
        FreeParts(ctrl, slotQueue, nodePool, nullptr);
        return nullptr;
    }
    (void)SchBfsCtrlInit(ctrl, size, slotQueue, nodePool, eventPool);
    return ctrl;
}

u32 SchBfsCtrlInit(SchBfsCtrl* ctrl, u32 size, void* slotQueue, void* nodePool, void* eventPool)
{
    ctrl->maxEvents = size;
    ctrl->batch = kBatchMin;
    ctrl->asideFd = kNoEpoll;
    ctrl->isOwed = 0;
    ctrl->slotQueue = slotQueue;
    ctrl->nodePool = nodePool;
    ctrl->eventPool = eventPool;
    ctrl->selectSeq = 0;
    ctrl->eventLeft.store(0, std::memory_order_relaxed);
    for (XelDll& list : ctrl->prioList) {
        XelDllInit(&list, &ctrl->listAnchor);
    }
    XelDllInit(&ctrl->fifoList, &ctrl->listAnchor);
    XelDllInit(&ctrl->delayList, &ctrl->listAnchor);
    for (u32 group = 0; group < kBfsGroupCount; ++group) {
        ctrl->groupQuota[group] = kFirstQuota[group];
        XelDllInit(&ctrl->groupList[group], &ctrl->listAnchor);
    }
    return XEL_OK;
}

void SCH_BfsDestroyPolicy(void* policy)
{
    SchBfsCtrl* ctrl = Instance(policy);
    if (ctrl == nullptr) {
        return;
    }
    for (XelDll& list : ctrl->prioList) {
        DropList(ctrl, &list);
    }
    memset(ctrl->prioBitmap, 0, sizeof(ctrl->prioBitmap));
    DropList(ctrl, &ctrl->fifoList);
    ctrl->fifoServed = 0;
    DropList(ctrl, &ctrl->delayList);
    ctrl->delayServed = 0;
    for (XelDll& list : ctrl->groupList) {
        DropList(ctrl, &list);
    }
    SchBfsSlot slot = {};
    while (XelQueDequeue(ctrl->slotQueue, &slot) == XEL_OK) {
        FreeSlot(slot);
    }
    FreeParts(ctrl, ctrl->slotQueue, ctrl->nodePool, ctrl->eventPool);
}

// Doubles the batch when the last wait filled it, halves it when less than half came. The upper
// bound is applied last: with fewer than 8 events in all it wins.
void SchBfsMaxEventAdapt(SchBfsCtrl* ctrl)
{
    if (ctrl->lastCount == ctrl->batch) {
        ctrl->batch = ctrl->lastCount * 2;
    } else if (ctrl->lastCount < ctrl->batch / 2) {
        ctrl->batch /= 2;
    }
    if (ctrl->batch < kBatchMin) {
        ctrl->batch = kBatchMin;
    }
    if (ctrl->batch > ctrl->maxEvents) {
        ctrl->batch = ctrl->maxEvents;
    }
}

// Every event fetched by the following wait finds a free slot. A failure answers one less than the
// free slots: with none left that is 0xFFFFFFFF, which makes the wait fail.
uint32_t SCH_BfsResPrepare(void* policy)
{
    SchBfsCtrl* ctrl = Instance(policy);
    if (ctrl->isOwed != 0) {
        PutBackOwed(ctrl);
    }
    SchBfsMaxEventAdapt(ctrl);
    u32 used = XelQueGetSizeUsed(ctrl->slotQueue);
    for (; used < ctrl->batch; ++used) {
        SchBfsSlot slot = {};
        slot.node = static_cast<XelDll*>(FmmUnitAlloc(ctrl->nodePool));
        if (slot.node == nullptr) {
            XEL_LOG_FAIL(kBfsLog, "Event prepare, alloc dll unsuccessfully.");
            return used - 1;
        }
        slot.event = static_cast<SchBfsEvent*>(FmmUnitAlloc(ctrl->eventPool));
        if (slot.event == nullptr) {
            XEL_LOG_FAIL(kBfsLog, "Event prepare, alloc event unsuccessfully.");
            FmmUnitFree(slot.node);
            return used - 1;
        }
        if (XelQueEnqueue(ctrl->slotQueue, &slot) != XEL_OK) {
            XEL_LOG_FAIL(kBfsLog, "Event prepare, enqueue unsuccessfully. (eventSize = %d)",
                         ctrl->batch);
            FreeSlot(slot);
            return used - 1;
        }
    }
    return ctrl->batch;
}

uint32_t SCH_BfsInsertEvents(void* policy, struct epoll_event* events, uint32_t count)
{
    SchBfsCtrl* ctrl = Instance(policy);
    ctrl->lastCount = count;
    for (u32 i = 0; i < count; ++i) {
        InsertEvent(ctrl, events[i]);
    }
    return XEL_OK;
}

// Ends: every further pass has taken at least one event out of the lists.
uint32_t SCH_BfsSelectEvents(void* policy, struct epoll_event** out)
{
    SchBfsCtrl* ctrl = Instance(policy);
    for (;;) {
        const u32 picked = PickPass(ctrl);
        AddEventLeft(ctrl, 0 - picked);
        ctrl->selectSeq += 1;
        const u32 runnable = TakePending(ctrl, picked);
        if (picked == 0 || runnable > 0) {
            *out = ctrl->outEvents;
            return runnable;
        }
    }
}

void BfsPassEvents(void* policy, const struct epoll_event* events, const SchBatch& batch,
                   SchRunList* run)
{
    SchBfsCtrl* ctrl = Instance(policy);
    ctrl->lastCount = run->count;
    SchTaskInsertInfo task = {};
    if (run->count == 1 && ctrl->listAnchor == 0) {
        // With nothing queued, the way through a list is as long as half of the cycle and leads
        // back to the same event.
        const SchInserted inserted =
            SchTaskInsertOrBegin(ctrl, TaskOf(*events), events, batch, &task, &run->start);
        if (inserted == SchInserted::Begun) {
            ServeAtOnce(ctrl, *events, task);
            run->events = ctrl->outEvents;
            run->isBegun = true;
            return;
        }
        QueueReported(ctrl, *events, task, inserted);
    } else {
        for (u32 i = 0; i < run->count; ++i) {
            const SchInserted inserted =
                SchTaskInsert(ctrl, TaskOf(events[i]), &events[i], batch, &task);
            QueueReported(ctrl, events[i], task, inserted);
        }
    }
    run->count = SCH_BfsSelectEvents(policy, &run->events);
}

void BfsAllowAside(void* policy, i32 epFd)
{
    Instance(policy)->asideFd = epFd;
}

// Asked when nothing could be selected: what is queued then is of type 3. When none of it is ready
// any more, the wait has to notice readiness again, so all registrations come back.
bool BfsMayBlock(void* policy)
{
    SchBfsCtrl* ctrl = Instance(policy);
    if (ctrl->asideFd == kNoEpoll || (ctrl->listAnchor == 0 && ctrl->isOwed == 0)) {
        return true;
    }
    for (const XelDll& list : ctrl->groupList) {
        if (HasReadyAside(&list)) {
            return false;
        }
    }
    PutBackOwed(ctrl);
    return ctrl->isOwed == 0;
}

uint32_t SCH_BfsGetEventLeft(void* policy)
{
    return Instance(policy)->eventLeft.load(std::memory_order_relaxed);
}
