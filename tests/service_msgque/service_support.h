// What the tests of the service queues share: services that keep what they get, one-line sends, and
// texts that end where readable memory ends.
#ifndef XEL_TESTS_SERVICE_SUPPORT_H
#define XEL_TESTS_SERVICE_SUPPORT_H

#include "light_support.h"
#include "service_msgque/xel_service_mq_inner.h"

namespace servicetest
{

using namespace threadtest;
using lightmqtest::FailLock;
using lightmqtest::FailUnlock;
using lightmqtest::IsHeld;
using xeltest::kLightMqSource;
using xeltest::kServiceMqMngSource;
using xeltest::kServiceMqSource;

// A message as its consumer saw it.
struct Received {
    std::string sender;
    u32 code;
    std::string body;
    bool operator==(const Received&) const = default;
};

// A service that keeps what it gets and may react to it. At the end its thread is held while it is
// destroyed: destruction does not wait for a consumer.
class Service
{
public:
    using Reaction = std::function<void(XelServiceMsg& message)>;
    Service(const std::string& name, Worker& worker, u32 depth, Reaction reaction = nullptr);
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;
    ~Service();

    const char* Name() const { return name_.c_str(); }
    u32 Waiting() const { return XEL_ServiceMqGetMsgNum(Name()); }
    // To be called while the thread is held, or from the consumer.
    void Destroy();
    std::vector<Received> Messages();
    std::vector<std::string> Bodies();
    bool AwaitCount(size_t expected);

    std::atomic<u32> result{kFail};
    std::atomic<size_t> count{0};
    std::atomic<u64> ranOn{0};

private:
    static void Consume(XelServiceMsg* message, void* self);

    std::string name_;
    Worker& worker_;
    Reaction reaction_;
    std::atomic<bool> lives_{false};
    std::mutex mutex_; // guards messages_
    std::vector<Received> messages_;
};

u32 Send(const char* to, const std::string& body, u32 code = 0, const char* sender = "sender");
XelServiceMqConfig ConfigOf(const Worker& worker, u32 depth = 4);
// The registered queue of a service, or null.
XelServiceMq* QueueOf(const char* name);

// A copy of a text behind which no byte can be read.
class GuardedText
{
public:
    explicit GuardedText(const std::string& text, bool isTerminated);
    GuardedText(const GuardedText&) = delete;
    GuardedText& operator=(const GuardedText&) = delete;
    ~GuardedText();
    char* Get() const { return text_; }

private:
    void* pages_ = nullptr;
    char* text_ = nullptr;
};

// The table of names stays for the life of the process, so it is made before the footprint is
// taken.
class ServiceMqTest : public ThreadTest
{
protected:
    void SetUp() override;
};

} // namespace servicetest

#endif // XEL_TESTS_SERVICE_SUPPORT_H
