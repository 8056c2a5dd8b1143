// What the tests of the light message queue share: a queue with a consumer that cleans up after
// itself, and mutexes that fail.
#ifndef XEL_TESTS_LIGHT_SUPPORT_H
#define XEL_TESTS_LIGHT_SUPPORT_H

#include "event/xel_event_inner.h"
#include "msgque_light/xel_msgque_light_inner.h"
#include "thread_support.h"

namespace lightmqtest
{

using namespace threadtest;

XelLightMqConfig ConfigOf(u32 capacity, u32 elemSize, XelEventProc callback, u64 userData = 0);

// The nth lock, or unlock, of the library from now answers 5. The unlock gives the mutex back all
// the same, so that the test can go on.
void FailLock(u64 nth = 1);
void FailUnlock(pthread_mutex_t& mutex, u64 nth = 1);

// Whether somebody holds the mutex.
bool IsHeld(pthread_mutex_t& mutex);

// A queue of u32 whose consumer moves one element per wake-up into a vector. At the end the thread
// is held while the queue is destroyed: destruction does not wait for a callback.
class Consumer
{
public:
    Consumer(Worker& worker, u32 capacity);
    Consumer(const Consumer&) = delete;
    Consumer& operator=(const Consumer&) = delete;
    ~Consumer();

    XelLightMq* Get() const { return queue_; }
    pthread_mutex_t& Mutex() const { return queue_->mutex; }
    u32 Write(u32 value) const { return XelLightMqWrite(queue_, &value); }
    u32 Used() const { return XelLightMqGetUsedNum(queue_); }
    // To be called while the thread is held.
    void Destroy();

    size_t Count();
    std::vector<u32> Taken();
    std::atomic<int> wakeUps{0};
    std::atomic<u64> ranOn{0};

private:
    u32 Take();

    Worker& worker_;
    XelLightMq* queue_ = nullptr;
    std::mutex mutex_; // guards taken_
    std::vector<u32> taken_;
};

class LightMqTest : public ThreadTest
{
};

} // namespace lightmqtest

#endif // XEL_TESTS_LIGHT_SUPPORT_H
