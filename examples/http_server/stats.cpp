// The five debug hooks and the tables they fill. One registered object at a time, found through
// g_stats; everything on the loop's thread.
#include "examples/http_server/stats.h"

#include <algorithm>
#include <cstring>

namespace
{

TaskStats* g_stats = nullptr;

void CopyName(char (&to)[XEL_NAME_SIZE], const char* from)
{
    memcpy(to, from, XEL_NAME_SIZE - 1);
    to[XEL_NAME_SIZE - 1] = '\0';
}

} // namespace

void RunTotals::Count(u64 us)
{
    ++runs;
    totalUs += us;
    maxUs = std::max(maxUs, us);
    lastUs = us;
}

TaskStats::TaskStats(size_t fdLimit) : fds_(fdLimit)
{
    g_stats = this;
    const SchDbgHookTable hooks = {OnInsert, OnDelete, OnRun, OnError, OnTrace};
    SCH_RegisterDbgHookTable(&hooks);
}

TaskStats::~TaskStats()
{
    SCH_DeregisterDbgHookTable();
    g_stats = nullptr;
}

void TaskStats::OnInsert(const SchDbgTaskInfo* info)
{
    ++g_stats->liveTasks_;
    const auto fd = static_cast<size_t>(info->fd);
    if (fd >= g_stats->fds_.size()) {
        return;
    }
    FdRow& row = g_stats->fds_[fd];
    row = FdRow{};
    row.live = true;
    CopyName(row.name, info->name);
}

void TaskStats::OnDelete(u32 fd)
{
    --g_stats->liveTasks_;
    if (fd < g_stats->fds_.size()) {
        g_stats->fds_[fd].live = false;
    }
}

// A run that removed its own task ends after the removal: its row is not live any more and stays as
// it is. The name still gets the run, through the trace.
void TaskStats::OnRun(u32 fd, u32 procTimeUs)
{
    if (fd < g_stats->fds_.size() && g_stats->fds_[fd].live) {
        g_stats->fds_[fd].totals.Count(procTimeUs);
    }
}

void TaskStats::OnError(u32 epFd, u32 code)
{
    ErrorRow* row = g_stats->FindScheduler(epFd);
    if (row != nullptr && code < row->byCode.size()) {
        ++row->byCode[code];
    }
}

// A modified task is not announced again; the trace of its next run brings the new name.
void TaskStats::OnTrace(u32, const SchDbgTaskTrace* trace)
{
    NameRow* row = g_stats->FindName(trace->name);
    if (row != nullptr) {
        row->totals.Count(trace->procTime);
    }
    if (trace->fd < g_stats->fds_.size() && g_stats->fds_[trace->fd].live) {
        CopyName(g_stats->fds_[trace->fd].name, trace->name);
    }
}

NameRow* TaskStats::FindName(const char* name)
{
    for (NameRow& row : std::span(names_.data(), nameCount_)) {
        if (strncmp(row.name, name, XEL_NAME_SIZE) == 0) {
            return &row;
        }
    }
    if (nameCount_ == names_.size()) {
        return nullptr;
    }
    CopyName(names_[nameCount_].name, name);
    return &names_[nameCount_++];
}

ErrorRow* TaskStats::FindScheduler(u32 epFd)
{
    for (ErrorRow& row : std::span(errors_.data(), errorCount_)) {
        if (row.epFd == epFd) {
            return &row;
        }
    }
    if (errorCount_ == errors_.size()) {
        return nullptr;
    }
    errors_[errorCount_].epFd = epFd;
    return &errors_[errorCount_++];
}
