// The fixed-unit table. It owns two pools: one of list nodes, one of entries. An entry is the
// address of its list node followed by the owner's record, and only the record's address is handed
// out. The owners (task table, scheduler registry) hold their locks around every call but
// FtEntryIsValid, which runs on any thread.
#include "scheduler/xel_fmm_tbl.h"

#include <atomic>

#include "common/xel_log_site.h"
#include "common/xel_memory.h"
#include "xel_pool.h"

namespace
{

constexpr LogSite kSite{"scheduler/xel_fmm_tbl", 0}; // no log lines; names the memory blocks
constexpr u32 kMinimumUnits = 32;
constexpr u32 kNodePoolMode = 2;
constexpr u32 kEntryPoolMode = 6;
constexpr u32 kCheckWithNode = 0;
constexpr u32 kCheckAlone = 1;

// In front of every record. A validity check may read the word while another thread frees the
// entry, hence atomic; the order comes from the locks of the owner.
struct EntryHead {
    std::atomic<XelDll*> node;
};
static_assert(sizeof(EntryHead) == 8);

EntryHead* HeadOf(const void* record)
{
    return reinterpret_cast<EntryHead*>(reinterpret_cast<uintptr_t>(record) - sizeof(EntryHead));
}

void* RecordOf(EntryHead* head)
{
    return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(head) + sizeof(EntryHead));
}

} // namespace

FtCtrl* FtCtrlCreate(size_t unitSize, u32 number)
{
    auto* table = XEL_ALLOC_RECORD(FtCtrl, kSite);
    if (table == nullptr) {
        return nullptr;
    }
    const u32 units = number < kMinimumUnits ? kMinimumUnits : number;
    table->nodePool = FmmCtrlCreate(sizeof(XelDll), units, kNodePoolMode);
    if (table->nodePool != nullptr) {
        table->entryPool = FmmCtrlCreate(unitSize + sizeof(EntryHead), units, kEntryPoolMode);
    }
    if (table->entryPool == nullptr) {
        if (table->nodePool != nullptr) {
            FmmCtrlDestroy(table->nodePool);
        }
        XEL_FREE(kSite, table);
        return nullptr;
    }
    XelDllInit(&table->entryList, &table->entryCount);
    return table;
}

u32 FtCtrlDestroy(FtCtrl* table)
{
    if (table == nullptr) {
        return XEL_OK;
    }
    for (XelDll* node = XelDllNextGet(&table->entryList); node != &table->entryList;
         node = XelDllNextGet(&table->entryList)) {
        (void)memset_s(node->data, sizeof(EntryHead), 0, sizeof(EntryHead));
        XelDllDel(node);
    }
    FmmCtrlDestroy(table->nodePool);
    FmmCtrlDestroy(table->entryPool);
    XEL_FREE(kSite, table);
    return XEL_OK;
}

void* FtEntryAlloc(FtCtrl* table)
{
    auto* node = static_cast<XelDll*>(FmmUnitAlloc(table->nodePool));
    if (node == nullptr) {
        return nullptr;
    }
    auto* entry = static_cast<EntryHead*>(FmmUnitAlloc(table->entryPool));
    if (entry == nullptr) {
        FmmUnitFree(node);
        return nullptr;
    }
    (void)memset_s(entry, sizeof(EntryHead), 0, sizeof(EntryHead));
    entry->node.store(node, std::memory_order_relaxed);
    XelDllInitAndAddPrev(&table->entryList, node, entry);
    return RecordOf(entry);
}

// Only an allocated entry has a node of its own in front of it: for a second free, or a record that
// never was an entry, nothing in front of the record is touched.
u32 FtEntryFree(void* record)
{
    EntryHead* entry = HeadOf(record);
    if (!FmmUnitIsValid(entry, kCheckAlone)) {
        return XEL_OK;
    }
    XelDll* node = entry->node.load(std::memory_order_relaxed);
    XelDllDel(node);
    FmmUnitFree(node);
    FmmUnitFree(entry);
    return XEL_OK;
}

// The entry is checked before its node is read, so that a foreign record is not read in front of.
bool FtEntryIsValid(const void* record, bool withNode)
{
    const EntryHead* entry = HeadOf(record);
    if (!withNode) {
        return FmmUnitIsValid(entry, kCheckAlone);
    }
    return FmmUnitIsValid(entry, kCheckWithNode) &&
           FmmUnitIsValid(entry->node.load(std::memory_order_relaxed), kCheckWithNode);
}

void* FtGetEntryByHook(FtCtrl* table, const void* key, FtMatchHook hook)
{
    for (XelDll* node = XelDllNextGet(&table->entryList); node != &table->entryList;
         node = XelDllNextGet(node)) {
        void* record = RecordOf(static_cast<EntryHead*>(node->data));
        if (hook(record, key)) {
            return record;
        }
    }
    return nullptr;
}
