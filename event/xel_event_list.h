// A validated copy of a listed event.
#ifndef XEL_EVENT_EVENT_LIST_H
#define XEL_EVENT_EVENT_LIST_H

#include "common/xel_address_index.h"
#include "event/xel_event_inner.h"

// Copies a listed event; the caller holds the list lock for reading. 0, or 0xFFFFFFFF (logged).
u32 EventCopyListed(const XelEventNode* node, EventCopy* copy);

// Runs of an event that are counted, for an owner whose callback works with what the owner releases
// at the end. Asked for before the first notification.
void EventCountRuns(XelEventNode* node);

// The begin of a run, with the list lock held, of a listed event. True when it is counted: then its
// end has to be told. A run that is counted keeps the event's memory.
bool EventBeginRun(XelEventNode* node);
void EventEndRun(XelEventNode* node);

// Destroys an event, and calls release with data once no counted run of it is under way: before the
// return, or on the thread of the last run. Called as well when there is no such event.
using EventRelease = void (*)(void* data);
void EventDestroyThen(XelEventNode* event, EventRelease release, void* data);

// As EventDestroyEventNode, and the release as above.
void EventReleaseNode(XelEventNode* node, EventRelease release, void* data);

#endif // XEL_EVENT_EVENT_LIST_H
