// One notification for each answer, so one run of the callback takes one answer.
#include "examples/service_platform/answer_lane.h"

AnswerLane::AnswerLane(const Worker& worker, AnswerHandler& handler)
    : handler_(handler), event_(worker, Take, "answers", this)
{
}

// Without its wake-up an answer waits for the next one's, or is counted as left; its request then
// ends with a time-out.
void AnswerLane::Post(Answer answer, bool isUrgent)
{
    {
        const std::lock_guard guard(mutex_);
        queue_.insert(isUrgent ? queue_.begin() : queue_.end(), std::move(answer));
        ++posted_;
        open_.Add();
    }
    (void)event_.TryNotify();
}

u64 AnswerLane::Posted() const
{
    const std::lock_guard guard(mutex_);
    return posted_;
}

// Nothing may be thrown through the library's frames. Nobody else takes, so there is an answer.
u32 AnswerLane::Take(u64 data)
{
    auto* self = reinterpret_cast<AnswerLane*>(data);
    Answer answer;
    {
        const std::lock_guard guard(self->mutex_);
        answer = std::move(self->queue_.front());
        self->queue_.pop_front();
    }
    u32 result = XEL_OK;
    try {
        self->handler_.OnAnswer(answer);
    } catch (...) {
        result = XEL_FAIL;
    }
    self->open_.Done();
    return result;
}
