// Two-pointer links of the records that are kept in a process-wide list (threads, events, timers,
// groups, types): circular through a head of the same kind. The list's own lock guards them.
#ifndef XEL_COMMON_LINK_H
#define XEL_COMMON_LINK_H

struct XelLink {
    XelLink* next;
    XelLink* prev;
};

// An empty list, or a link that is in none.
inline void LinkInit(XelLink* link)
{
    link->next = link;
    link->prev = link;
}

inline void LinkAddFront(XelLink* head, XelLink* link)
{
    link->next = head->next;
    link->prev = head;
    head->next->prev = link;
    head->next = link;
}

inline bool LinkIsIn(const XelLink* head, const XelLink* link)
{
    for (const XelLink* each = head->next; each != head; each = each->next) {
        if (each == link) {
            return true;
        }
    }
    return false;
}

// A link that is in no list stays as it is.
inline void LinkRemove(XelLink* link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
    LinkInit(link);
}

#endif // XEL_COMMON_LINK_H
