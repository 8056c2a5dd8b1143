// A validated copy of a listed event.
#ifndef XEL_EVENT_EVENT_LIST_H
#define XEL_EVENT_EVENT_LIST_H

#include "common/xel_address_index.h"
#include "event/xel_event_inner.h"

// Copies a listed event; the caller holds the list lock for reading. 0, or 0xFFFFFFFF (logged).
u32 EventCopyListed(const XelEventNode* node, EventCopy* copy);

#endif // XEL_EVENT_EVENT_LIST_H
