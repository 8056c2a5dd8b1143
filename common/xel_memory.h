// Tracked memory for records: allocated and cleared in one step, given back with the same site.
#ifndef XEL_COMMON_MEMORY_H
#define XEL_COMMON_MEMORY_H

#include "common/xel_int.h"
#include "common/xel_log_site.h"
#include "xel_mem.h"
#include "xel_secure.h"

#define XEL_ALLOC(site, size) XEL_MemAllocF((size), (site).file, __LINE__, 0)
#define XEL_FREE(site, ptr) XEL_MemFreeF((ptr), (site).file, __LINE__, 0)

// Clears a record that may hold atomics: it is not shared yet.
template <typename Record>
inline void ClearRecord(Record* record)
{
    (void)memset_s(static_cast<void*>(record), sizeof(Record), 0, sizeof(Record));
}

// A cleared block for one Record, or null.
template <typename Record>
inline Record* AllocRecord(const LogSite& site, u32 line)
{
    auto* record = static_cast<Record*>(XEL_MemAllocF(sizeof(Record), site.file, line, 0));
    if (record != nullptr) {
        ClearRecord(record);
    }
    return record;
}

#define XEL_ALLOC_RECORD(Record, site) AllocRecord<Record>((site), __LINE__)

#endif // XEL_COMMON_MEMORY_H
