// One event for each call: its callback takes its turn in the schedule like any other.
#include "examples/service_platform/run_on.h"

#include <condition_variable>
#include <exception>
#include <mutex>

namespace
{

struct Step {
    const std::function<void()>& function;
    std::mutex mutex; // guards what follows
    std::condition_variable ended;
    bool hasEnded = false;
    std::exception_ptr failure;
};

// Nothing may be thrown through the library's frames: the failure travels to the waiting thread.
u32 RunStep(u64 data)
{
    auto* step = reinterpret_cast<Step*>(data);
    std::exception_ptr failure;
    try {
        step->function();
    } catch (...) {
        failure = std::current_exception();
    }
    const std::lock_guard guard(step->mutex);
    step->failure = failure;
    step->hasEnded = true;
    step->ended.notify_one();
    return XEL_OK;
}

} // namespace

void RunOn(const Worker& worker, const std::function<void()>& function)
{
    Step step = {function, {}, {}, false, {}};
    const WorkerEvent event(worker, RunStep, "step", &step);
    event.Notify();
    std::unique_lock guard(step.mutex);
    step.ended.wait(guard, [&] { return step.hasEnded; });
    if (step.failure) {
        std::rethrow_exception(step.failure);
    }
}
