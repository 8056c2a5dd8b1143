// The built-in load: HTTP clients on threads of their own, over loopback sockets. Run by the main
// thread, which gets what the clients saw: it must agree with what the platform counted.
#ifndef SERVICE_PLATFORM_LOAD_H
#define SERVICE_PLATFORM_LOAD_H

#include "common/xel_int.h"
#include "examples/service_platform/gauge.h"
#include "examples/service_platform/histogram.h"

// What one kind of client saw.
struct ClientTally {
    u64 asked = 0;
    u64 answered = 0; // 200
    u64 refused = 0;  // 503
    u64 timedOut = 0; // 504
    u64 failed = 0;   // anything else, broken connections included
    Histogram latency;

    void Merge(const ClientTally& other);
};

struct LoadTally {
    ClientTally bulk;  // many at once, as fast as answers come
    ClientTally slow;  // requests that the session service answers too late
    ClientTally admin; // one at a time, a few milliseconds apart

    ClientTally Sum() const;
};

// Returns when all clients have got their last answers.
LoadTally RunLoad(u32 port, Clock::duration time);

#endif // SERVICE_PLATFORM_LOAD_H
