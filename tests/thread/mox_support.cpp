// Helpers of the tests of the alternative epoll implementation. The program's own dlopen stands in
// front of the real one; it looks at the library's name only, everything else passes through.
#include "mox_support.h"

#include <dlfcn.h>

#include "tests/support/next_symbol.h"
#include "xel_mem.h"

namespace moxtest
{

namespace
{

constexpr char kLibrary[] = "libtzkbase.so";

std::atomic<Found> g_found{Found::Whatever};
std::atomic<u32> g_opened{0};
std::atomic<u32> g_closed{0};
std::atomic<int> g_openFlags{0};
std::atomic<void*> g_lastHandle{nullptr};
std::atomic<bool> g_nameWasRight{false};

// The buffers of threads that waited; guarded by the mutex.
std::mutex g_mutex;
std::set<XelMoxEventsInfo*> g_buffers;

void FreeInfo(XelMoxEventsInfo* info)
{
    XEL_MemFreeF(info->buffer, "mox_support", 1, 0);
    XEL_MemFreeF(info, "mox_support", 1, 0);
}

} // namespace

void LetLoaderFind(Found found)
{
    g_found.store(found);
    g_opened.store(0);
    g_closed.store(0);
    g_openFlags.store(0);
    g_nameWasRight.store(false);
}

u32 Opened()
{
    return g_opened.load();
}

u32 Closed()
{
    return g_closed.load();
}

int OpenFlags()
{
    return g_openFlags.load();
}

bool OpenNameWasRight()
{
    return g_nameWasRight.load();
}

const char* PathOf(Found found)
{
    switch (found) {
    case Found::Whole:
        return STAND_IN_WHOLE;
    case Found::WithoutSymbol:
        return STAND_IN_WITHOUT_SYMBOL;
    case Found::Nothing:
    case Found::Whatever:
        break;
    }
    return "libnot-there.so";
}

bool IsMapped(Found found)
{
    void* handle = dlopen(PathOf(found), RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        return false;
    }
    (void)dlclose(handle);
    return true;
}

void ForgetLoad()
{
    g_xelMoxEpollLoaded = 0;
    for (XelMoxEpollFunc& row : g_xelMoxEpollFuncMap) {
        row.function = nullptr;
    }
}

void MoxTest::SetUp()
{
    ForgetLoad();
    LetLoaderFind(Found::Whole);
    ThreadTest::SetUp();
}

// Threads that are just ending have made their last wait long ago.
void MoxTest::TearDown()
{
    if (control_ != nullptr) {
        control_->onWait.store(nullptr);
    }
    DropBuffer();
    {
        const std::lock_guard<std::mutex> guard(g_mutex);
        for (XelMoxEventsInfo* info : g_buffers) {
            FreeInfo(info);
        }
        g_buffers.clear();
    }
    ThreadTest::TearDown();
}

standin::Control* MoxTest::Stand()
{
    if (control_ != nullptr) {
        return control_;
    }
    void* library = dlopen(STAND_IN_WHOLE, RTLD_NOW | RTLD_GLOBAL);
    EXPECT_NE(library, nullptr) << dlerror();
    auto get = reinterpret_cast<standin::ControlFunction>(dlsym(library, "StandIn_Control"));
    control_ = get();
    for (u32 i = 0; i < standin::kFunctionCount; ++i) {
        control_->calls[i].store(0);
        control_->failWith[i].store(0);
        control_->answer[i].store(0);
    }
    control_->excess.store(0);
    control_->onWait.store(KeepBuffer);
    return control_;
}

void KeepBuffer()
{
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_buffers.insert(g_xelMoxEventsInfo);
}

void DropBuffer()
{
    if (g_xelMoxEventsInfo == nullptr) {
        return;
    }
    {
        const std::lock_guard<std::mutex> guard(g_mutex);
        g_buffers.erase(g_xelMoxEventsInfo);
    }
    FreeInfo(g_xelMoxEventsInfo);
    g_xelMoxEventsInfo = nullptr;
}

} // namespace moxtest

void* dlopen(const char* file, int flags) noexcept
{
    using namespace moxtest;
    static const auto real = xeltest::NextSymbol<void* (*)(const char*, int)>("dlopen");
    if (file == nullptr || strstr(file, "tzkbase") == nullptr || file[0] == '/') {
        return real(file, flags);
    }
    g_opened.fetch_add(1);
    g_openFlags.store(flags);
    g_nameWasRight.store(strcmp(file, kLibrary) == 0);
    const Found found = g_found.load();
    void* handle = real(found == Found::Whatever ? file : PathOf(found), flags);
    g_lastHandle.store(handle);
    return handle;
}

int dlclose(void* handle) noexcept
{
    using namespace moxtest;
    static const auto real = xeltest::NextSymbol<int (*)(void*)>("dlclose");
    if (handle == g_lastHandle.load()) {
        g_closed.fetch_add(1);
    }
    return real(handle);
}
