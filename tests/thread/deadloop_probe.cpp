// Definitions that stand in front of the monitor's marks and of the stack size's read-back. Each
// passes on to the real one. Built without sanitizers: they may be called before those are ready.
#include "deadloop_probe.h"

#include <atomic>
#include <dlfcn.h>
#include <pthread.h>
#include <utility>

#include "xel_deadloop.h"

namespace threadtest
{

constinit thread_local int t_getStackSizeResult = 0;

namespace
{

std::mutex g_mutex;
std::vector<Mark> g_marks; // guarded by g_mutex

template <typename Function>
Function* Real(std::atomic<Function*>& slot, const char* name)
{
    Function* real = slot.load();
    if (real == nullptr) {
        real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
        slot.store(real);
    }
    return real;
}

} // namespace

std::vector<Mark> TakeMarks()
{
    const std::lock_guard<std::mutex> guard(g_mutex);
    return std::exchange(g_marks, {});
}

void NoteMark(const std::string& what, u32 handle)
{
    const std::lock_guard<std::mutex> guard(g_mutex);
    g_marks.push_back({what, handle});
}

} // namespace threadtest

uint32_t XelDeadloopMonBegin(uint32_t reserved, const uint32_t* handle)
{
    static constinit std::atomic<uint32_t (*)(uint32_t, const uint32_t*)> real{nullptr};
    threadtest::NoteMark("begin " + std::to_string(reserved), *handle);
    return threadtest::Real(real, "XelDeadloopMonBegin")(reserved, handle);
}

uint32_t XelDeadloopMonEnd(uint32_t handle, uint32_t phase)
{
    static constinit std::atomic<uint32_t (*)(uint32_t, uint32_t)> real{nullptr};
    threadtest::NoteMark("end " + std::to_string(phase), handle);
    return threadtest::Real(real, "XelDeadloopMonEnd")(handle, phase);
}

int pthread_attr_getstacksize(const pthread_attr_t* attr, size_t* size) noexcept
{
    static constinit std::atomic<int (*)(const pthread_attr_t*, size_t*)> real{nullptr};
    if (threadtest::t_getStackSizeResult != 0) {
        return threadtest::t_getStackSizeResult;
    }
    return threadtest::Real(real, "pthread_attr_getstacksize")(attr, size);
}
