// Helpers of the tests of service queues.
#include "service_support.h"

#include <sys/mman.h>
#include <unistd.h>
#include <utility>

#include "xel_hash.h"

namespace servicetest
{

Service::Service(const std::string& name, Worker& worker, u32 depth, Reaction reaction)
    : name_(name), worker_(worker), reaction_(std::move(reaction))
{
    const XelServiceMqConfig config = {depth, worker.Get(), Consume, this};
    result = XEL_ServiceMqCreate(Name(), &config, nullptr);
    lives_ = result == 0;
}

Service::~Service()
{
    if (lives_) {
        const HeldWorker held(worker_);
        Destroy();
    }
}

void Service::Destroy()
{
    lives_ = false;
    XEL_ServiceMqDestroy(Name());
}

std::vector<Received> Service::Messages()
{
    const std::lock_guard guard(mutex_);
    return messages_;
}

std::vector<std::string> Service::Bodies()
{
    std::vector<std::string> bodies;
    for (const Received& message : Messages()) {
        bodies.push_back(message.body);
    }
    return bodies;
}

bool Service::AwaitCount(size_t expected)
{
    return AwaitTrue([this, expected] { return count == expected; });
}

// The count goes last: who sees it may end the service.
void Service::Consume(XelServiceMsg* message, void* data)
{
    auto* self = static_cast<Service*>(data);
    self->ranOn = pthread_self();
    {
        const std::lock_guard guard(self->mutex_);
        self->messages_.push_back(
            {message->name, message->code,
             std::string(static_cast<const char*>(message->data), message->len)});
    }
    if (self->reaction_) {
        self->reaction_(*message);
    }
    ++self->count;
}

u32 Send(const char* to, const std::string& body, u32 code, const char* sender)
{
    std::string copy = body;
    XelServiceMsg message = {};
    strcpy(message.name, sender);
    message.code = code;
    message.data = copy.data();
    message.len = static_cast<u32>(copy.size());
    return XEL_ServiceMqSendMsg(to, &message);
}

XelServiceMqConfig ConfigOf(const Worker& worker, u32 depth)
{
    return {depth, worker.Get(), [](XelServiceMsg*, void*) {}, nullptr};
}

XelServiceMq* QueueOf(const char* name)
{
    const auto* entry =
        static_cast<const XelServiceMqEntry*>(XelHashDllEntryLkup(g_xelServiceMqMng.table, name));
    return entry == nullptr ? nullptr : entry->mq;
}

GuardedText::GuardedText(const std::string& text, bool isTerminated)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    pages_ = mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(pages_, MAP_FAILED);
    char* end = static_cast<char*>(pages_) + page;
    EXPECT_EQ(mprotect(end, page, PROT_NONE), 0);
    const size_t size = text.size() + (isTerminated ? 1 : 0);
    text_ = end - size;
    memcpy(text_, text.c_str(), size);
}

GuardedText::~GuardedText()
{
    munmap(pages_, 2 * static_cast<size_t>(sysconf(_SC_PAGESIZE)));
}

void ServiceMqTest::SetUp()
{
    ThreadTest::SetUp();
    ServiceMqInit();
    before_ = xeltest::Measure();
}

} // namespace servicetest
