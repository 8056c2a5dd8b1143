/*
 * xel_list.h - intrusive lists with exact counters (libxelbase.so).
 *
 * A head and a node are the same record. A head's data is the address of its element counter; a
 * node's data is the caller's. Links and counters are written with atomic stores, so that a reader
 * without the lock may look at them: it may see an old state, and a null link in a node that is
 * taken out meanwhile. Changes need the caller's lock; lists that share a counter share the lock.
 *
 * Which doubly linked list a node is in is noted outside the node: for a node that begins a unit of
 * a pool (xel_pool.h) in a hidden word of that unit, for any other in a table of the process, which
 * costs a lock and up to 32 bytes per linked node. A node must be unlinked before its memory is
 * given back; that of a pool unit which was freed all the same is forgotten with the unit.
 */
#ifndef XEL_LIST_H
#define XEL_LIST_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/* Doubly linked, circular through the head. */
typedef struct XelDll {
    struct XelDll* next;
    struct XelDll* prev;
    void* data; /* head: address of the uint32_t counter */
} XelDll;

/* Singly linked, circular through the head. */
typedef struct XelSll {
    struct XelSll* next;
    void* data; /* head: address of the uint32_t counter */
} XelSll;

/* Makes an empty list and sets *counter to 0. Several heads may share one counter. */
XEL_API void XelDllInit(XelDll* head, uint32_t* counter);

/*
 * Initialises node with data and links it before head: at the tail. node must be in no list.
 * Nothing is linked, and both links of node are null, when node is no pool unit and there is no
 * memory to note its list. Constant time.
 */
XEL_API void XelDllInitAndAddPrev(XelDll* head, XelDll* node, void* data);

/* The same behind head: at the front. */
XEL_API void XelDllInitAndAddNext(XelDll* head, XelDll* node, void* data);

/*
 * Unlinks node and counts its list down by one; the links of the node become null, its data stays.
 * Null, a zeroed node that was never linked and a node that was unlinked do nothing. Constant time.
 */
XEL_API void XelDllDel(XelDll* node);

/*
 * Returns the node behind node (of a head: the first one, or the head itself when empty); null for
 * null and for a node in no list.
 */
XEL_API XelDll* XelDllNextGet(const XelDll* node);

/* True when the list has no node; true for null. */
XEL_API bool XelDllIsEmpty(const XelDll* head);

/* Makes an empty list and sets *counter to 0. */
XEL_API void XelSllInit(XelSll* head, uint32_t* counter);

/* Initialises node with data and links it at the front. Constant time. */
XEL_API void XelSllInitAndAdd(XelSll* head, XelSll* node, void* data);

/* Unlinks node when it is in the list of head, else does nothing. Linear in the list's length. */
XEL_API void XelSllDel(XelSll* head, XelSll* node);

XEL_EXTERN_C_END

#endif /* XEL_LIST_H */
