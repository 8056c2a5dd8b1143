// ZeroMQ: PUSH sockets, one per producer, to a PULL socket in a thread of its own, within the
// process (inproc). It takes part in the message scenarios only.
#include <cerrno>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <zmq.h>

#include "bench/peers/channel.h"
#include "bench/peers/loop.h"
#include "bench/peers/scenario.h"

namespace
{

constexpr const char* kAddress = "inproc://peer";

class ZeromqChannel final : public Channel
{
public:
    explicit ZeromqChannel(const ChannelOptions& options)
        : consume_(options.consume), data_(options.data), context_(zmq_ctx_new())
    {
        pull_ = MakeSocket(ZMQ_PULL, zmq_bind);
        for (int i = 0; i < options.producers + 1; ++i) {
            push_.push_back(MakeSocket(ZMQ_PUSH, zmq_connect)); // the last one ends the consumer
        }
        thread_ = std::thread([this] { Consume(); });
    }
    ~ZeromqChannel() override
    {
        zmq_send(push_.back(), nullptr, 0, 0);
        thread_.join();
        for (void* socket : push_) {
            zmq_close(socket);
        }
        zmq_close(pull_);
        zmq_ctx_term(context_);
    }

    void Send(std::size_t producer, const void* body, std::size_t size) override
    {
        if (zmq_send(push_[producer], body, size, 0) < 0) {
            throw std::runtime_error("zmq_send failed");
        }
    }

private:
    void* MakeSocket(int type, int (*attach)(void*, const char*))
    {
        void* socket = zmq_socket(context_, type);
        const int unlimited = 0;
        zmq_setsockopt(socket, ZMQ_SNDHWM, &unlimited, sizeof(unlimited));
        zmq_setsockopt(socket, ZMQ_RCVHWM, &unlimited, sizeof(unlimited));
        if (attach(socket, kAddress) != 0) {
            throw std::runtime_error("cannot attach a socket");
        }
        return socket;
    }
    void Consume()
    {
        zmq_msg_t message;
        zmq_msg_init(&message);
        for (;;) {
            const int size = zmq_msg_recv(&message, pull_, 0);
            if (size == 0 || (size < 0 && errno != EINTR)) {
                break;
            }
            if (size > 0) {
                consume_(data_, zmq_msg_data(&message), static_cast<std::size_t>(size));
            }
        }
        zmq_msg_close(&message);
    }

    const Consumer consume_;
    void* const data_;
    void* const context_;
    void* pull_ = nullptr;
    std::vector<void*> push_;
    std::thread thread_;
};

} // namespace

std::unique_ptr<Channel> MakeChannel(const ChannelOptions& options)
{
    return std::make_unique<ZeromqChannel>(options);
}

const char* PeerName()
{
    return "zeromq";
}

const char* PeerVersion()
{
    int major = 0;
    int minor = 0;
    int patch = 0;
    zmq_version(&major, &minor, &patch);
    static const std::string text =
        std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
    return text.c_str();
}

int main(int argc, char** argv)
{
    static constexpr Scenario kScenarios[] = {
        {"message_rate", MessageRateScenario},
        {"message_latency", MessageLatencyScenario},
    };
    return RunScenario(kScenarios, std::size(kScenarios), argc, argv);
}
