// The list of live events. It owns the list, its lock and the index by address: a handle is valid
// exactly while its node is listed. Changes hold the lock for writing, the callback's look for
// reading. Nothing is called out to while the lock is held.
#include "event/xel_event_list.h"

#include <cerrno>
#include <cstddef>

#include "common/xel_memory.h"

constinit XelEventList g_xelEventList = {
    PTHREAD_RWLOCK_INITIALIZER, 0, {&g_xelEventList.head, &g_xelEventList.head}};

namespace
{

constexpr u32 kIndexBits = 14;

// The block of a node that was made here: the record, and behind it its place in the index.
struct EventBlock {
    XelEventNode node;
    AddressLink indexLink;
    bool isCounted;
    bool isKept;           // its memory stays for good
    std::atomic<u32> runs; // counted ones under way; with kGivenUp the last one releases
    EventRelease release;
    void* releaseData;
};

constexpr u32 kGivenUp = 1U << 31;

constinit AddressIndex<kIndexBits> g_index = {};

// Listed nodes that somebody else made, with nothing behind the record. Guarded as the list.
constinit u32 g_foreign = 0;

// Differs from address to address, so that a copy of a node is foreign.
u32 OwnMarkOf(const XelEventNode* node)
{
    return static_cast<u32>(reinterpret_cast<uintptr_t>(node) >> 3) ^ kEventMagic;
}

EventBlock* BlockOf(XelEventNode* node)
{
    return reinterpret_cast<EventBlock*>(node);
}

// Not followed: any address may be asked about.
const XelLink* LinkOf(const XelEventNode* node)
{
    return reinterpret_cast<const XelLink*>(reinterpret_cast<uintptr_t>(node) +
                                            offsetof(XelEventNode, link));
}

bool IsOwn(const XelEventNode* node)
{
    return node->ownMark == OwnMarkOf(node);
}

void Release(EventBlock* block)
{
    const EventRelease release = block->release;
    void* data = block->releaseData;
    if (!block->isKept) {
        XEL_FREE(kEventLog, block);
    }
    release(data);
}

void Unlist(XelEventNode* node)
{
    LinkRemove(&node->link);
    if (g_index.Contains(node)) {
        g_index.Remove(node);
    } else {
        g_foreign -= 1;
    }
    g_xelEventList.count -= 1;
}

} // namespace

XelEventNode* EventCreateEventNode(XelThreadCtrl* thread, i32 fd, const XelEventAttr* attr)
{
    auto* block = static_cast<EventBlock*>(XEL_ALLOC(kEventLog, sizeof(EventBlock)));
    if (block == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Alloc event node unsuccessfully, no memory.");
        return nullptr;
    }
    XelEventNode* node = &block->node;
    node->fd = fd;
    node->proc = attr->proc;
    node->data = attr->data;
    node->thread = thread;
    node->name[0] = '\0';
    (void)strncpy_s(node->name, sizeof(node->name), attr->name, XEL_NAME_SIZE - 1);
    LinkInit(&node->link);
    block->isCounted = false;
    block->isKept = false;
    block->runs.store(0, std::memory_order_relaxed);
    node->ownMark = OwnMarkOf(node);
    node->magic.store(kEventMagic, std::memory_order_release);
    return node;
}

// Under the lock, so that no callback is just copying the node.
void EventDestroyEventNode(XelEventNode* node)
{
    if (pthread_rwlock_wrlock(&g_xelEventList.lock) != 0) {
        XEL_LOG_FAIL(kEventLog, "Event list lock unsuccessfully. (errno = %d)", errno);
        return;
    }
    node->magic.store(0, std::memory_order_relaxed);
    node->ownMark = 0;
    XEL_FREE(kEventLog, BlockOf(node));
    (void)pthread_rwlock_unlock(&g_xelEventList.lock);
}

void EventCountRuns(XelEventNode* node)
{
    if (IsOwn(node)) {
        BlockOf(node)->isCounted = true;
    }
}

bool EventBeginRun(XelEventNode* node)
{
    if (!IsOwn(node) || !BlockOf(node)->isCounted) {
        return false;
    }
    BlockOf(node)->runs.fetch_add(1, std::memory_order_relaxed);
    return true;
}

void EventEndRun(XelEventNode* node)
{
    EventBlock* block = BlockOf(node);
    if (block->runs.fetch_sub(1, std::memory_order_acq_rel) == (kGivenUp | 1)) {
        Release(block);
    }
}

