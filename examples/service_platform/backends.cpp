// The consumers of the services on the back thread. Called by the library through their queues;
// nothing here is shared with other threads while the services are open.
#include "examples/service_platform/backends.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace
{

// The library guarantees the length that was sent; the code says which body that was.
template <typename Body>
Body BodyOf(const XelServiceMsg& message)
{
    if (message.code != Body::kCode || message.len != sizeof(Body)) {
        throw std::runtime_error("unknown message");
    }
    Body body;
    memcpy(&body, message.data, sizeof(body));
    return body;
}

} // namespace

void Billing::OnMessage(const XelServiceMsg& message)
{
    units_ += BodyOf<ChargeBody>(message).units;
}

void Audit::OnMessage(const XelServiceMsg& message)
{
    const auto record = BodyOf<RecordBody>(message);
    last_[(calls_ + expiries_) % last_.size()] = record;
    u64& count = record.event == AuditEvent::Called ? calls_ : expiries_;
    ++count;
}

void Metrics::OnMessage(const XelServiceMsg& message)
{
    if (message.code == CountBody::kCode) {
        ++calls_;
        slowCalls_ += BodyOf<CountBody>(message).isSlow;
        return;
    }
    const auto sample = BodyOf<SampleBody>(message);
    ++samples_;
    for (size_t i = 0; i < kServiceCount; ++i) {
        mostWaiting_[i] = std::max(mostWaiting_[i], sample.waiting[i]);
    }
}

// A sample that metrics has no room for is lost, and counted by the service.
void Sampler::OnTimer(TimerKind, u64)
{
    SampleBody sample = {};
    for (size_t i = 0; i < kServiceCount; ++i) {
        sample.waiting[i] = watched_[i]->Waiting();
    }
    (void)metrics_.Send(sample);
}
