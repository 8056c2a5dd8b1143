// Standalone asio. A wait for readiness is armed anew after each callback, as with everything that
// asio does. A wake-up is a posted handler.
#include <chrono>
#include <optional>
#include <string>
#include <utility>

#include <asio/basic_waitable_timer.hpp>
#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/version.hpp>

#include "bench/peers/thread_loop.h"

namespace
{

using Executor = asio::io_context::executor_type;
using Descriptor = asio::posix::basic_stream_descriptor<Executor>;
using SteadyTimer =
    asio::basic_waitable_timer<std::chrono::steady_clock,
                               asio::wait_traits<std::chrono::steady_clock>, Executor>;

class AsioLoop final : public ThreadLoop
{
public:
    void Add(Watch& watch) override
    {
        watch.room.Make<MaybeDescriptor>(std::in_place, context_, watch.fd);
        Arm(watch);
    }
    void Delete(Watch& watch) override
    {
        auto& descriptor = watch.room.As<MaybeDescriptor>();
        descriptor->release();
        descriptor.reset();
    }

    void Add(Wake& /*wake*/) override {}
    void Delete(Wake& /*wake*/) override {}
    void Send(Wake& wake) override
    {
        asio::post(context_, [target = &wake] { target->proc(target->data); });
    }

    void Add(Timer& timer) override
    {
        auto& record = timer.room.Make<MaybeTimer>(std::in_place, context_);
        record->expires_after(std::chrono::milliseconds(timer.periodMs));
        Arm(timer);
    }
    void Delete(Timer& timer) override
    {
        auto& record = timer.room.As<MaybeTimer>();
        record->cancel();
        record.reset();
    }

    // Runs the handlers of waits that were called off.
    void Settle() override
    {
        context_.restart();
        context_.poll();
    }
    void Run() override
    {
        context_.restart();
        const auto work = asio::make_work_guard(context_);
        context_.run();
    }
    void Stop() override { context_.stop(); }

private:
    // A handler that had been queued before the deletion runs after it all the same, and finds the
    // record empty.
    using MaybeDescriptor = std::optional<Descriptor>;
    using MaybeTimer = std::optional<SteadyTimer>;

    static void Arm(Watch& watch)
    {
        const auto handler = [target = &watch](const asio::error_code& error) {
            if (!error && target->room.As<MaybeDescriptor>()) {
                target->proc(target->data);
                Arm(*target);
            }
        };
        watch.room.As<MaybeDescriptor>()->async_wait(Descriptor::wait_read, handler);
    }
    static void Arm(Timer& timer)
    {
        const auto handler = [target = &timer](const asio::error_code& error) {
            auto& record = target->room.As<MaybeTimer>();
            if (!error && record) {
                const auto period = std::chrono::milliseconds(target->periodMs);
                record->expires_at(record->expiry() + period);
                Arm(*target);
                target->expirations = 1;
                target->proc(target->data);
            }
        };
        timer.room.As<MaybeTimer>()->async_wait(handler);
    }

    asio::io_context context_{1}; // one thread runs it
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& /*options*/)
{
    return std::make_unique<AsioLoop>();
}

const char* PeerName()
{
    return "asio";
}

const char* PeerVersion()
{
    static const std::string text = std::to_string(ASIO_VERSION / 100000) + "." +
                                    std::to_string(ASIO_VERSION / 100 % 1000) + "." +
                                    std::to_string(ASIO_VERSION % 100);
    return text.c_str();
}