// The write hold waits for whoever found the event listed and is beginning a run.
void EventReleaseNode(XelEventNode* node, EventRelease release, void* data)
{
    if (!IsOwn(node) || !BlockOf(node)->isCounted) {
        EventDestroyEventNode(node);
        release(data);
        return;
    }
    EventBlock* block = BlockOf(node);
    if (pthread_rwlock_wrlock(&g_xelEventList.lock) != 0) {
        XEL_LOG_FAIL(kEventLog, "Event list lock unsuccessfully. (errno = %d)", errno);
        block->isKept = true;
    } else {
        node->magic.store(0, std::memory_order_relaxed);
        node->ownMark = 0;
        (void)pthread_rwlock_unlock(&g_xelEventList.lock);
    }
    block->release = release;
    block->releaseData = data;
    if (block->runs.fetch_or(kGivenUp, std::memory_order_acq_rel) == 0) {
        Release(block);
    }
}

XelEventNode* EventCreateEventNodeAndAddList(XelThreadCtrl* thread, i32 fd,
                                             const XelEventAttr* attr)
{
    XelEventNode* node = EventCreateEventNode(thread, fd, attr);
    if (node == nullptr) {
        return nullptr;
    }
    if (EventListAddNode(node) != XEL_OK) {
        XEL_LOG_FAIL(kEventLog, "Event add node to list unsuccessfully.");
        EventDestroyEventNode(node);
        return nullptr;
    }
    return node;
}

u32 EventDestroyEventNodeAndRmList(XelEventNode* node)
{
    const u32 ret = EventListDelNode(node);
    if (ret == XEL_OK) {
        EventDestroyEventNode(node);
    }
    return ret;
}

u32 EventListAddNode(XelEventNode* node)
{
    if (pthread_rwlock_wrlock(&g_xelEventList.lock) != 0) {
        XEL_LOG_FAIL(kEventLog, "event list lock unsuccessfully, errno = %d.", errno);
        return XEL_FAIL;
    }
    LinkAddFront(&g_xelEventList.head, &node->link);
    if (IsOwn(node)) {
        g_index.Add(&BlockOf(node)->indexLink, node);
    } else {
        g_foreign += 1;
    }
    g_xelEventList.count += 1;
    (void)pthread_rwlock_unlock(&g_xelEventList.lock);
    return XEL_OK;
}

u32 EventListDelNode(XelEventNode* node)
{
    if (pthread_rwlock_wrlock(&g_xelEventList.lock) != 0) {
        XEL_LOG_FAIL(kEventLog, "event list lock unsuccessfully, errno = %d.", errno);
        return XEL_FAIL;
    }
    if (!EventIsNodeAvailable(node)) {
        (void)pthread_rwlock_unlock(&g_xelEventList.lock);
        XEL_LOG_FAIL(kEventLog, "event node del eventHandle invalid.");
        return XEL_FAIL;
    }
    u32 ret = XEL_FAIL;
    const u32 magic = node->magic.load(std::memory_order_relaxed);
    if (magic != kEventMagic) {
        XEL_LOG_FAIL(kEventLog, "Event delete eventHandle magic error. (magic = %#x)", magic);
    } else {
        Unlist(node);
        ret = XEL_OK;
    }
    (void)pthread_rwlock_unlock(&g_xelEventList.lock);
    return ret;
}

bool EventIsNodeAvailable(const XelEventNode* node)
{
    return g_index.Contains(node) ||
           (g_foreign != 0 && node != nullptr && LinkIsIn(&g_xelEventList.head, LinkOf(node)));
}

u32 EventCopyListed(const XelEventNode* node, EventCopy* copy)
{
    if (!EventIsNodeAvailable(node)) {
        XEL_LOG_FAIL(kEventLog, "Eventfd node invalid.");
        return XEL_FAIL;
    }
    const u32 magic = node->magic.load(std::memory_order_relaxed);
    if (magic != kEventMagic) {
        XEL_LOG_FAIL(kEventLog, "Eventfd node magic invalid. (magic = %#x)", magic);
        return XEL_FAIL;
    }
    if (node->fd < 0) {
        XEL_LOG_FAIL(kEventLog, "Eventfd node fd invalid. (fd=%d)", node->fd);
        return XEL_FAIL;
    }
    if (node->proc == nullptr) {
        XEL_LOG_FAIL(kEventLog, "Eventfd node proc invalid. (proc null)");
        return XEL_FAIL;
    }
    copy->magic = magic;
    copy->ownMark = node->ownMark;
    copy->link = node->link;
    (void)memcpy_s(copy->name, sizeof(copy->name), node->name, sizeof(node->name));
    copy->thread = node->thread;
    copy->fd = node->fd;
    copy->proc = node->proc;
    copy->data = node->data;
    return XEL_OK;
}
