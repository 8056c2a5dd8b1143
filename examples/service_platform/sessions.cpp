// Calls, questions and timers of the session service, all on its one thread and so without locks.
#include "examples/service_platform/sessions.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <thread>

#include "examples/service_platform/run_on.h"

Sessions::Sessions(const Worker& worker, const Options& options, Timers& timers,
                   Downstream downstream, AnswerLane& answers)
    : worker_(worker),
      options_(options),
      timers_(timers),
      downstream_(downstream),
      answers_(answers),
      service_("session", options.depth, worker, *this),
      desk_(worker, *this)
{
    timers.Declare(TimerKind::Expiry, worker, options.expiryMs, *this);
    timers.Declare(TimerKind::SetAside, worker, options.asideMs, *this);
}

// Only calls come this way. The time that a call takes stands for the store that it would ask.
void Sessions::OnMessage(const XelServiceMsg& message)
{
    CallBody call = {};
    memcpy(&call, message.data, std::min<size_t>(sizeof(call), message.len));
    ++account_.calls;
    if (options_.workUs != 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(options_.workUs));
    }
    Session* session = FindOrOpen(call.session);
    if (session == nullptr) {
        Reply(call.request, 503, "too many sessions\n");
        return;
    }
    ++session->calls;
    if (call.isSlow == 0 || !SetAside(call)) {
        Serve(call);
    }
}

// Null: there is no room, or no timer to end it with.
Sessions::Session* Sessions::FindOrOpen(u32 id)
{
    const auto found = sessions_.find(id);
    if (found != sessions_.end()) {
        (void)timers_.Restart(found->second.expiry);
        return &found->second;
    }
    if (sessions_.size() == options_.mostOpen) {
        return nullptr;
    }
    const Timer expiry = timers_.Start(TimerKind::Expiry, id);
    if (expiry.node == nullptr) {
        return nullptr;
    }
    ++account_.opened;
    return &sessions_.emplace(id, Session{0, expiry}).first->second;
}

bool Sessions::SetAside(const CallBody& call)
{
    const Timer timer = timers_.Start(TimerKind::SetAside, call.request);
    if (timer.node == nullptr) {
        return false;
    }
    aside_.emplace(call.request, SlowCall{call, timer});
    return true;
}

// A call that cannot be charged is not served; records and counts that find no room are lost, and
// counted by their services.
void Sessions::Serve(const CallBody& call)
{
    if (!downstream_.billing.Send(ChargeBody{call.session, options_.unitPrice})) {
        Reply(call.request, 503, "billing is busy\n");
        return;
    }
    (void)downstream_.audit.Send(RecordBody{call.session, AuditEvent::Called});
    (void)downstream_.metrics.Send(CountBody{call.isSlow});
    Reply(call.request, 200, "done\n");
}

void Sessions::Reply(u64 request, u32 status, const char* text)
{
    answers_.Post({request, status, text}, false);
}

void Sessions::OnAdmin(u64 request)
{
    const u32 waiting = service_.Waiting();
    ++account_.questions;
    account_.overtaken += waiting;
    account_.mostOvertaken = std::max<u64>(account_.mostOvertaken, waiting);
    std::array<char, 128> text;
    snprintf(text.data(), text.size(), "sessions %zu\ncalls %lu\nset aside %zu\nwaiting %u\n",
             sessions_.size(), account_.calls, aside_.size(), waiting);
    answers_.Post({request, 200, text.data()}, true);
}

// The library lets go of both kinds of timers once they have fired.
void Sessions::OnTimer(TimerKind kind, u64 id)
{
    if (kind == TimerKind::Expiry) {
        const auto session = static_cast<u32>(id);
        sessions_.erase(session);
        ++account_.expired;
        (void)downstream_.audit.Send(RecordBody{session, AuditEvent::Expired});
        return;
    }
    const auto found = aside_.find(id);
    if (found == aside_.end()) {
        return;
    }
    const CallBody call = found->second.call;
    aside_.erase(found);
    Serve(call);
}

void Sessions::Close(Clock::time_point deadline)
{
    (void)desk_.WaitUntilEmpty(deadline);
    service_.Close(deadline);
    RunOn(worker_, [this] { EndAll(); });
}

void Sessions::EndAll()
{
    for (const auto& [id, session] : sessions_) {
        timers_.Cancel(session.expiry);
        ++account_.ended;
    }
    sessions_.clear();
    for (const auto& [request, slow] : aside_) {
        timers_.Cancel(slow.timer);
        ++account_.dropped;
    }
    aside_.clear();
}
