// Sending, handling and closing. Close runs its last step on the service's own thread: there no
// handler can be in progress, which the library leaves to its caller.
#include "examples/service_platform/service.h"

#include <cstring>
#include <stdexcept>

#include "examples/service_platform/run_on.h"

Service::Service(const char* name, u32 depth, const Worker& worker, MessageHandler& handler)
    : name_(name), worker_(worker), handler_(handler)
{
    const XelServiceMqConfig config = {depth, worker.Handle(), Consume, this};
    if (XEL_ServiceMqCreate(name, &config, nullptr) != XEL_OK) {
        throw std::runtime_error("cannot create a service queue");
    }
}

Service::~Service()
{
    if (isOpen_) {
        XEL_ServiceMqDestroy(name_);
    }
}

bool Service::SendBody(u32 code, void* body, u32 size)
{
    XelServiceMsg message = {};
    message.code = code;
    message.data = body;
    message.len = size;
    sent_.fetch_add(1, std::memory_order_relaxed);
    if (XEL_ServiceMqSendMsg(name_, &message) != XEL_OK) {
        refused_.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    NotePeak(Waiting());
    return true;
}

void Service::NotePeak(u64 waiting)
{
    u64 peak = peak_.load(std::memory_order_relaxed);
    while (waiting > peak &&
           !peak_.compare_exchange_weak(peak, waiting, std::memory_order_relaxed)) {
    }
}

u32 Service::Waiting() const
{
    return XEL_ServiceMqGetMsgNum(name_);
}

// Nothing may be thrown through the library's frames.
void Service::Consume(XelServiceMsg* message, void* userData)
{
    auto* self = static_cast<Service*>(userData);
    self->delivered_.fetch_add(1, std::memory_order_relaxed);
    try {
        self->handler_.OnMessage(*message);
    } catch (...) {
        self->failed_.fetch_add(1, std::memory_order_relaxed);
    }
}

// Each empty step takes its turn behind the service's next message, so the loop waits for the
// service and does not spin.
void Service::Close(Clock::time_point deadline)
{
    while (Waiting() != 0 && Clock::now() < deadline) {
        RunOn(worker_, [] {});
    }
    RunOn(worker_, [this] {
        left_ = Waiting();
        XEL_ServiceMqDestroy(name_);
    });
    isOpen_ = false;
}

ServiceAccount Service::Account() const
{
    return {sent_.load(std::memory_order_relaxed),    delivered_.load(std::memory_order_relaxed),
            refused_.load(std::memory_order_relaxed), left_,
            failed_.load(std::memory_order_relaxed),  peak_.load(std::memory_order_relaxed)};
}
