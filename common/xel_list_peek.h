// Looking at a doubly linked list without a call: the record layout is fixed, and walking is by the
// first link. Changes always go through the list service.
#ifndef XEL_COMMON_LIST_PEEK_H
#define XEL_COMMON_LIST_PEEK_H

#include <atomic>

#include "xel_list.h"

// The node behind node (of a head: the first one, or the head itself when empty). Pairs with the
// releasing link stores of the list service.
inline XelDll* DllNext(const XelDll* node)
{
    return std::atomic_ref<XelDll*>(const_cast<XelDll*>(node)->next)
        .load(std::memory_order_acquire);
}

inline bool DllIsEmpty(const XelDll* head)
{
    return DllNext(head) == head;
}

#endif // XEL_COMMON_LIST_PEEK_H
