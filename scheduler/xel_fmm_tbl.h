// The fixed-unit table: equal-sized records on two unit pools, in a list that can be searched.
// It has no lock (its owner holds one around allocation, free and search) and writes no log.
#ifndef XEL_SCHEDULER_FMM_TBL_H
#define XEL_SCHEDULER_FMM_TBL_H

#include "common/xel_int.h"
#include "xel_list.h"

struct FtCtrl {
    void* nodePool;   // list nodes
    void* entryPool;  // entries: the address of the list node, then the owner's record
    XelDll entryList; // live entries, oldest first
    u32 entryCount;   // kept by the list service
};

// Answers whether a record matches the key.
using FtMatchHook = bool (*)(void* record, const void* key);

XEL_EXTERN_C_BEGIN

// A table of records of unitSize bytes with room for number (at least 32); null without memory.
XEL_API FtCtrl* FtCtrlCreate(size_t unitSize, u32 number);

// Frees the table and all records at once; nothing is called for the records. Returns 0.
XEL_API u32 FtCtrlDestroy(FtCtrl* table);

// The address of a new record, or null. The record's own bytes are not cleared.
XEL_API void* FtEntryAlloc(FtCtrl* table);

// Returns a record to its table. A second free does nothing. Returns 0.
XEL_API u32 FtEntryFree(void* record);

// True when record is a live record; withNode also checks its list node. Safe for any readable
// address, and without the node for any address at all; needs no lock.
XEL_API bool FtEntryIsValid(const void* record, bool withNode);

// The first record, oldest first, for which hook(record, key) is true, or null.
XEL_API void* FtGetEntryByHook(FtCtrl* table, const void* key, FtMatchHook hook);

XEL_EXTERN_C_END

#endif // XEL_SCHEDULER_FMM_TBL_H
