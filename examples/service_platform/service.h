// A named service: its message queue on a scheduler thread, and the account of every message that
// was ever sent to it. Created and closed by the main thread, sent to from any thread in between;
// messages are handled on the service's thread.
//
// The account: sent = delivered + refused + left behind. It closes when the service is closed.
#ifndef SERVICE_PLATFORM_SERVICE_H
#define SERVICE_PLATFORM_SERVICE_H

#include <atomic>
#include <type_traits>

#include "examples/common/worker.h"
#include "examples/service_platform/gauge.h"
#include "xel_service_mq.h"

class MessageHandler
{
public:
    // On the service's thread. May throw: that is counted.
    virtual void OnMessage(const XelServiceMsg& message) = 0;

protected:
    ~MessageHandler() = default;
};

struct ServiceAccount {
    u64 sent = 0;
    u64 delivered = 0;
    u64 refused = 0; // the queue was full
    u64 left = 0;    // in the queue when it was destroyed
    u64 failed = 0;  // delivered, but the handler threw
    u64 peak = 0;    // most messages that a sender found waiting, its own included

    bool Closes() const { return sent == delivered + refused + left && failed == 0; }
};

class Service
{
public:
    // Throws std::runtime_error. depth: messages that may wait.
    Service(const char* name, u32 depth, const Worker& worker, MessageHandler& handler);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    // Without a Close before, no message may ever have been sent.
    ~Service();

    // False: refused. Any thread, until Close.
    template <typename Body>
    bool Send(const Body& body)
    {
        static_assert(std::is_trivially_copyable_v<Body>);
        Body copy = body;
        return SendBody(Body::kCode, &copy, sizeof(copy));
    }
    u32 Waiting() const;

    // Nobody sends any more. Lets the service work its queue off until the deadline, then destroys
    // the queue. Main thread.
    void Close(Clock::time_point deadline);
    ServiceAccount Account() const;
    const char* Name() const { return name_; }

private:
    static void Consume(XelServiceMsg* message, void* userData);
    bool SendBody(u32 code, void* body, u32 size);
    void NotePeak(u64 waiting);

    const char* name_;
    const Worker& worker_;
    MessageHandler& handler_;
    // Counters only: whoever reads them all for the account has waited for the senders and for the
    // service's thread by other means.
    std::atomic<u64> sent_{0};
    std::atomic<u64> delivered_{0};
    std::atomic<u64> refused_{0};
    std::atomic<u64> failed_{0};
    std::atomic<u64> peak_{0};
    u64 left_ = 0;
    bool isOpen_ = true; // main thread only
};

#endif // SERVICE_PLATFORM_SERVICE_H
