// What the debug hooks saw: for each task name its runs and how long they took, and the errors of
// all dispatch cycles. The hooks run on every scheduler thread; one mutex guards the table, which
// is a few additions per run.
#ifndef SERVICE_PLATFORM_TRACE_H
#define SERVICE_PLATFORM_TRACE_H

#include <array>
#include <mutex>
#include <vector>

#include "common/xel_int.h"
#include "examples/service_platform/histogram.h"
#include "xel_sch_dbg.h"

struct TraceRow {
    char name[XEL_NAME_SIZE] = {};
    Histogram runs;
};

class Trace
{
public:
    // Registers the hooks. One object at a time: the hooks carry no context. To be destroyed when
    // no scheduler thread is left.
    Trace();
    Trace(const Trace&) = delete;
    Trace& operator=(const Trace&) = delete;
    ~Trace();

    std::vector<TraceRow> Rows() const;
    u64 Errors() const;
    // Tasks that were bound and not removed.
    u64 LiveTasks() const;

private:
    static void OnInsert(const SchDbgTaskInfo* info);
    static void OnDelete(u32 fd);
    static void OnError(u32 epFd, u32 code);
    static void OnTrace(u32 epFd, const SchDbgTaskTrace* trace);

    TraceRow* Find(const char* name);

    mutable std::mutex mutex_;      // guards everything below
    std::array<TraceRow, 24> rows_; // a hook must not allocate; names beyond are not counted
    size_t used_ = 0;
    u64 errors_ = 0;
    u64 liveTasks_ = 0;
};

#endif // SERVICE_PLATFORM_TRACE_H
