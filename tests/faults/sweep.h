// The fault sweep: runs a scenario, from the creation of everything that it needs to its end, again
// and again, and lets the first, second, third ... call fail of every kind of call that it makes.
// Each run must answer as documented, leave nothing behind, and be possible again afterwards.
#ifndef XEL_TESTS_FAULTS_SWEEP_H
#define XEL_TESTS_FAULTS_SWEEP_H

#include <functional>
#include <initializer_list>
#include <limits>
#include <string>

#include "support/xel_test.h"

namespace faulttest
{

using xeltest::Call;
using xeltest::i64;

// A kind of failure of a kind of call.
struct Fault {
    Call call;
    i64 result;
    int errnoValue;
};
std::string NameOf(const Fault& fault);

// Calls that make a step fail when one of them fails in it, on the thread of the step: those with
// numbers from..upTo within the step, on this lock only unless it is null.
struct Fatal {
    Fatal(Call fatalCall, u64 last = std::numeric_limits<u64>::max(), u64 first = 1)
        : call(fatalCall), upTo(last), from(first)
    {
    }
    Fatal(Call fatalCall, const void* fatalLock, u64 last = std::numeric_limits<u64>::max())
        : call(fatalCall), upTo(last), lock(fatalLock)
    {
    }
    Call call;
    u64 upTo;
    u64 from = 1;
    const void* lock = nullptr;
};
using Fatals = std::initializer_list<Fatal>;

// Timers in the list of live ones, read under its lock.
u32 LiveTimers();

enum class Lines { Logged, Silent };

// One run of a scenario, with one planned fault or none.
class Trial
{
public:
    explicit Trial(const Fault* fault) : fault_(fault) {}
    Trial(const Trial&) = delete;

    // Makes a step, which answers whether it succeeded. It must fail when one of its fatal calls
    // did, with a line unless it is silent then, and succeed otherwise.
    bool Do(const char* what, Fatals fatals, const std::function<bool()>& step,
            Lines lines = Lines::Logged);
    // Makes a step that ends something, and makes it again if it failed: then it must succeed.
    void End(const char* what, Fatals fatals, const std::function<bool()>& step);
    // A condition that holds whatever failed, at once or soon.
    void Expect(const char* what, const std::function<bool()>& condition);
    // The failing call may leave a task of a closed descriptor behind; the driver removes it.
    void MayLeaveTasks(Fatals fatals);
    // The same, and removes them now; the scenario has no tasks of its own at this moment.
    void EndLeftTasks(Fatals fatals);

    bool IsFault(Call call) const { return fault_ != nullptr && fault_->call == call; }
    bool IsFault(Call call, int errnoValue) const
    {
        return IsFault(call) && fault_->errnoValue == errnoValue;
    }
    bool MayLeave() const { return mayLeave_; }

private:
    std::string Where(const char* what) const;
    bool IsFatal(Fatals fatals, u64 numberInStep) const;

    const Fault* fault_;
    bool mayLeave_ = false;
};
using Scenario = std::function<void(Trial& run)>;

// Locks whose failure is looked at by the library, so that the real call is not made.
struct CheckedLocks {
    static void Set(const void* mutex); // of a light queue; null for none
};

// How much of what may fail is tried.
enum class Extent {
    Calls, // allocations, pools, queues, system calls, copies, clocks
    Locks,
};

// Sweeps one scenario. Shows, and records as a property of the test, how many calls failed.
void Sweep(const char* family, const char* name, Extent extent, const Scenario& scenario);

} // namespace faulttest

#endif // XEL_TESTS_FAULTS_SWEEP_H
