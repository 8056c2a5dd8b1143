// A plain model of the BFS policy: lists of the standard library, no recycling, no packing. The
// model test runs it beside the real policy and demands the same answers, state and log lines.
#ifndef XEL_TESTS_BFS_MODEL_H
#define XEL_TESTS_BFS_MODEL_H

#include <array>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "common/xel_int.h"

namespace bfsmodel
{

// The task that lives, or lived last, in one unit.
struct Task {
    bool live = false;
    bool bound = false;
    u32 version = 0;
    u32 type = 0;
    u32 prio = 0;
    u32 pending = 0;
    i32 fd = -1;
    std::string name;
    u64 insertTime = 0;
    u64 lastInsertTime = 0;
};

// One queued event.
struct Item {
    u64 handle = 0;
    u32 version = 0;
    u32 mask = 0;
    u64 key = 0;
    bool operator==(const Item&) const = default;
};

struct Cached {
    std::string name;
    u32 type = 0;
    i32 fd = -1;
    u64 insertTime = 0;
    u64 lastInsertTime = 0;
    u32 mask = 0;
    bool operator==(const Cached&) const = default;
};

using Event = std::pair<u64, u32>; // task handle, mask

class Policy
{
public:
    explicit Policy(u32 size) : maxEvents(size) {}

    u32 Prepare();
    void Insert(const std::vector<Event>& events, u64 nowUs);
    std::vector<Event> Select();
    std::vector<Cached> ListCache(size_t capacity);
    void Destroy();

    size_t Queued() const;
    std::vector<std::string> TakeLog() { return std::exchange(log_, {}); }

    std::map<u64, Task> tasks; // by handle; the test keeps them as it creates and destroys tasks

    u32 maxEvents;
    u32 batch = 8;
    u32 lastCount = 0;
    u32 freeSlots = 0;
    std::array<std::deque<Item>, 32> prio;
    std::deque<Item> fifo;
    std::deque<Item> delay;
    std::array<std::deque<Item>, 4> group;
    std::array<u32, 4> quota{1, 2, 4, 8};
    u64 fifoServed = 0;
    u64 delayServed = 0;
    u64 selectSeq = 0;
    u32 eventLeft = 0;

private:
    bool Accept(const Event& event, u64 nowUs, bool& first);
    void Queue(const Task& task, const Event& event);
    std::vector<Item> Pick();
    std::vector<Item> PickGroup();
    Item Release(std::deque<Item>& list, size_t at);
    bool TakeEvent(const Item& item, Event& out);
    void Drop(const Item& item);
    template <typename Visit>
    void EachList(Visit visit);

    std::vector<std::string> log_;
};

} // namespace bfsmodel

#endif // XEL_TESTS_BFS_MODEL_H
