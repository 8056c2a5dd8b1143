// What the services say to one another: a code and a body of plain values for each kind of message.
#ifndef SERVICE_PLATFORM_MESSAGES_H
#define SERVICE_PLATFORM_MESSAGES_H

#include <array>

#include "common/xel_int.h"

enum class ServiceId : u8 { Session, Billing, Audit, Metrics };
constexpr size_t kServiceCount = 4;

// To session: a client's call.
struct CallBody {
    static constexpr u32 kCode = 1;
    u64 request; // to whom the answer goes
    u32 session;
    u32 isSlow; // the session takes longer than the client waits
};

// To billing: what a call costs.
struct ChargeBody {
    static constexpr u32 kCode = 2;
    u32 session;
    u32 units;
};

enum class AuditEvent : u32 { Called, Expired };

// To audit: what happened to a session.
struct RecordBody {
    static constexpr u32 kCode = 3;
    u32 session;
    AuditEvent event;
};

// To metrics: a call was served.
struct CountBody {
    static constexpr u32 kCode = 4;
    u32 isSlow;
};

// To metrics: how many messages wait in each queue.
struct SampleBody {
    static constexpr u32 kCode = 5;
    std::array<u32, kServiceCount> waiting;
};

#endif // SERVICE_PLATFORM_MESSAGES_H
