// What one input works on: slots for every kind of object, two scheduler threads that live as long
// as the process, and the lock that lets callbacks on those threads use the slots.
//
// The fuzzing thread holds the lock during each call but those that wait for a scheduler thread
// (end of a thread, of a service, of the input). Callbacks take it for all that they do.
#ifndef XEL_TESTS_FUZZ_WORLD_H
#define XEL_TESTS_FUZZ_WORLD_H

#include <atomic>
#include <mutex>

#include "check.h"
#include "common/xel_int.h"
#include "input.h"
#include "xel_event.h"
#include "xel_msgque_light.h"
#include "xel_scheduler.h"
#include "xel_service_mq.h"
#include "xel_thread.h"
#include "xel_timer.h"

namespace xelfuzz
{

constexpr u32 kFds = 24;
constexpr u32 kTasks = 12;
constexpr u32 kScheds = 3;
constexpr u32 kEvents = 8;
constexpr u32 kTimers = 12;
constexpr u32 kBoxes = 96;
constexpr u32 kQueues = 4;
constexpr u32 kServices = 4;
constexpr u32 kThreads = 3; // two that stay, one that an input may create
constexpr u32 kGroups = 3;  // numbers 1 to 3, and 0, which is refused
constexpr u32 kTypes = 3;

enum class FdKind : u8 { None, Event, PipeRead, PipeWrite, Socket, Timer };

struct FdSlot {
    int fd;
    FdKind kind;
    u8 script; // what the callback does, see RunScript
    u32 runs;
};

struct SchedSlot {
    SchCtrl* sch; // stays behind as a stale handle
    int epFd;
    bool isLive;
    bool hasPolicy;
};

struct EventSlot {
    XelEventNode* event;
    bool isLive;
    u32 generation; // in the user data: a late run of the slot's former event is told apart
    u32 thread;
    u8 script;
    std::atomic<u64> notified;
    std::atomic<u64> runs;
};

struct TimerSlot {
    XelTimerNode* timer;
    u32 thread;
    bool isEnded; // the handle has to be refused from now on
};

// User data of a timer or a type; released at most once, and then never seen again.
struct Box {
    u8 script;
    bool mustBeReleased;
    std::atomic<u32> released;
    std::atomic<u32> runs;
};

struct QueueSlot {
    XelLightMq* queue;
    bool isLive;
    u32 thread;
    u32 generation;
    u32 capacity;
    u32 elemSize;
    u32 written; // elements ever; each is filled with its number
    u32 taken;
};

struct ServiceSlot {
    bool isLive;
    u32 thread;
    std::atomic<u64> sent;
    std::atomic<u64> delivered;
};

struct ThreadSlot {
    XelThreadCtrl* thread;
    XelEventNode* ping;
    std::atomic<u64> pings;
};

struct World {
    std::recursive_mutex lock;
    FdSlot fds[kFds];
    SchTaskCtrl* tasks[kTasks]; // live or stale
    SchedSlot scheds[kScheds];
    EventSlot events[kEvents];
    TimerSlot timers[kTimers];
    Box boxes[kBoxes];
    u32 boxCount;
    QueueSlot queues[kQueues];
    ServiceSlot services[kServices];
    ThreadSlot threads[kThreads];
    bool hasGroup[kGroups];
    bool hasType[kGroups][kTypes];
    u32 typeThread[kGroups][kTypes];
    bool isEnding;   // scripts do nothing any more
    u64 foreign[32]; // a block that is no object
    u64 taskRuns;    // callbacks on the fuzzing thread
};

extern World g_world;

using Hold = std::lock_guard<std::recursive_mutex>;

// Frame of an input.
void StartThreads(); // once
void BeginInput();
void EndInput();

// Waits until everything that was under way on a thread has run.
void Quiesce(u32 thread);

// A block with the given first word that is no object.
void* Foreign(u32 magic);

// A live thread, or slot 0.
u32 PickThread(Input& input);

// What callbacks do besides their own work; on any thread, under the lock.
void RunScript(u8 script, u32 self);

// The calls of each family.
void CallTasks(Input& input);
void CallScheds(Input& input);
void CallEvents(Input& input);
void CallThreads(Input& input);
void CallTimers(Input& input);
void CallGroups(Input& input);
void CallQueues(Input& input);
void CallServices(Input& input);

// The ends of what each family has left.
void EndTasks();
void EndEvents(u32 thread); // kThreads: of all threads
void EndTimers(u32 thread); // and groups and types
void EndQueues(u32 thread);
void EndServices(u32 thread);
void EndOwnThread();

// Single steps that scripts use too.
void DeleteFd(u32 slot);
void NotifyEvent(u32 slot);
void DestroyEvent(u32 slot);
void DestroyTimer(u32 slot);
void CreateTimer(u32 slot, u32 thread, u8 kind, u32 timeoutMs);
void SendToService(u32 slot, u32 length);
void WriteQueue(u32 slot);
void DestroyServicesOf(u32 thread);

} // namespace xelfuzz

#endif // XEL_TESTS_FUZZ_WORLD_H
