// The way back: answers from the services' threads to the connections' thread, through an event.
// Urgent answers overtake the others.
#ifndef SERVICE_PLATFORM_ANSWER_LANE_H
#define SERVICE_PLATFORM_ANSWER_LANE_H

#include <deque>
#include <mutex>
#include <string>

#include "examples/common/worker.h"
#include "examples/service_platform/gauge.h"

struct Answer {
    u64 request = 0;
    u32 status = 200;
    std::string text;
};

class AnswerHandler
{
public:
    // On the connections' thread, once for each answer. May throw: the library logs the failed run.
    virtual void OnAnswer(const Answer& answer) = 0;

protected:
    ~AnswerHandler() = default;
};

class AnswerLane
{
public:
    // Throws std::runtime_error.
    AnswerLane(const Worker& worker, AnswerHandler& handler);

    // Any thread.
    void Post(Answer answer, bool isUrgent);
    // Answers that were posted; to be read when nobody posts any more.
    u64 Posted() const;
    // Until all answers have been handled, or the deadline. Nobody posts any more.
    bool WaitUntilEmpty(Clock::time_point deadline) { return open_.WaitForZero(deadline); }
    // Answers that nobody has handled.
    u64 Left() const { return open_.Now(); }

private:
    static u32 Take(u64 data);

    AnswerHandler& handler_;
    mutable std::mutex mutex_; // guards the queue and the count
    std::deque<Answer>
        queue_; // at most one for each request that a connection waits for, or waited
    u64 posted_ = 0;
    Gauge open_;
    WorkerEvent event_; // last: its callback uses the rest
};

#endif // SERVICE_PLATFORM_ANSWER_LANE_H
