// What the sweeps of everything that lives on a scheduler thread share. The thread itself is there
// before and after a run; a fault may hit it as well.
#ifndef XEL_TESTS_FAULTS_OBJECTS_H
#define XEL_TESTS_FAULTS_OBJECTS_H

#include "steps.h"

namespace faulttest
{

// What the callbacks of all objects count.
struct Counts {
    std::atomic<u32> runs{0};
    std::atomic<u32> released{0};
};

u32 CountEvent(u64 data);

// What the creation of a task of its own costs an object, besides its record and descriptor.
#define TASK_FATALS Call::XelMemAllocF, Call::FmmUnitAlloc, Call::EpollCtl

// The task of a descriptor that its thread could not let go may stay: when the table could not be
// locked, or the epoll instance did not know the descriptor.
void MayLeaveBoundTasks(Trial& run);
// Frees an event's block that could not be freed under the lock, as the log tells.
void FreeLeftBlock(const Trial& run, XelEventNode* event);
// Destroys an event; at the second try when it could not be unlinked for want of the lock.
void EndEvent(Trial& run, XelEventNode* event);

// Fixture: a scheduler thread that has what it ever takes.
class Objects : public CleanProcess
{
protected:
    void SetUp() override;
    void TearDown() override;
    using Life = void (*)(Trial& run, XelThreadCtrl* thread);
    void SweepBoth(const char* family, const char* name, Life life);
    void SweepBoth(const char* family, const char* name, const Scenario& scenario);

    std::unique_ptr<Counted> counted_;
    std::unique_ptr<Worker> worker_;

private:
    // Lets many descriptors be queued at once, so that the policy of the thread takes no more units
    // later on, however the runs of a scenario meet.
    void WarmUpSlots();
};

} // namespace faulttest

#endif // XEL_TESTS_FAULTS_OBJECTS_H
