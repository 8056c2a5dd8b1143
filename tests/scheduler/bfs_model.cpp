// The model of the BFS policy, written as the rules read and without a thought for speed.
#include "bfs_model.h"

#include <algorithm>

namespace bfsmodel
{

u32 Policy::Prepare()
{
    if (lastCount == batch) {
        batch = lastCount * 2;
    } else if (lastCount < batch / 2) {
        batch /= 2;
    }
    batch = std::min(std::max(batch, 8U), maxEvents);
    freeSlots = std::max(freeSlots, batch);
    return batch;
}

// The task's part of an insertion: merges the mask and tells whether nothing was pending.
bool Policy::Accept(const Event& event, u64 nowUs, bool& first)
{
    Task& task = tasks[event.first];
    if (!task.live) {
        log_.push_back("Task get info unsuccessfully, task magic is damaged, magic = 0.");
        return false;
    }
    if (!task.bound) {
        log_.push_back("Task get info unsuccessfully, task is not bind scheduler. (taskName = " +
                       task.name + ")");
        return false;
    }
    first = task.pending == 0;
    task.lastInsertTime = nowUs;
    if (first) {
        task.insertTime = nowUs;
    }
    task.pending |= event.second;
    return true;
}

void Policy::Insert(const std::vector<Event>& events, u64 nowUs)
{
    lastCount = static_cast<u32>(events.size());
    for (const Event& event : events) {
        bool first = false;
        if (!Accept(event, nowUs, first)) {
            log_.push_back("Event insert, invalid task-ctrl.");
            continue;
        }
        if (!first) {
            continue;
        }
        ++eventLeft;
        Task& task = tasks[event.first];
        if (task.type > 3 || task.prio > 31) {
            log_.push_back("Event insert, invalid task-ctrl, type = " + std::to_string(task.type) +
                           ", priority = " + std::to_string(task.prio) + ".");
            task.pending = 0;
            continue;
        }
        if (freeSlots == 0) {
            task.pending = 0;
            continue;
        }
        --freeSlots;
        Queue(task, event);
    }
}

void Policy::Queue(const Task& task, const Event& event)
{
    Item item{event.first, task.version, event.second, 0};
    switch (task.type) {
    case 0:
        prio[task.prio].push_back(item);
        break;
    case 1:
        (fifoServed < delayServed * 8 ? fifo : delay).push_back(item);
        break;
    case 2:
        item.key = selectSeq + 2 * u64{task.prio};
        if (task.prio > 0) {
            delay.push_back(item);
        } else {
            delay.push_front(item);
        }
        break;
    default:
        group[task.prio / 8].push_back(item);
        break;
    }
}

Item Policy::Release(std::deque<Item>& list, size_t at)
{
    const Item item = list[at];
    list.erase(list.begin() + static_cast<std::ptrdiff_t>(at));
    freeSlots = std::min(freeSlots + 1, maxEvents);
    return item;
}

std::vector<Item> Policy::Pick()
{
    for (std::deque<Item>& list : prio) {
        if (!list.empty()) {
            return {Release(list, 0)};
        }
    }
    if (!fifo.empty()) {
        ++fifoServed;
        return {Release(fifo, 0)};
    }
    if (!delay.empty()) {
        ++delayServed;
        const auto overdue = std::find_if(delay.begin(), delay.end(),
                                          [this](const Item& i) { return i.key < selectSeq; });
        const auto smallest = std::min_element(
            delay.begin(), delay.end(), [](const Item& a, const Item& b) { return a.key < b.key; });
        const auto chosen = overdue != delay.end() ? overdue : smallest;
        return {Release(delay, static_cast<size_t>(chosen - delay.begin()))};
    }
    return PickGroup();
}

std::vector<Item> Policy::PickGroup()
{
    fifoServed = 0;
    delayServed = 0;
    std::vector<Item> taken;
    for (size_t g = 0; g < group.size(); ++g) {
        if (quota[g] == 0) {
            continue;
        }
        if (group[g].empty()) {
            quota[g] = 0;
            continue;
        }
        while (!group[g].empty() && quota[g] > 0 && taken.size() < 2) {
            taken.push_back(Release(group[g], 0));
            --quota[g];
        }
        return taken;
    }
    quota = {8, 4, 2, 1};
    return taken;
}

bool Policy::TakeEvent(const Item& item, Event& out)
{
    Task& task = tasks[item.handle];
    if (!task.live) {
        log_.push_back("Task has damaged. (magic = 0)");
        log_.push_back("Task get event unsuccessfully, task is invalid.");
        return false;
    }
    if (task.version != item.version) {
        log_.push_back("Task get event unsuccessfully, task has been aged. (old ver = " +
                       std::to_string(item.version) +
                       ", new ver = " + std::to_string(task.version) + ")");
        return false;
    }
    out = {item.handle, std::exchange(task.pending, 0)};
    return true;
}

// An event that nobody will run leaves its task, if it is still the same, able to be queued again.
void Policy::Drop(const Item& item)
{
    Task& task = tasks[item.handle];
    if (task.live && task.version == item.version) {
        task.pending = 0;
    }
}

std::vector<Event> Policy::Select()
{
    for (;;) {
        const std::vector<Item> items = Pick();
        eventLeft -= static_cast<u32>(items.size());
        ++selectSeq;
        std::vector<Event> run;
        for (const Item& item : items) {
            Event event;
            if (!TakeEvent(item, event)) {
                break;
            }
            run.push_back(event);
        }
        for (size_t i = run.size(); i < items.size(); ++i) {
            Drop(items[i]);
        }
        if (!run.empty() || items.empty()) {
            return run;
        }
    }
}

template <typename Visit>
void Policy::EachList(Visit visit)
{
    for (std::deque<Item>& list : prio) {
        visit(list);
    }
    visit(fifo);
    visit(delay);
    for (std::deque<Item>& list : group) {
        visit(list);
    }
}

std::vector<Cached> Policy::ListCache(size_t capacity)
{
    std::vector<Cached> out;
    EachList([&](std::deque<Item>& list) {
        for (const Item& item : list) {
            if (out.size() == capacity) {
                return;
            }
            const Task& task = tasks[item.handle];
            if (!task.live) {
                log_.push_back("Task get debug info unsuccessfully, magic is damaged, magic = 0.");
            } else if (task.version != item.version) {
                log_.push_back("Task get debug info unsuccessfully, task handle had been aged, "
                               "difference = " +
                               std::to_string(static_cast<i32>(task.version - item.version)) + ".");
            } else {
                out.push_back({task.name, task.type, task.fd, task.insertTime, task.lastInsertTime,
                               item.mask});
            }
        }
    });
    return out;
}

size_t Policy::Queued() const
{
    size_t count = fifo.size() + delay.size();
    for (const std::deque<Item>& list : prio) {
        count += list.size();
    }
    for (const std::deque<Item>& list : group) {
        count += list.size();
    }
    return count;
}

void Policy::Destroy()
{
    EachList([&](std::deque<Item>& list) {
        for (const Item& item : list) {
            Drop(item);
        }
        list.clear();
    });
}

} // namespace bfsmodel
