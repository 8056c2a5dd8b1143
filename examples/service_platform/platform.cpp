// Start and stop. Everything that other threads do is waited for by its own means: requests and
// connections by the front's gauges, messages by the services' queues, timers by their tickets.
#include "examples/service_platform/platform.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

#include "examples/service_platform/run_on.h"

namespace
{

constexpr u32 kMostConnections = 512;
constexpr u32 kMostSessions = 256; // each has a descriptor
constexpr u32 kUnitPrice = 3;
constexpr u32 kBackDepth = 1024;
constexpr u32 kSampleMs = 20;
constexpr u32 kAsideBeyondMs = 100; // how much longer than the time-out a slow call takes
constexpr auto kFarewell = std::chrono::seconds(2); // for clients to read what is left
constexpr auto kLongestEnd = std::chrono::seconds(5);

} // namespace

Sessions::Options Platform::SessionOptions(const PlatformOptions& options)
{
    return {.depth = options.depth,
            .workUs = options.workUs,
            .expiryMs = options.expiryMs,
            .asideMs = options.timeoutMs + kAsideBeyondMs,
            .mostOpen = kMostSessions,
            .unitPrice = kUnitPrice};
}

Platform::Platform(const PlatformOptions& options)
    : options_(options),
      frontThread_("front"),
      sessionThread_("session"),
      backThread_("back"),
      billingQueue_("billing", kBackDepth, backThread_, billing_),
      auditQueue_("audit", kBackDepth, backThread_, audit_),
      metricsQueue_("metrics", kBackDepth, backThread_, metrics_),
      sampler_(metricsQueue_),
      front_(frontThread_, {options.port, options.idleMs, options.timeoutMs, kMostConnections},
             timers_),
      answers_(frontThread_, front_),
      sessions_(sessionThread_, SessionOptions(options), timers_,
                {billingQueue_, auditQueue_, metricsQueue_}, answers_)
{
    timers_.Declare(TimerKind::Sample, backThread_, kSampleMs, sampler_);
    sampler_.Watch(ServiceId::Session, sessions_.Queue());
    sampler_.Watch(ServiceId::Billing, billingQueue_);
    sampler_.Watch(ServiceId::Audit, auditQueue_);
    sampler_.Watch(ServiceId::Metrics, metricsQueue_);
    StartTimers();
    try {
        front_.Start(sessions_);
    } catch (...) {
        StopTimers();
        throw;
    }
}

Platform::~Platform()
{
    try {
        Stop();
    } catch (const std::exception& error) {
        fprintf(stderr, "service_platform: stop: %s\n", error.what());
    }
}

void Platform::StartTimers()
{
    sweepTimer_ = timers_.Start(TimerKind::Sweep, 0);
    sampleTimer_ = timers_.Start(TimerKind::Sample, 0);
    if (sweepTimer_.node == nullptr || sampleTimer_.node == nullptr) {
        StopTimers();
        throw std::runtime_error("cannot start the periodic timers");
    }
}

// After this no sample is under way that would ask for a queue that is gone.
void Platform::StopSampling()
{
    timers_.Cancel(std::exchange(sampleTimer_, {}));
    RunOn(backThread_, [] {});
}

// The library lets go of a timer on its own thread, which must not end before.
void Platform::StopTimers()
{
    for (Timer* timer : {&sweepTimer_, &sampleTimer_}) {
        if (timer->node != nullptr) {
            timers_.Cancel(std::exchange(*timer, {}));
        }
    }
    if (!timers_.WaitUntilGone(Clock::now() + kLongestEnd)) {
        fprintf(stderr, "service_platform: some timers do not end\n");
    }
}

void Platform::Stop()
{
    if (isStopped_) {
        return;
    }
    isStopped_ = true;
    const auto deadline = Clock::now() + std::chrono::milliseconds(options_.patienceMs);
    front_.StopIntake();
    (void)front_.WaitForAnswers(deadline);
    front_.EndConnections(Clock::now() + kFarewell);
    StopSampling();
    sessions_.Close(deadline);
    StopTimers();
    (void)answers_.WaitUntilEmpty(Clock::now() + kLongestEnd);
    for (Service* service : {&billingQueue_, &auditQueue_, &metricsQueue_}) {
        service->Close(Clock::now() + kLongestEnd);
    }
}

PlatformAccount Platform::Account() const
{
    PlatformAccount all;
    all.front = front_.Account();
    all.sessions = sessions_.Account();
    all.services.push_back({"session", options_.depth, sessions_.Queue().Account()});
    for (const Service* service : {&billingQueue_, &auditQueue_, &metricsQueue_}) {
        all.services.push_back({service->Name(), kBackDepth, service->Account()});
    }
    for (size_t i = 0; i < kTimerKinds; ++i) {
        all.timers.at(i) = timers_.Account(static_cast<TimerKind>(i));
    }
    all.answersPosted = answers_.Posted();
    all.answersLeft = answers_.Left();
    all.units = billing_.Units();
    all.auditedCalls = audit_.Calls();
    all.auditedExpiries = audit_.Expiries();
    all.samples = metrics_.Samples();
    all.mostSampled = metrics_.MostWaiting(ServiceId::Session);
    return all;
}
