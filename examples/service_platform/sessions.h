// The session service: clients' calls by session, each charged, recorded and counted, and answered
// to the connections' thread. A session that is not called for a while expires. A slow call is set
// aside with a timer and answered when that fires, which is after the client's time-out.
//
// Everything but Ask.. runs on the session thread; the account is read after the service was
// closed.
#ifndef SERVICE_PLATFORM_SESSIONS_H
#define SERVICE_PLATFORM_SESSIONS_H

#include <unordered_map>

#include "examples/service_platform/admin_desk.h"
#include "examples/service_platform/answer_lane.h"
#include "examples/service_platform/messages.h"
#include "examples/service_platform/service.h"
#include "examples/service_platform/timers.h"

struct SessionAccount {
    u64 calls = 0;
    u64 dropped = 0;   // calls that were still set aside at the end: never answered
    u64 opened = 0;    // sessions
    u64 expired = 0;   // of those, the ones that nobody called for a while
    u64 ended = 0;     // and the ones that were open at the end
    u64 questions = 0; // at the desk
    u64 overtaken = 0; // messages that waited while a question was answered, all together
    u64 mostOvertaken = 0;
};

// Where the session service sends on to.
struct Downstream {
    Service& billing;
    Service& audit;
    Service& metrics;
};

class Sessions : public MessageHandler, public AdminHandler, public TimerHandler
{
public:
    struct Options {
        u32 depth;     // messages that may wait
        u32 workUs;    // time that a call takes
        u32 expiryMs;  // of a session that nobody calls
        u32 asideMs;   // how long a slow call is set aside
        u32 mostOpen;  // sessions at a time
        u32 unitPrice; // of a call
    };

    // Throws std::runtime_error or std::system_error.
    Sessions(const Worker& worker, const Options& options, Timers& timers, Downstream downstream,
             AnswerLane& answers);

    // Any thread until Close. False: refused.
    bool AskCall(const CallBody& call) { return service_.Send(call); }
    bool AskAdmin(u64 request) { return desk_.Ask(request); }

    // Main thread; nobody asks any more. Handles what waits until the deadline, then ends all
    // sessions and drops what is set aside.
    void Close(Clock::time_point deadline);

    const Service& Queue() const { return service_; }
    const SessionAccount& Account() const { return account_; }

    void OnMessage(const XelServiceMsg& message) override;
    void OnAdmin(u64 request) override;
    void OnTimer(TimerKind kind, u64 id) override;

private:
    struct Session {
        u64 calls = 0;
        Timer expiry;
    };
    struct SlowCall {
        CallBody call;
        Timer timer;
    };

    Session* FindOrOpen(u32 id);
    bool SetAside(const CallBody& call);
    void Serve(const CallBody& call);
    void Reply(u64 request, u32 status, const char* text);
    void EndAll();

    const Worker& worker_;
    const Options options_;
    Timers& timers_;
    Downstream downstream_;
    AnswerLane& answers_;
    std::unordered_map<u32, Session> sessions_;
    std::unordered_map<u64, SlowCall> aside_; // by request
    SessionAccount account_;
    Service service_; // these two last: their callbacks use the rest
    AdminDesk desk_;
};

#endif // SERVICE_PLATFORM_SESSIONS_H
