// What the debug hooks saw: runs per task name, runs per descriptor, dispatch errors per scheduler
// and the number of live tasks. The hooks are called by the library inside the dispatch cycle and
// the binding calls, here always on the loop's thread; they count and copy, and never allocate.
//
// Connections come and go, and a descriptor number serves many of them: a row of the descriptor
// table starts anew with each task, the row of a name goes on for ever.
#ifndef HTTP_SERVER_STATS_H
#define HTTP_SERVER_STATS_H

#include <array>
#include <span>
#include <vector>

#include "common/xel_int.h"
#include "xel_sch_dbg.h"

struct RunTotals {
    u64 runs = 0;
    u64 totalUs = 0;
    u64 maxUs = 0;
    u64 lastUs = 0;

    void Count(u64 us);
};

struct NameRow {
    char name[XEL_NAME_SIZE] = {};
    RunTotals totals;
};

struct FdRow {
    bool live = false;
    char name[XEL_NAME_SIZE] = {};
    RunTotals totals;
};

struct ErrorRow {
    u32 epFd = 0;
    std::array<u64, SCH_ERR_PROC + 1> byCode = {};
};

class TaskStats
{
public:
    // Registers the hooks. Descriptors from fdLimit on are counted by name only. At most one object
    // at a time: the hooks carry no context.
    explicit TaskStats(size_t fdLimit);
    TaskStats(const TaskStats&) = delete;
    TaskStats& operator=(const TaskStats&) = delete;
    ~TaskStats();

    std::span<const NameRow> Names() const { return {names_.data(), nameCount_}; }
    std::span<const ErrorRow> Errors() const { return {errors_.data(), errorCount_}; }
    const std::vector<FdRow>& Descriptors() const { return fds_; }
    u64 LiveTasks() const { return liveTasks_; }

private:
    static void OnInsert(const SchDbgTaskInfo* info);
    static void OnDelete(u32 fd);
    static void OnRun(u32 fd, u32 procTimeUs);
    static void OnError(u32 epFd, u32 code);
    static void OnTrace(u32 epFd, const SchDbgTaskTrace* trace);

    NameRow* FindName(const char* name);
    ErrorRow* FindScheduler(u32 epFd);

    // Fixed sizes: a hook finds room or leaves the run uncounted.
    std::array<NameRow, 16> names_;
    size_t nameCount_ = 0;
    std::array<ErrorRow, 4> errors_;
    size_t errorCount_ = 0;
    std::vector<FdRow> fds_;
    u64 liveTasks_ = 0;
};

#endif // HTTP_SERVER_STATS_H
