// The services behind session: billing, audit and metrics, and the timer that samples all queues.
// Everything here runs on their common thread; the results are read after the services were closed.
#ifndef SERVICE_PLATFORM_BACKENDS_H
#define SERVICE_PLATFORM_BACKENDS_H

#include <array>

#include "examples/service_platform/messages.h"
#include "examples/service_platform/service.h"
#include "examples/service_platform/timers.h"

// Adds up what the calls cost.
class Billing : public MessageHandler
{
public:
    void OnMessage(const XelServiceMsg& message) override;
    u64 Units() const { return units_; }

private:
    u64 units_ = 0;
};

// Keeps the last records, and counts all.
class Audit : public MessageHandler
{
public:
    void OnMessage(const XelServiceMsg& message) override;
    u64 Calls() const { return calls_; }
    u64 Expiries() const { return expiries_; }

private:
    std::array<RecordBody, 64> last_ = {}; // a ring, for whoever looks at a core dump
    u64 calls_ = 0;
    u64 expiries_ = 0;
};

class Metrics : public MessageHandler
{
public:
    void OnMessage(const XelServiceMsg& message) override;
    u64 Calls() const { return calls_; }
    u64 SlowCalls() const { return slowCalls_; }
    u64 Samples() const { return samples_; }
    // Most messages that a sample found waiting for a service.
    u32 MostWaiting(ServiceId id) const { return mostWaiting_.at(static_cast<size_t>(id)); }

private:
    u64 calls_ = 0;
    u64 slowCalls_ = 0;
    u64 samples_ = 0;
    std::array<u32, kServiceCount> mostWaiting_ = {};
};

// Every so often: sends metrics the number of messages that wait for each service.
class Sampler : public TimerHandler
{
public:
    explicit Sampler(Service& metrics) : metrics_(metrics) {}
    // Main thread, before the timer is started.
    void Watch(ServiceId id, const Service& service)
    {
        watched_.at(static_cast<size_t>(id)) = &service;
    }
    void OnTimer(TimerKind kind, u64 id) override;

private:
    Service& metrics_;
    std::array<const Service*, kServiceCount> watched_ = {};
};

#endif // SERVICE_PLATFORM_BACKENDS_H
