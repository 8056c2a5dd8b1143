// The platform: three scheduler threads, the services on them, the HTTP side, and the order in
// which it all starts and stops. Built, stopped and destroyed by the main thread.
#ifndef SERVICE_PLATFORM_PLATFORM_H
#define SERVICE_PLATFORM_PLATFORM_H

#include <memory>
#include <vector>

#include "examples/service_platform/backends.h"
#include "examples/service_platform/front.h"
#include "examples/service_platform/sessions.h"

struct PlatformOptions {
    u32 port = 0;          // 0: any free one
    u32 idleMs = 5000;     // time limit of a client that sends or reads nothing
    u32 timeoutMs = 150;   // of a request
    u32 depth = 256;       // of the session service's queue
    u32 workUs = 0;        // time that a call takes in the session service
    u32 expiryMs = 300;    // of a session that nobody calls
    u32 patienceMs = 1000; // how long a stop waits for open requests
};

struct ServiceRow {
    const char* name;
    u32 depth;
    ServiceAccount account;
};

// Everything that was counted, complete once the platform has stopped.
struct PlatformAccount {
    FrontAccount front;
    SessionAccount sessions;
    std::vector<ServiceRow> services;
    std::array<TimerAccount, kTimerKinds> timers;
    u64 answersPosted = 0;
    u64 answersLeft = 0;
    u64 units = 0; // charged
    u64 auditedCalls = 0;
    u64 auditedExpiries = 0;
    u64 samples = 0;
    u32 mostSampled = 0; // messages that a sample found waiting for session
};

class Platform
{
public:
    // Serves from its return on. Throws std::runtime_error or std::system_error.
    explicit Platform(const PlatformOptions& options);
    Platform(const Platform&) = delete;
    Platform& operator=(const Platform&) = delete;
    // Stops, if that has not been done.
    ~Platform();

    u32 Port() const { return front_.Port(); }
    // Lets nobody in, answers what is inside, closes the connections, then the services in the
    // direction in which messages flow, each with its queue empty if patience suffices.
    void Stop();
    // After Stop.
    PlatformAccount Account() const;

private:
    static Sessions::Options SessionOptions(const PlatformOptions& options);
    void StartTimers();
    void StopSampling();
    void StopTimers();

    // In the order of construction: threads outlive everything on them, each service outlives those
    // who send to it.
    const PlatformOptions options_;
    Worker frontThread_;
    Worker sessionThread_;
    Worker backThread_;
    Timers timers_;
    Billing billing_;
    Audit audit_;
    Metrics metrics_;
    Service billingQueue_;
    Service auditQueue_;
    Service metricsQueue_;
    Sampler sampler_;
    Front front_;
    AnswerLane answers_;
    Sessions sessions_;
    Timer sampleTimer_;
    Timer sweepTimer_;
    bool isStopped_ = false;
};

#endif // SERVICE_PLATFORM_PLATFORM_H
