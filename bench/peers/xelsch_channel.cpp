// The channel of libxelsch: the queue of a service on a scheduler thread.
#include <cstdint>
#include <cstring>
#include <stdexcept>

#include "bench/peers/channel.h"
#include "xel_service_mq.h"

namespace
{

constexpr const char* kService = "peer";

class ServiceChannel final : public Channel
{
public:
    explicit ServiceChannel(const ChannelOptions& options)
        : consume_(options.consume), data_(options.data)
    {
        XelThreadAttr* attr = XEL_ThreadCreateAttr();
        XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, kService, std::strlen(kService));
        thread_ = XEL_ThreadCreate(attr);
        XEL_ThreadDestroyAttr(attr);
        const XelServiceMqConfig config = {static_cast<std::uint32_t>(options.capacity), thread_,
                                           OnMessage, this};
        if (thread_ == nullptr || XEL_ServiceMqCreate(kService, &config, nullptr) != XEL_OK) {
            throw std::runtime_error("cannot create a service queue");
        }
    }
    ~ServiceChannel() override
    {
        XEL_ServiceMqDestroy(kService);
        (void)SchEventThreadDestory(thread_);
    }

    void Send(std::size_t /*producer*/, const void* body, std::size_t size) override
    {
        XelServiceMsg message = {};
        message.data = const_cast<void*>(body); // it is only copied
        message.len = static_cast<std::uint32_t>(size);
        if (XEL_ServiceMqSendMsg(kService, &message) != XEL_OK) {
            throw std::runtime_error("cannot send a message");
        }
    }

private:
    static void OnMessage(XelServiceMsg* message, void* userData)
    {
        const auto* self = static_cast<const ServiceChannel*>(userData);
        self->consume_(self->data_, message->data, message->len);
    }

    const Consumer consume_;
    void* const data_;
    XelThreadCtrl* thread_ = nullptr;
};

} // namespace

std::unique_ptr<Channel> MakeChannel(const ChannelOptions& options)
{
    return std::make_unique<ServiceChannel>(options);
}
