/*
 * xel_service_mq.h - named message queues between the services of one process. A message's body is
 * copied when it is sent; the destination's consumer gets it once, on the scheduler thread of that
 * service, in order per sender, and the copy is freed when the consumer returns.
 */
#ifndef XEL_SERVICE_MQ_H
#define XEL_SERVICE_MQ_H

#include "xel_types.h"

#include "xel_thread.h"

XEL_EXTERN_C_BEGIN

/* Size of a service name, terminator included. */
#define XEL_SERVICE_NAME_SIZE 32U

/* Largest body of a message, in bytes. */
#define XEL_SERVICE_MSG_SIZE_MAX 4096U

/* A message: as sent (read during the call only), and as received (during the consumer only). */
typedef struct XelServiceMsg {
    char name[XEL_SERVICE_NAME_SIZE]; /* any terminated text, for example the sender's name */
    uint32_t code;
    void* data;   /* body; of a received message the library's copy */
    uint32_t len; /* bytes in data, 1..4096 */
} XelServiceMsg;

typedef void (*XelServiceConsumer)(XelServiceMsg* message, void* userData);

/* Configuration of a service's queue; read during creation only. */
typedef struct XelServiceMqConfig {
    uint32_t depth;              /* messages, not 0 */
    XelThreadCtrl* thread;       /* where the consumer runs */
    XelServiceConsumer callback; /* must not be null */
    void* userData;
} XelServiceMqConfig;

/*
 * Creates the queue of a service. name: 1..31 characters. reserved is not used.
 * Threads: any. Owner: the library, until XEL_ServiceMqDestroy, before the thread is destroyed.
 * Returns: 0; 22 an invalid argument (silent); 12 no memory; 0xFFFFFFFF the name exists or the
 * queue cannot be made; or the hash table's error.
 */
XEL_API uint32_t XEL_ServiceMqCreate(const char* name, const XelServiceMqConfig* config,
                                     void* reserved);

/*
 * Destroys a service's queue; messages inside are dropped, unknown names are ignored. Nobody may be
 * sending any more. Does not wait for a wake-up that is in progress on the service's thread: that
 * one goes on, with its message, and drops the rest at its end; userData has to live until then.
 */
XEL_API void XEL_ServiceMqDestroy(const char* name);

/*
 * Sends a message to a service. Threads: any. Blocks: for short mutexes.
 * Returns: 0; 22 an invalid argument (silent); 12 no memory; 0xFFFFFFFF no such service; the
 * queue's error when it is full; the event's error when the wake-up failed (the message is queued
 * all the same).
 */
XEL_API uint32_t XEL_ServiceMqSendMsg(const char* destination, const XelServiceMsg* message);

/* Messages written and not yet taken, or 0xFFFFFFFF for an unknown name. Threads: any. */
XEL_API uint32_t XEL_ServiceMqGetMsgNum(const char* name);

XEL_EXTERN_C_END

#endif /* XEL_SERVICE_MQ_H */
