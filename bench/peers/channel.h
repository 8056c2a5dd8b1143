// What the message scenarios ask of a peer: a queue of messages to a consumer on a loop's thread.
#ifndef XEL_BENCH_PEERS_CHANNEL_H
#define XEL_BENCH_PEERS_CHANNEL_H

#include <cstddef>
#include <memory>

// Runs on the loop's thread, once per message; body is the channel's and good for the call only.
using Consumer = void (*)(void* data, const void* body, std::size_t size);

struct ChannelOptions {
    int producers = 1;
    std::size_t capacity = 0; // messages under way at a time, at most
    bool drain = false;       // one run for all that is there, with a peer that has the choice
    Consumer consume = nullptr;
    void* data = nullptr;
};

class Channel
{
public:
    Channel() = default;
    virtual ~Channel() = default;
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    // Copies the body. Each producer is one thread.
    virtual void Send(std::size_t producer, const void* body, std::size_t size) = 0;
};

// Each peer defines this.
std::unique_ptr<Channel> MakeChannel(const ChannelOptions& options);

#endif // XEL_BENCH_PEERS_CHANNEL_H
