// Helpers of the tests of scheduler threads.
#include "thread_support.h"

#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <unistd.h>
#include <utility>

#include "xel_mem.h"

namespace threadtest
{

ThreadAttr::ThreadAttr(const char* name) : attr_(XEL_ThreadCreateAttr())
{
    EXPECT_NE(attr_, nullptr);
    if (name != nullptr) {
        EXPECT_EQ(XEL_ThreadSetAttr(attr_, XEL_THREAD_ATTR_NAME, name, strlen(name)), 0U);
    }
}

ThreadAttr::~ThreadAttr()
{
    if (attr_ != nullptr) {
        XEL_ThreadDestroyAttr(attr_);
    }
}

ThreadAttr& ThreadAttr::Set(i32 cmd, u32 value)
{
    EXPECT_EQ(XEL_ThreadSetAttr(attr_, cmd, &value, sizeof(value)), 0U);
    return *this;
}

Worker::Worker(const char* name) : Worker(ThreadAttr(name)) {}

Worker::Worker(const ThreadAttr& attr) : thread_(XEL_ThreadCreate(attr.Get()))
{
    EXPECT_NE(thread_, nullptr);
}

void Worker::Destroy()
{
    if (thread_ != nullptr) {
        EXPECT_EQ(SchEventThreadDestory(Release()), 0U);
    }
}

XelThreadCtrl* Worker::Release()
{
    return std::exchange(thread_, nullptr);
}

void Worker::Run(std::function<void()> body)
{
    const Fd fd = Fd::Event(1);
    std::atomic<bool> ran{false};
    const Body once = [&](u32) {
        fd.Drain();
        body();
        ran.store(true);
        return 0U;
    };
    ASSERT_EQ(AddFd(thread_, fd.Get(), SpecOf(once)), 0U);
    ASSERT_TRUE(AwaitTrue([&ran] { return ran.load(); }))
        << ::testing::PrintToString(xeltest::TakeTexts());
    EXPECT_EQ(DelFd(thread_, fd.Get()), 0U);
}

u32 AddFd(XelThreadCtrl* thread, int fd, const TaskSpec& spec, u32 events)
{
    const xeltest::Attr attr(spec);
    SchEpollCtlReq request{events, attr.Get()};
    return XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_ADD, fd, &request);
}

u32 ModFd(XelThreadCtrl* thread, int fd, const TaskSpec& spec)
{
    const xeltest::Attr attr(spec);
    SchEpollCtlReq request{EPOLLIN, attr.Get()};
    return XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_MOD, fd, &request);
}

u32 DelFd(XelThreadCtrl* thread, int fd)
{
    return XEL_ThreadCtrl(thread, XEL_THREAD_CTRL_DEL, fd, nullptr);
}

u32 RunBody(struct epoll_event* events, u64 data)
{
    return (*reinterpret_cast<const Body*>(data))(events->events);
}

u64 DataOf(const Body& body)
{
    return reinterpret_cast<u64>(&body);
}

TaskSpec SpecOf(const Body& body)
{
    TaskSpec spec;
    spec.proc = RunBody;
    spec.data = DataOf(body);
    return spec;
}

void Gate::Pass()
{
    arrived_.store(true);
    EXPECT_TRUE(AwaitTrue([this] { return open_.load(); }));
}

bool Gate::AwaitArrival()
{
    return AwaitTrue([this] { return arrived_.load(); });
}

HeldWorker::HeldWorker(Worker& worker) : worker_(worker), fd_(Fd::Event(1))
{
    body_ = [this](u32) {
        fd_.Drain();
        gate_.Pass();
        return 0U;
    };
    EXPECT_EQ(AddFd(worker_.Get(), fd_.Get(), SpecOf(body_)), 0U);
    EXPECT_TRUE(gate_.AwaitArrival());
}

HeldWorker::~HeldWorker()
{
    Open();
}

// The held callback has returned when a later one runs, so its body may go.
void HeldWorker::Open()
{
    if (std::exchange(open_, true)) {
        return;
    }
    gate_.Open();
    EXPECT_EQ(DelFd(worker_.Get(), fd_.Get()), 0U);
    worker_.Run([] {});
}

int NextFd()
{
    const Fd fd = Fd::Event();
    return fd.Get();
}

bool IsOpen(int fd)
{
    return fcntl(fd, F_GETFD) >= 0;
}

size_t ThreadsNamed(const std::string& name)
{
    DIR* dir = opendir("/proc/self/task");
    EXPECT_NE(dir, nullptr);
    size_t count = 0;
    while (const dirent* entry = readdir(dir)) {
        std::ifstream comm("/proc/self/task/" + std::string(entry->d_name) + "/comm");
        std::string line;
        if (std::getline(comm, line) && line == name) {
            ++count;
        }
    }
    closedir(dir);
    return count;
}

bool AwaitGone(const std::string& name)
{
    return AwaitTrue([&name] { return ThreadsNamed(name) == 0; });
}

std::string Registration(int epFd, int fd)
{
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(epFd));
    std::string line;
    while (std::getline(info, line)) {
        int number = -1;
        unsigned mask = 0;
        unsigned long data = 0;
        if (sscanf(line.c_str(), "tfd: %d events: %x data: %lx", &number, &mask, &data) == 3 &&
            number == fd) {
            return Text("%#x %#lx", mask, data);
        }
    }
    return "";
}

Held HoldOf(pthread_rwlock_t& lock)
{
    Held held = Held::ForWriting;
    if (pthread_rwlock_trywrlock(&lock) == 0) {
        held = Held::Not;
    } else if (pthread_rwlock_tryrdlock(&lock) == 0) {
        held = Held::ForReading;
    }
    if (held != Held::ForWriting) {
        EXPECT_EQ(pthread_rwlock_unlock(&lock), 0);
    }
    return held;
}

Held HeldAtUnlock(pthread_rwlock_t& lock, const std::function<void()>& body)
{
    Held held = Held::Not;
    RunAtNth(Call::PthreadRwlockUnlock, 1, [&] { held = HoldOf(lock); });
    const xeltest::AnyCaller any; // the unlock may be the last act of the call
    body();
    return held;
}

void LetBlockBeUsed(u64 nth, size_t size)
{
    void* block = XEL_MemAllocF(size, "thread_support", 1, 0);
    ASSERT_NE(block, nullptr);
    memset(block, 0xAA, size);
    FailNth(Call::XelMemAllocF, nth, reinterpret_cast<intptr_t>(block));
}

void ThreadTest::SetUp()
{
    CleanProcess::SetUp();
    listed_ = g_xelThreadCtrlMng.count;
}

void ThreadTest::TearDown()
{
    CleanProcess::TearDown();
    EXPECT_EQ(g_xelThreadCtrlMng.count, listed_);
}

} // namespace threadtest
