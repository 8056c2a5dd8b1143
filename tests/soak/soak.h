// The frame that the families of the soak share: the end, the random numbers, the scheduler
// threads, and the books in which everything that goes in must come out again.
#ifndef XEL_TESTS_SOAK_SOAK_H
#define XEL_TESTS_SOAK_SOAK_H

#include <atomic>
#include <functional>

#include "common/xel_int.h"
#include "xel_thread.h"

namespace soak
{

constexpr u32 kSharedThreads = 3;

// What went in and what became of it, over the whole run; in = out + refused + dropped in the end.
struct Ledger {
    const char* what;
    std::atomic<u64> in;
    std::atomic<u64> out;
    std::atomic<u64> refused;
    std::atomic<u64> dropped;
};
enum class Book : u32 {
    Notifications, // event runs
    Expiries,      // timers that a one-shot run was due for
    TimerData,     // user data handed over and released
    LightElements,
    ServiceMessages,
    TaskSignals, // counts written to descriptors and read by their tasks
    Count
};
Ledger& Of(Book book);

class Random
{
public:
    explicit Random(u64 seed) : state_(seed * 0x9E3779B97F4A7C15ULL + 1) {}

    u32 Below(u32 limit)
    {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return static_cast<u32>((state_ >> 16) % limit);
    }

private:
    u64 state_;
};

// One worker of a family: its random numbers and the operations it has done.
struct Worker {
    u32 number;
    Random random;
    std::atomic<u64> operations;
};

// A thread that lives as long as the soak; policy BFS for all but the last.
XelThreadCtrl* SharedThread(u32 number);

// A scheduler thread of one's own, ended by SchEventThreadDestory.
XelThreadCtrl* StartThread(const char* name, u32 policy);

// Ends the program with a message: something does not hold.
[[noreturn]] void Fail(const char* file, int line, const char* what);

#define SOAK_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            soak::Fail(__FILE__, __LINE__, #condition);                                            \
        }                                                                                          \
    } while (false)

// Looks until the condition holds; a minute is too long.
void Await(const char* what, const std::function<bool()>& condition);

// Runs body on a shared thread, in a callback there, and waits for its end. Between two callbacks
// of that thread nothing of it is in progress, so what it consumes can be ended exactly.
void RunOn(XelThreadCtrl* thread, const std::function<void()>& body);

// One round of each family; called again and again until the time is over.
void SoakEvents(Worker& worker);
void SoakTimers(Worker& worker);
void SoakGroups(Worker& worker);
void SoakLightQueues(Worker& worker);
void SoakServices(Worker& worker);
void SoakSchedulers(Worker& worker);
void SoakThreads(Worker& worker);

} // namespace soak

#endif // XEL_TESTS_SOAK_SOAK_H
