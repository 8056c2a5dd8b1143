// glib's main loop: poll(2) over every descriptor, and the ready sources of the most urgent
// priority in each iteration. A wake-up is a source that is attached from the other thread and runs
// once.
#include <string>

#include <glib-unix.h>
#include <glib.h>

#include "bench/peers/thread_loop.h"

namespace
{

class GlibLoop final : public ThreadLoop
{
public:
    explicit GlibLoop(const LoopOptions& options)
        : priorities_(options.priorities),
          context_(g_main_context_new()),
          loop_(g_main_loop_new(context_, FALSE))
    {
    }
    ~GlibLoop() override
    {
        g_main_loop_unref(loop_);
        g_main_context_unref(context_);
    }

    void Add(Watch& watch) override
    {
        GSource*& source = watch.room.Make<GSource*>(g_unix_fd_source_new(watch.fd, G_IO_IN));
        if (priorities_ && watch.urgent) {
            g_source_set_priority(source, G_PRIORITY_HIGH);
        }
        g_source_set_callback(source, G_SOURCE_FUNC(OnReady), &watch, nullptr);
        g_source_attach(source, context_);
    }
    void Delete(Watch& watch) override { Remove(watch.room.As<GSource*>()); }

    void Add(Wake& /*wake*/) override {}
    void Delete(Wake& /*wake*/) override {}
    void Send(Wake& wake) override
    {
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        g_source_set_callback(source, OnWake, &wake, nullptr);
        g_source_attach(source, context_);
        g_source_unref(source);
    }

    void Add(Timer& timer) override
    {
        GSource*& source = timer.room.Make<GSource*>(g_timeout_source_new(timer.periodMs));
        g_source_set_callback(source, OnTimer, &timer, nullptr);
        g_source_attach(source, context_);
    }
    void Delete(Timer& timer) override { Remove(timer.room.As<GSource*>()); }

    void Run() override { g_main_loop_run(loop_); }
    void Stop() override { g_main_loop_quit(loop_); }

private:
    static void Remove(GSource* source)
    {
        g_source_destroy(source);
        g_source_unref(source);
    }
    static gboolean OnReady(gint /*fd*/, GIOCondition /*condition*/, gpointer data)
    {
        const auto* watch = static_cast<const Watch*>(data);
        watch->proc(watch->data);
        return G_SOURCE_CONTINUE;
    }
    static gboolean OnWake(gpointer data)
    {
        const auto* wake = static_cast<const Wake*>(data);
        wake->proc(wake->data);
        return G_SOURCE_REMOVE;
    }
    static gboolean OnTimer(gpointer data)
    {
        auto* timer = static_cast<Timer*>(data);
        timer->expirations = 1;
        timer->proc(timer->data);
        return G_SOURCE_CONTINUE;
    }

    const bool priorities_;
    GMainContext* const context_;
    GMainLoop* const loop_;
};

} // namespace

std::unique_ptr<Loop> MakeLoop(const LoopOptions& options)
{
    return std::make_unique<GlibLoop>(options);
}

const char* PeerName()
{
    return "glib";
}

const char* PeerVersion()
{
    static const std::string text = std::to_string(glib_major_version) + "." +
                                    std::to_string(glib_minor_version) + "." +
                                    std::to_string(glib_micro_version);
    return text.c_str();
}
