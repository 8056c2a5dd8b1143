// Helpers of the tests of both kinds of message queues.
#include "light_support.h"

#include <utility>

namespace lightmqtest
{

XelLightMqConfig ConfigOf(u32 capacity, u32 elemSize, XelEventProc callback, u64 userData)
{
    XelLightMqConfig config = {};
    config.capacity = capacity;
    config.elemSize = elemSize;
    strcpy(config.name, "light");
    config.callback = callback;
    config.userData = userData;
    return config;
}

void FailLock(u64 nth)
{
    xeltest::FailNth(Call::PthreadMutexLock, nth, 5, 0);
}

void FailUnlock(pthread_mutex_t& mutex, u64 nth)
{
    xeltest::RunAtNth(Call::PthreadMutexUnlock, nth, [&mutex] { pthread_mutex_unlock(&mutex); });
    xeltest::FailNth(Call::PthreadMutexUnlock, nth, 5, 0);
}

bool IsHeld(pthread_mutex_t& mutex)
{
    if (pthread_mutex_trylock(&mutex) != 0) {
        return true;
    }
    pthread_mutex_unlock(&mutex);
    return false;
}

Consumer::Consumer(Worker& worker, u32 capacity) : worker_(worker)
{
    const XelLightMqConfig config = ConfigOf(
        capacity, sizeof(u32), [](u64 self) { return reinterpret_cast<Consumer*>(self)->Take(); },
        reinterpret_cast<u64>(this));
    queue_ = XelLightMqCreate(worker.Get(), &config);
    EXPECT_NE(queue_, nullptr);
}

Consumer::~Consumer()
{
    if (queue_ != nullptr) {
        const HeldWorker held(worker_);
        Destroy();
    }
}

void Consumer::Destroy()
{
    XelLightMqDestroy(std::exchange(queue_, nullptr));
}

size_t Consumer::Count()
{
    const std::lock_guard guard(mutex_);
    return taken_.size();
}

std::vector<u32> Consumer::Taken()
{
    const std::lock_guard guard(mutex_);
    return taken_;
}

u32 Consumer::Take()
{
    u32 value = 0;
    ranOn = pthread_self();
    if (XelLightMqRead(queue_, &value) == 0) {
        const std::lock_guard guard(mutex_);
        taken_.push_back(value);
    }
    ++wakeUps;
    return 0;
}

} // namespace lightmqtest
