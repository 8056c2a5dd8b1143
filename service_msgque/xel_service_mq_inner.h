// Inside of the service message queues: the queue of one service, and the registry of names.
//
// Locks: the manager's mutex guards the hash table and the creation and destruction of queues. It
// is held while a light queue and its event are made, so it comes before all locks of those.
#ifndef XEL_SERVICE_MQ_INNER_H
#define XEL_SERVICE_MQ_INNER_H

#include <atomic>
#include <pthread.h>

#include "common/xel_int.h"
#include "common/xel_log_site.h"
#include "xel_msgque_light.h"
#include "xel_service_mq.h"

inline constexpr LogSite kServiceMqLog{"service_msgque/xel_service_mq", 87};
inline constexpr LogSite kServiceMqMngLog{"service_msgque/xel_service_mq_mng", 91};

struct XelServiceMq {
    XelThreadCtrl* thread;
    XelLightMq* queue;
    XelServiceConsumer callback;
    void* userData;
};

struct XelServiceMqEntry {
    char name[XEL_SERVICE_NAME_SIZE];
    XelServiceMq* mq;
};

struct XelServiceMqMng {
    std::atomic<u32>
        inited; // set last under the mutex (release); looked at first without (acquire)
    pthread_mutex_t mutex;
    void* table;
};

XEL_EXTERN_C_BEGIN

XEL_API extern XelServiceMqMng g_xelServiceMqMng;

// Registry.
XEL_API void ServiceMqInit(void);
XEL_API void* ServiceMqInitHashTbl(void);
XEL_API u32 ServiceMqBKDRHashSum(const char* name);
XEL_API u32 ServiceMqStrHashCal(const void* name);
XEL_API i32 ServiceMqHashMatch(const void* a, const void* b);
XEL_API void* ServiceMqMemAlloc(size_t size);
XEL_API void ServiceMqMemFree(void* block);
XEL_API u32 ServiceMqCreateParamCheck(const char* name, const XelServiceMqConfig* config);
XEL_API u32 ServiceMqSendMsgParamCheck(const char* destination, const XelServiceMsg* message);
XEL_API u32 ServiceMqAddMqNode(const char* name, XelServiceMq* mq);
XEL_API void ServiceMqDelMqNode(XelServiceMqEntry* entry);

// The queue of one service.
XEL_API XelServiceMq* ServiceMqCreate(const char* name, const XelServiceMqConfig* config);
XEL_API void ServiceMqDestroy(XelServiceMq* mq);
XEL_API void ServiceMqClear(XelServiceMq* mq);
XEL_API u32 ServiceMqSendMsg(XelServiceMq* mq, const XelServiceMsg* message);
XEL_API u32 ServiceMqGetMsgNum(XelServiceMq* mq);
XEL_API u32 ServiceMqCbWrapper(u64 mq);

XEL_EXTERN_C_END

#endif // XEL_SERVICE_MQ_INNER_H
