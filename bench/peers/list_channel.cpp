// The channel of a loop that has wake-ups but no queue: a list under a mutex, one allocation and
// one wake-up per message. A peer that merges wake-ups takes everything that is there in one run,
// any other one message per run.
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "bench/peers/channel.h"
#include "bench/peers/loop.h"

namespace
{

struct Message {
    Message* next;
    std::size_t size;
};

class ListChannel final : public Channel
{
public:
    explicit ListChannel(const ChannelOptions& options)
        : consume_(options.consume), data_(options.data), loop_(MakeLoop(LoopOptionsFor(options)))
    {
        wake_.proc = OnWake;
        wake_.data = this;
        loop_->Add(wake_);
        loop_->Start();
    }
    ~ListChannel() override
    {
        loop_->Join();
        loop_->Delete(wake_);
        loop_->Settle();
    }

    void Send(std::size_t /*producer*/, const void* body, std::size_t size) override
    {
        void* memory = std::malloc(sizeof(Message) + size);
        if (memory == nullptr) {
            throw std::bad_alloc();
        }
        auto* message = new (memory) Message{nullptr, size};
        std::memcpy(message + 1, body, size);
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            *tail_ = message;
            tail_ = &message->next;
        }
        loop_->Send(wake_);
    }

private:
    static LoopOptions LoopOptionsFor(const ChannelOptions& channel)
    {
        LoopOptions options;
        options.ownThread = true;
        options.mergeWakes = channel.drain;
        return options;
    }
    Message* TakeOne()
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        Message* message = head_;
        if (message != nullptr) {
            head_ = message->next;
            message->next = nullptr;
        }
        if (head_ == nullptr) {
            tail_ = &head_;
        }
        return message;
    }
    Message* TakeAll()
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        Message* first = head_;
        head_ = nullptr;
        tail_ = &head_;
        return first;
    }
    static void OnWake(void* data)
    {
        auto* self = static_cast<ListChannel*>(data);
        Message* next = nullptr;
        Message* message = self->loop_->MergesWakes() ? self->TakeAll() : self->TakeOne();
        for (; message != nullptr; message = next) {
            next = message->next;
            self->consume_(self->data_, message + 1, message->size);
            std::free(message);
        }
    }

    const Consumer consume_;
    void* const data_;
    std::mutex mutex_; // guards the list
    Message* head_ = nullptr;
    Message** tail_ = &head_;
    std::unique_ptr<Loop> loop_;
    Wake wake_;
};

} // namespace

std::unique_ptr<Channel> MakeChannel(const ChannelOptions& options)
{
    return std::make_unique<ListChannel>(options);
}
