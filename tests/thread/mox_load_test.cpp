// Loading the alternative epoll implementation, and the switch by epoll type.
#include <cerrno>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include "mox_support.h"

namespace
{

using namespace moxtest;

constexpr char kNoScheduler[] = "Thread create, alloc memory for thread arg unsuccessfully.";
constexpr char kNoEpoll[] = "Thread create ctrl, epoll create unsuccessfully. (ret = 0xffffffff)";

std::string MissingLibraryLine()
{
    EXPECT_EQ(dlopen(PathOf(Found::Nothing), RTLD_NOW), nullptr);
    return Text("Adapt kirva mox epoll load lib(libtzkbase.so) unsuccessfully. (error = %s)",
                dlerror());
}

std::string MissingSymbolLine()
{
    return Text("Adapt kirva mox epoll load symbol unsuccessfully. (error = %s: undefined symbol: "
                "MOX_EpollErrorNoGet)",
                PathOf(Found::WithoutSymbol));
}

class MoxLoad : public MoxTest
{
protected:
    void ExpectCreationFails(const std::string& reason)
    {
        const MoxAttr attr;
        EXPECT_EQ(XEL_ThreadCreate(attr.Get()), nullptr);
        EXPECT_LOG(kThreadSource, From(kMoxSource, reason), kNoEpoll, kNoScheduler);
        EXPECT_EQ(g_xelMoxEpollLoaded, 0);
        g_xelThreadCtrlMng.count = listed_;
    }
    void ExpectCreationWorks()
    {
        (void)Stand();
        Worker worker{MoxAttr()};
        bool ran = false;
        worker.Run([&ran] { ran = true; });
        EXPECT_TRUE(ran);
        EXPECT_EQ(g_xelMoxEpollLoaded, 1);
    }
};

TEST_F(MoxLoad, TablesHaveTheirLayout)
{
    EXPECT_EQ(sizeof(XelMoxEpollEvent), 32U);
    EXPECT_EQ(offsetof(XelMoxEpollEvent, events), 0U);
    EXPECT_EQ(offsetof(XelMoxEpollEvent, fdType), 4U);
    EXPECT_EQ(offsetof(XelMoxEpollEvent, data), 24U);
    const char* symbols[] = {"MOX_EpollCreate", "MOX_EpollCtl", "MOX_EpollWait",
                             "MOX_EpollErrorNoGet", "MOX_EpollClose"};
    static_assert(sizeof(g_xelMoxEpollFuncMap) == 5 * 24);
    for (u32 i = 0; i < 5; ++i) {
        const void* row = &g_xelMoxEpollFuncMap[i];
        EXPECT_EQ(At<u64>(row, 0), i);
        EXPECT_EQ(At<void*>(row, 8), nullptr);
        EXPECT_STREQ(At<const char*>(row, 16), symbols[i]);
    }
    EXPECT_EQ(g_xelMoxEpollCtl.map, g_xelMoxEpollFuncMap);
}

TEST_F(MoxLoad, AbsentLibraryIsRefused)
{
    const std::string line = MissingLibraryLine();
    LetLoaderFind(Found::Nothing);
    EXPECT_EQ(THREAD_HookMoxEpollFunc(), kFail);
    EXPECT_LOG(kMoxSource, line);
    EXPECT_TRUE(OpenNameWasRight());
    EXPECT_EQ(OpenFlags(), 258);
    ExpectCreationFails(line);
    EXPECT_EQ(Opened(), 2U);
}

TEST_F(MoxLoad, MissingSymbolUnloadsTheLibrary)
{
    LetLoaderFind(Found::WithoutSymbol);
    ExpectCreationFails(MissingSymbolLine());
    EXPECT_EQ(Opened(), 1U);
    EXPECT_EQ(Closed(), 1U);
    EXPECT_FALSE(IsMapped(Found::WithoutSymbol));
    // The rows before it keep what they got.
    for (u32 i = 0; i < 3; ++i) {
        EXPECT_NE(g_xelMoxEpollFuncMap[i].function, nullptr);
    }
    EXPECT_EQ(g_xelMoxEpollFuncMap[4].function, nullptr);
}

TEST_F(MoxLoad, FailedLoadsAreRetried)
{
    LetLoaderFind(Found::Nothing);
    ExpectCreationFails(MissingLibraryLine());
    LetLoaderFind(Found::WithoutSymbol);
    ExpectCreationFails(MissingSymbolLine());
    ExpectCreationFails(MissingSymbolLine());
    LetLoaderFind(Found::Whole);
    ExpectCreationWorks();
    EXPECT_NO_LOG();
}

TEST_F(MoxLoad, LibraryIsLoadedOnceAndStays)
{
    ExpectCreationWorks();
    EXPECT_TRUE(OpenNameWasRight());
    EXPECT_EQ(OpenFlags(), 258);
    ExpectCreationWorks();
    EXPECT_EQ(THREAD_HookMoxEpollFunc(), 0U);
    EXPECT_EQ(Opened(), 1U);
    EXPECT_EQ(Closed(), 0U);
    EXPECT_TRUE(IsMapped(Found::Whole));
    // Nobody looks for it any more.
    LetLoaderFind(Found::Nothing);
    ExpectCreationWorks();
    EXPECT_EQ(Opened(), 0U);
}

TEST_F(MoxLoad, SeveralThreadsLoadOnce)
{
    std::atomic<bool> go{false};
    std::vector<std::unique_ptr<Runner>> threads;
    for (int i = 0; i < 8; ++i) {
        threads.push_back(std::make_unique<Runner>([&go] {
            EXPECT_TRUE(AwaitTrue([&go] { return go.load(); }));
            EXPECT_EQ(THREAD_HookMoxEpollFunc(), 0U);
            for (const XelMoxEpollFunc& row : g_xelMoxEpollFuncMap) {
                EXPECT_NE(row.function, nullptr);
            }
        }));
    }
    go.store(true);
    threads.clear();
    EXPECT_EQ(Opened(), 1U);
    EXPECT_NO_LOG();
}

TEST_F(MoxLoad, LoadWaitsForTheMutex)
{
    ASSERT_EQ(pthread_mutex_lock(&g_xelMoxEpollCtl.mutex), 0);
    const u64 locks = Calls(Call::PthreadMutexLock);
    Runner loader([] { EXPECT_EQ(THREAD_HookMoxEpollFunc(), 0U); });
    EXPECT_TRUE(
        AwaitTrue([&] { return Calls(Call::PthreadMutexLock) > locks || loader.HasEnded(); }));
    EXPECT_FALSE(loader.HasEnded());
    EXPECT_EQ(Opened(), 0U);
    EXPECT_EQ(pthread_mutex_unlock(&g_xelMoxEpollCtl.mutex), 0);
    loader.Join();
    EXPECT_EQ(Opened(), 1U);
}

// The real search, in a process of its own with the search path set.
TEST(MoxSearch, LibraryIsFoundByItsName)
{
    std::string directory = PathOf(Found::Whole);
    directory.erase(directory.rfind('/'));
    ASSERT_EQ(setenv("LD_LIBRARY_PATH", directory.c_str(), 1), 0);
    XELTEST_IN_FRESH_PROCESS([] {
        LetLoaderFind(Found::Whatever);
        EXPECT_EQ(THREAD_HookMoxEpollFunc(), 0U);
        EXPECT_NO_LOG();
        EXPECT_TRUE(IsMapped(Found::Whole));
        int epFd = -1;
        SchEpollOps ops = {};
        EXPECT_EQ(THREAD_EpollInit(2, 8, &epFd, &ops), 0U);
        EXPECT_GE(epFd, 0);
        EXPECT_EQ(THREAD_EpollCloseFd(2, epFd), 0U);
    });
    EXPECT_EQ(unsetenv("LD_LIBRARY_PATH"), 0);
}

TEST(MoxSearch, LibraryThatIsNowhereIsReported)
{
    XELTEST_IN_FRESH_PROCESS([] {
        LetLoaderFind(Found::Whatever);
        EXPECT_EQ(THREAD_HookMoxEpollFunc(), kFail);
        EXPECT_LOG(kMoxSource,
                   "Adapt kirva mox epoll load lib(libtzkbase.so) unsuccessfully. (error = "
                   "libtzkbase.so: cannot open shared object file: No such file or directory)");
        EXPECT_EQ(g_xelMoxEpollLoaded, 0);
    });
}

// Before any load there is nothing to call.
TEST_F(MoxLoad, AdaptersBeforeTheLoadRefuse)
{
    EXPECT_LT(THREAD_MoxEpollCreateAdapt(), 0);
    EXPECT_NE(THREAD_MoxEpollCloseAdapt(0), 0);
    struct epoll_event events = {};
    EXPECT_LT(THREAD_MoxEpollWaitAdapt(0, &events, 1, 0), 0);
    (void)THREAD_MoxEpollErrorNoGetAdapt();
    EXPECT_NO_LOG();
}

TEST_F(MoxLoad, MeshTypeIsRefused)
{
    int epFd = 77;
    SchEpollOps ops = {};
    EXPECT_EQ(THREAD_EpollInit(1, 8, &epFd, &ops), 22U);
    EXPECT_LOG(kThreadEpollSource, "Thread epoll init, mesh type is not support.");
    EXPECT_EQ(THREAD_EpollCloseFd(1, epFd), 22U);
    EXPECT_LOG(kThreadEpollSource, "Thread epoll close, mesh type is not support.");
    EXPECT_EQ(epFd, 77);
    EXPECT_EQ(ops.wait, nullptr);
}

TEST_F(MoxLoad, LinuxTypeFillsTheKernelsOperations)
{
    int epFd = -1;
    SchEpollOps ops = {};
    ASSERT_EQ(THREAD_EpollInit(0, 8, &epFd, &ops), 0U);
    ASSERT_GE(epFd, 0);
    EXPECT_EQ(ops.ctl, SchLinuxEpollCtlAdapt);
    EXPECT_EQ(ops.getErrNo, SchLinuxEpollGetErrNoAdapt);
    EXPECT_EQ(ops.reserved, nullptr);
    struct epoll_event event = {};
    EXPECT_EQ(ops.wait(epFd, &event, 1, 0), 0);
    EXPECT_EQ(THREAD_EpollCloseFd(0, epFd), 0U);
    EXPECT_FALSE(IsOpen(epFd));
    FailNth(Call::EpollCreate, 1, -1, ENFILE);
    EXPECT_EQ(ThreadLinuxEpollInit(8, &epFd, &ops), kFail);
    EXPECT_LOG(kThreadEpollSource, "Thread create ctrl, epoll create unsuccessfully. (errno = 23)");
    EXPECT_EQ(Opened(), 0U);
}

TEST_F(MoxLoad, MoxTypeFillsTheAdapters)
{
    int epFd = -1;
    SchEpollOps ops = {};
    ASSERT_EQ(THREAD_EpollInit(2, 8, &epFd, &ops), 0U);
    ASSERT_GE(epFd, 0);
    EXPECT_EQ(ops.wait, THREAD_MoxEpollWaitAdapt);
    EXPECT_EQ(ops.ctl, THREAD_MoxEpollCtlAdapt);
    EXPECT_EQ(ops.getErrNo, THREAD_MoxEpollErrorNoGetAdapt);
    EXPECT_EQ(ops.reserved, nullptr);
    EXPECT_EQ(Stand()->calls[standin::kCreate].load(), 0U); // counted from here
    EXPECT_EQ(THREAD_EpollCloseFd(2, epFd), 0U);
    EXPECT_EQ(Stand()->calls[standin::kClose].load(), 1U);
    EXPECT_EQ(Stand()->lastClosed, epFd);
    EXPECT_FALSE(IsOpen(epFd));
    EXPECT_EQ(Calls(Call::EpollCreate), 0U);
}

// The number in the line is the library's, not the thread's errno.
TEST_F(MoxLoad, FailingCreationTellsTheLibrarysErrorNumber)
{
    Stand()->failWith[standin::kCreate].store(77);
    int epFd = 55;
    SchEpollOps ops = {};
    EXPECT_EQ(ThreadMoxEpollInit(8, &epFd, &ops), kFail);
    EXPECT_LOG(kMoxSource, "Thread create ctrl, epoll create unsuccessfully. (errno = 77)");
    const MoxAttr attr;
    EXPECT_EQ(XEL_ThreadCreate(attr.Get()), nullptr);
    EXPECT_LOG(kThreadSource,
               From(kMoxSource, "Thread create ctrl, epoll create unsuccessfully. (errno = 77)"),
               kNoEpoll, kNoScheduler);
    EXPECT_EQ(epFd, 55);
    g_xelThreadCtrlMng.count = listed_;
    Stand()->failWith[standin::kCreate].store(0);
    ExpectCreationWorks();
}

// A scheduler that cannot be created gives the descriptor back to where it came from.
TEST_F(MoxLoad, RefusedSchedulerClosesThroughTheLibrary)
{
    MoxAttr attr;
    attr.Set(XEL_THREAD_ATTR_EP_SIZE, 5000);
    const u32 closed = Stand()->calls[standin::kClose].load();
    EXPECT_EQ(XEL_ThreadCreate(attr.Get()), nullptr);
    EXPECT_EQ(Stand()->calls[standin::kClose].load(), closed + 1);
    EXPECT_EQ(LogCount("Thread create ctrl, create scheduler unsuccessfully."), 1U);
    DropLog();
    g_xelThreadCtrlMng.count = listed_;
}

} // namespace
