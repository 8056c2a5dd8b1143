// Which list a node belongs to, for nodes that are no pool units and so have no hidden word: a hash
// table from node to head, shared by the whole process. A node that is given up without having been
// unlinked leaves its entry behind; the next node at that address replaces it.
#ifndef XEL_FOUNDATION_LIST_INDEX_H
#define XEL_FOUNDATION_LIST_INDEX_H

#include <sys/mman.h>

#include "common/xel_int.h"
#include "foundation/xel_base_lock.h"

class ListIndex
{
public:
    // Both stay out of line: the way of the pool units, which calls neither, is to be short.

    // Notes the head of a node. False when there is no memory for one entry more.
    [[gnu::noinline]] bool Put(u64 node, u64 head)
    {
        const BaseGuard guard(lock_);
        if (!HasRoom()) {
            return false;
        }
        Entry& place = entries_[Find(node)];
        used_ += place.node == 0 ? 1 : 0;
        place = Entry{node, head};
        return true;
    }

    // Forgets a node. Returns its head, or 0 for a node that is in no list.
    [[gnu::noinline]] u64 Take(u64 node)
    {
        const BaseGuard guard(lock_);
        if (used_ == 0) {
            return 0;
        }
        const u64 place = Find(node);
        if (entries_[place].node == 0) {
            return 0;
        }
        const u64 head = entries_[place].head;
        Remove(place);
        return head;
    }

private:
    struct Entry {
        u64 node; // 0: a free place
        u64 head;
    };

    static constexpr u64 kFirstPlaces = 256;

    u64 HomeOf(u64 node) const
    {
        // Multiplying spreads addresses that differ in a few low bits over the upper ones.
        constexpr u64 kSpread = 0x9E3779B97F4A7C15U;
        return (node * kSpread >> 32) & (places_ - 1);
    }

    // The place of node, or the free place where it would go. There always is a free place.
    u64 Find(u64 node) const
    {
        u64 place = HomeOf(node);
        while (entries_[place].node != 0 && entries_[place].node != node) {
            place = (place + 1) & (places_ - 1);
        }
        return place;
    }

    // Closes the gap by moving back the entries that probing had pushed past it: no marks of
    // deleted entries are ever left, so that searches stay short for ever.
    void Remove(u64 gap)
    {
        for (u64 next = (gap + 1) & (places_ - 1); entries_[next].node != 0;
             next = (next + 1) & (places_ - 1)) {
            const u64 pushed = (next - HomeOf(entries_[next].node)) & (places_ - 1);
            if (pushed >= ((next - gap) & (places_ - 1))) {
                entries_[gap] = entries_[next];
                gap = next;
            }
        }
        entries_[gap] = Entry{0, 0};
        used_--;
    }

    // Keeps the table at most half full; when it cannot grow it fills up to the last free place.
    bool HasRoom()
    {
        return used_ < places_ / 2 || Resize(places_ == 0 ? kFirstPlaces : places_ * 2) ||
               used_ + 1 < places_;
    }

    bool Resize(u64 places)
    {
        void* memory = mmap(nullptr, places * sizeof(Entry), PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            return false;
        }
        Entry* old = entries_;
        const u64 oldPlaces = places_;
        entries_ = static_cast<Entry*>(memory);
        places_ = places;
        for (u64 i = 0; i < oldPlaces; i++) {
            if (old[i].node != 0) {
                entries_[Find(old[i].node)] = old[i];
            }
        }
        if (old != nullptr) {
            munmap(old, oldPlaces * sizeof(Entry));
        }
        return true;
    }

    // Guards everything below; taken inside the lock of whatever list is being changed.
    BaseLock lock_{};
    Entry* entries_{};
    u64 places_{}; // a power of two
    u64 used_{};
};

#endif // XEL_FOUNDATION_LIST_INDEX_H
