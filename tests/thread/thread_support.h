// What the tests of scheduler threads and of everything that lives on them share: attributes and
// threads that clean up after themselves, descriptors bound to them, and a gate to hold a callback.
#ifndef XEL_TESTS_THREAD_SUPPORT_H
#define XEL_TESTS_THREAD_SUPPORT_H

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>

#include "common/xel_int.h"
#include "scheduler/xel_scheduler_inner.h"
#include "support/xel_test.h"
#include "thread/xel_sch_thread_inner.h"

namespace threadtest
{

using xeltest::AwaitTrue;
using xeltest::Call;
using xeltest::Fd;
using xeltest::Runner;
using xeltest::TaskSpec;
using xeltest::Text;

constexpr u32 kFail = 0xFFFFFFFFU;

// A value as it stands at an offset of a record.
template <typename Value>
Value At(const void* record, size_t offset)
{
    Value value;
    memcpy(&value, static_cast<const char*>(record) + offset, sizeof(value));
    return value;
}

// A thread attribute; with a name unless that is null.
class ThreadAttr
{
public:
    explicit ThreadAttr(const char* name = "worker");
    ThreadAttr(const ThreadAttr&) = delete;
    ThreadAttr& operator=(const ThreadAttr&) = delete;
    ~ThreadAttr();
    XelThreadAttr* Get() const { return attr_; }
    XelThreadAttr* operator->() const { return attr_; }
    // Sets a command whose value is four bytes wide.
    ThreadAttr& Set(i32 cmd, u32 value);

private:
    XelThreadAttr* attr_;
};

// A scheduler thread that is destroyed at the end, if it still lives.
class Worker
{
public:
    explicit Worker(const char* name = "worker");
    explicit Worker(const ThreadAttr& attr);
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;
    ~Worker() { Destroy(); }
    XelThreadCtrl* Get() const { return thread_; }
    XelThreadCtrl* operator->() const { return thread_; }
    void Destroy();
    // Destroyed by somebody else.
    XelThreadCtrl* Release();
    // Runs a function on the thread, as a callback, and waits for its end.
    void Run(std::function<void()> body);

private:
    XelThreadCtrl* thread_;
};

// XEL_ThreadCtrl with the operations by name.
u32 AddFd(XelThreadCtrl* thread, int fd, const TaskSpec& spec, u32 events = EPOLLIN);
u32 ModFd(XelThreadCtrl* thread, int fd, const TaskSpec& spec);
u32 DelFd(XelThreadCtrl* thread, int fd);

// A function as a task: TaskSpec{.proc = RunBody, .data = DataOf(body)}. It gets the ready mask.
using Body = std::function<u32(u32 events)>;
u32 RunBody(struct epoll_event* events, u64 data);
u64 DataOf(const Body& body);
TaskSpec SpecOf(const Body& body);

// A callback waits in Pass until the test opens the gate; the test sees that it arrived.
class Gate
{
public:
    ~Gate() { Open(); }
    void Pass();
    bool AwaitArrival();
    void Open() { open_.store(true); }

private:
    std::atomic<bool> arrived_{false};
    std::atomic<bool> open_{false};
};

// A thread of a worker that is held inside a callback until Open; everything signalled meanwhile
// is found ready at once.
class HeldWorker
{
public:
    explicit HeldWorker(Worker& worker);
    HeldWorker(const HeldWorker&) = delete;
    ~HeldWorker();
    void Open();

private:
    Worker& worker_;
    Fd fd_;
    Gate gate_;
    Body body_;
    bool open_ = false;
};

// The number that the next descriptor of the process gets.
int NextFd();
bool IsOpen(int fd);
// Threads of the process that carry this name.
size_t ThreadsNamed(const std::string& name);
// Waits until a named thread is gone.
bool AwaitGone(const std::string& name);
// Mask and data of a descriptor in an epoll instance, as the kernel tells them; "" when it is not
// registered.
std::string Registration(int epFd, int fd);

// How a lock is held, by whom ever; the caller tries it.
enum class Held { Not, ForReading, ForWriting };
Held HoldOf(pthread_rwlock_t& lock);
// The same at the library's first unlock that body leads to.
Held HeldAtUnlock(pthread_rwlock_t& lock, const std::function<void()>& body);

// The nth block from now that the library asks for has been used before: no byte of it is 0.
void LetBlockBeUsed(u64 nth, size_t size);

// Fixture: leaves the process as found, and the list of threads with it.
class ThreadTest : public xeltest::CleanProcess
{
protected:
    void SetUp() override;
    void TearDown() override;

    u32 listed_ = 0;
};

} // namespace threadtest

#endif // XEL_TESTS_THREAD_SUPPORT_H
