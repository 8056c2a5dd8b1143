// The registry of services: names to queues, in one hash table for the process. It owns the table
// and its entries; the mutex is held for every lookup and change, and given back before a message
// is copied and queued.
#include "service_msgque/xel_service_mq_inner.h"

#include <cstring>

#include "common/xel_lock_guard.h"
#include "common/xel_memory.h"
#include "xel_hash.h"

constinit XelServiceMqMng g_xelServiceMqMng = {0, PTHREAD_MUTEX_INITIALIZER, nullptr};

namespace
{

constexpr u32 kBucketCount = 32;
constexpr u32 kBkdrSeed = 131;

constexpr XelHashDllParam kTableParam = {kBucketCount,      ServiceMqStrHashCal, ServiceMqHashMatch,
                                         ServiceMqMemAlloc, ServiceMqMemFree,    ServiceMqMemFree};

// A name that ends within its field, whatever its length.
bool IsTerminated(const char* name)
{
    return strnlen(name, XEL_SERVICE_NAME_SIZE) < XEL_SERVICE_NAME_SIZE;
}

bool IsServiceName(const char* name)
{
    return name != nullptr && name[0] != '\0' && IsTerminated(name);
}

bool IsInitialised()
{
    return g_xelServiceMqMng.inited.load(std::memory_order_acquire) == 1;
}

// With the mutex held. A name that is too long cannot be registered, and is not read further.
XelServiceMqEntry* FindEntry(const char* name)
{
    if (!IsInitialised() || !IsTerminated(name)) {
        return nullptr;
    }
    return static_cast<XelServiceMqEntry*>(XelHashDllEntryLkup(g_xelServiceMqMng.table, name));
}

// Creates and registers, with the mutex held.
u32 CreateRegistered(const char* name, const XelServiceMqConfig* config)
{
    XelServiceMq* mq = ServiceMqCreate(name, config);
    if (mq == nullptr) {
        XEL_LOG_FAIL(kServiceMqMngLog, "Service mq create unsuccessfully. (service = %s)", name);
        return XEL_FAIL;
    }
    const u32 ret = ServiceMqAddMqNode(name, mq);
    if (ret != XEL_OK) {
        ServiceMqDestroy(mq);
        XEL_LOG_FAIL(kServiceMqMngLog,
                     "Service mq add to hash unsuccessfully. (service = %s, ret = %#x)", name, ret);
    }
    return ret;
}

// The queue of a destination; null when there is none (logged, unless nothing was ever created).
XelServiceMq* FindDestination(const char* name)
{
    const MutexGuard guard(g_xelServiceMqMng.mutex);
    if (!IsInitialised()) {
        return nullptr;
    }
    const XelServiceMqEntry* entry = FindEntry(name);
    if (entry == nullptr) {
        XEL_LOG_FAIL(kServiceMqMngLog, "Service destination service not exist. (service = %s)",
                     name);
        return nullptr;
    }
    return entry->mq;
}

// A name that is too long need not have a terminator in reach.
void LogUnknown(const char* name)
{
    char text[XEL_SERVICE_NAME_SIZE + 1] = {};
    (void)strncpy_s(text, sizeof(text), name, XEL_SERVICE_NAME_SIZE);
    XEL_LOG_FAIL(kServiceMqMngLog, "Service mq destination service not exist. (service = %s)",
                 text);
}

} // namespace

// Each character counts with its sign.
u32 ServiceMqBKDRHashSum(const char* name)
{
    u32 hash = 0;
    for (; *name != '\0'; ++name) {
        hash =
            hash * kBkdrSeed + static_cast<u32>(static_cast<i32>(static_cast<signed char>(*name)));
    }
    return hash;
}

u32 ServiceMqStrHashCal(const void* name)
{
    return ServiceMqBKDRHashSum(static_cast<const char*>(name)) & (kBucketCount - 1);
}

i32 ServiceMqHashMatch(const void* a, const void* b)
{
    return strcmp(static_cast<const char*>(b), static_cast<const char*>(a));
}

void* ServiceMqMemAlloc(size_t size)
{
    return XEL_ALLOC(kServiceMqMngLog, size);
}

void ServiceMqMemFree(void* block)
{
    if (block != nullptr) {
        XEL_FREE(kServiceMqMngLog, block);
    }
}

void* ServiceMqInitHashTbl(void)
{
    return XelHashDllTblCreate(&kTableParam);
}

