// The HTTP side of the platform: the listener, the connections, and every request from the moment
// it is asked until it is answered. Lives on the front thread; the main thread builds it and takes
// it down step by step.
//
//   /call/N        a call in session N
//   /slow/N        one that the session service answers too late
//   /admin/status  the state of the session service, past everything that waits there
//
// The account: requests = answered + refused + timed out + gone. Each request ends in exactly one
// of these ways: status 200; 503 when a queue is full or the platform stops; 504 when the answer
// did not come in time; or its client has left.
#ifndef SERVICE_PLATFORM_FRONT_H
#define SERVICE_PLATFORM_FRONT_H

#include <memory>
#include <unordered_map>
#include <vector>

#include "examples/common/page.h"
#include "examples/service_platform/answer_lane.h"
#include "examples/service_platform/connection.h"
#include "examples/service_platform/gauge.h"
#include "examples/service_platform/sessions.h"
#include "examples/service_platform/timers.h"

struct FrontAccount {
    u64 opened = 0;     // connections
    u64 turnedAway = 0; // clients for whom there was no room
    u64 malformed = 0;  // no requests: wrong HTTP, method or target
    u64 requests = 0;
    u64 answered = 0;
    u64 refused = 0;
    u64 timedOut = 0;
    u64 gone = 0;
    u64 refusedAtOnce = 0; // of the refused ones: no queue was asked
    u64 refusedLast = 0;   // and those that were inside when patience ended
    u64 admin = 0;         // of the requests: for the desk
    u64 adminRefused = 0;  // and of those: the desk was full
    u64 used = 0;          // answers of the services that somebody waited for
    u64 unused = 0;        // and the ones that came too late

    bool Closes() const { return requests == answered + refused + timedOut + gone; }
};

class Front : public AnswerHandler, public TimerHandler
{
public:
    struct Options {
        u32 port;
        u32 idleMs;    // of a client that sends or reads nothing
        u32 timeoutMs; // of a request
        u32 mostConnections;
    };

    // Listens on the loopback address; clients wait until Start. Throws std::runtime_error or
    // std::system_error.
    Front(const Worker& worker, const Options& options, Timers& timers);
    Front(const Front&) = delete;
    Front& operator=(const Front&) = delete;
    // After Start: all steps of the stop must have been taken.
    ~Front();

    // Main thread, in this order.
    u32 Port() const { return port_; }
    void Start(Sessions& sessions);
    void StopIntake();                               // no new client, no new request
    bool WaitForAnswers(Clock::time_point deadline); // false: some requests are still inside
    void EndConnections(Clock::time_point deadline); // those requests are refused; all is closed
    const FrontAccount& Account() const { return account_; }

    // Front thread.
    struct Reaction {
        u64 request = 0; // the answer will be delivered
        Page page;       // otherwise, this is it
    };
    Reaction Ask(Connection& connection, std::string_view target);
    Page RefuseMalformed(u32 status);
    void Close(const Connection& connection);
    Tasks& TaskList() { return tasks_; }
    u32 IdleMs() const { return options_.idleMs; }
    static bool IsAdmin(std::string_view target);
    static u64 NowMs();

    void OnAnswer(const Answer& answer) override;
    void OnTimer(TimerKind kind, u64 id) override;

private:
    struct Pending {
        Connection* connection;
        Timer timeout;
    };

    static u32 ListenerProc(struct epoll_event* event, u64 data);
    bool AcceptOne();
    void Open(UniqueFd socket);
    void PauseListener();
    void ResumeListener();
    void CloseListener();
    Reaction RefuseAtOnce();
    bool HandOver(u64 request, const CallBody* call);
    void Finish(u64 request, u32 status, const std::string& text);
    void CountStatus(u32 status);
    void Sweep();
    void RefusePending();

    const Worker& worker_;
    const Options options_;
    Timers& timers_;
    Sessions* sessions_ = nullptr;
    FrontAccount account_;
    UniqueFd listener_;
    const u32 port_;
    bool isListening_ = false;
    bool isPaused_ = false; // the next sweep resumes; not before the first start
    bool isStopping_ = false;
    Tasks tasks_;
    u64 lastRequest_ = 0;
    std::unordered_map<u64, Pending> pending_;
    std::vector<std::unique_ptr<Connection>> connections_; // by descriptor
    size_t openConnections_ = 0;
    Gauge inside_;  // requests in pending_
    Gauge sockets_; // the listener's task, and the connections
};

#endif // SERVICE_PLATFORM_FRONT_H
