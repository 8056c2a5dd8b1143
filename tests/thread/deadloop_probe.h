// Records the marks that scheduler threads set around their callbacks, and lets the read-back of a
// stack size fail.
#ifndef XEL_TESTS_DEADLOOP_PROBE_H
#define XEL_TESTS_DEADLOOP_PROBE_H

#include <mutex>
#include <string>
#include <vector>

#include "common/xel_int.h"

namespace threadtest
{

// "begin <reserved>", "end <phase>" and what tests note themselves, in order, each with the handle.
struct Mark {
    std::string what;
    u32 handle;
    bool operator==(const Mark&) const = default;
};
std::vector<Mark> TakeMarks();
void NoteMark(const std::string& what, u32 handle = 0);

// What pthread_attr_getstacksize answers on this thread while it is not 0.
extern thread_local int t_getStackSizeResult;

} // namespace threadtest

#endif // XEL_TESTS_DEADLOOP_PROBE_H