void ServiceMqInit(void)
{
    if (IsInitialised()) {
        return;
    }
    const MutexGuard guard(g_xelServiceMqMng.mutex);
    if (IsInitialised()) {
        return;
    }
    void* table = ServiceMqInitHashTbl();
    if (table == nullptr) {
        XEL_LOG_FAIL(kServiceMqMngLog, "Service mq init unsuccessfully.");
        return;
    }
    g_xelServiceMqMng.table = table;
    g_xelServiceMqMng.inited.store(1, std::memory_order_release);
}

u32 ServiceMqCreateParamCheck(const char* name, const XelServiceMqConfig* config)
{
    const bool isValid = IsServiceName(name) && config != nullptr && config->depth != 0 &&
                         config->thread != nullptr && config->callback != nullptr;
    return isValid ? XEL_OK : XEL_EINVAL;
}

u32 ServiceMqSendMsgParamCheck(const char* destination, const XelServiceMsg* message)
{
    const bool isValid = IsServiceName(destination) && message != nullptr &&
                         message->data != nullptr && message->len != 0 &&
                         message->len <= XEL_SERVICE_MSG_SIZE_MAX && IsTerminated(message->name);
    return isValid ? XEL_OK : XEL_EINVAL;
}

u32 ServiceMqAddMqNode(const char* name, XelServiceMq* mq)
{
    auto* entry = XEL_ALLOC_RECORD(XelServiceMqEntry, kServiceMqMngLog);
    if (entry == nullptr) {
        return XEL_ENOMEM;
    }
    const int error = strcpy_s(entry->name, sizeof(entry->name), name);
    if (error != 0) {
        XEL_LOG_FAIL(kServiceMqMngLog, "Service mq add node unsuccessfully. (ret = %d)", error);
        XEL_FREE(kServiceMqMngLog, entry);
        return XEL_EINVAL;
    }
    entry->mq = mq;
    const u32 ret = XelHashDllEntryAdd(g_xelServiceMqMng.table, name, entry);
    if (ret != XEL_OK) {
        XEL_FREE(kServiceMqMngLog, entry);
    }
    return ret;
}

void ServiceMqDelMqNode(XelServiceMqEntry* entry)
{
    (void)XelHashDllEntryDel(g_xelServiceMqMng.table, entry->name);
    XEL_FREE(kServiceMqMngLog, entry);
}

uint32_t XEL_ServiceMqCreate(const char* name, const XelServiceMqConfig* config, void* /*reserved*/)
{
    if (ServiceMqCreateParamCheck(name, config) != XEL_OK) {
        return XEL_EINVAL;
    }
    ServiceMqInit(); // when it fails, the registration below is refused
    const MutexGuard guard(g_xelServiceMqMng.mutex);
    if (FindEntry(name) != nullptr) {
        XEL_LOG_FAIL(kServiceMqMngLog, "Service mq already exist. (service = %s)", name);
        return XEL_FAIL;
    }
    return CreateRegistered(name, config);
}

void XEL_ServiceMqDestroy(const char* name)
{
    if (name == nullptr || name[0] == '\0') {
        return;
    }
    const MutexGuard guard(g_xelServiceMqMng.mutex);
    XelServiceMqEntry* entry = FindEntry(name);
    if (entry != nullptr) {
        ServiceMqDestroy(entry->mq);
        ServiceMqDelMqNode(entry);
    }
}

// The copy and the enqueue run outside the mutex.
uint32_t XEL_ServiceMqSendMsg(const char* destination, const XelServiceMsg* message)
{
    if (ServiceMqSendMsgParamCheck(destination, message) != XEL_OK) {
        return XEL_EINVAL;
    }
    XelServiceMq* mq = FindDestination(destination);
    return mq == nullptr ? XEL_FAIL : ServiceMqSendMsg(mq, message);
}

uint32_t XEL_ServiceMqGetMsgNum(const char* name)
{
    if (name == nullptr || name[0] == '\0') {
        return XEL_FAIL;
    }
    const MutexGuard guard(g_xelServiceMqMng.mutex);
    if (!IsInitialised()) {
        return XEL_FAIL;
    }
    const XelServiceMqEntry* entry = FindEntry(name);
    if (entry == nullptr) {
        LogUnknown(name);
        return XEL_FAIL;
    }
    return ServiceMqGetMsgNum(entry->mq);
}
