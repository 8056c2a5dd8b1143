// The hooks. The one registered object is found through g_trace, which is set before any hook can
// run and cleared after the last.
#include "examples/service_platform/trace.h"

#include <atomic>
#include <cstring>

namespace
{

// Released by the constructor, acquired by the hooks.
std::atomic<Trace*> g_trace{nullptr};

Trace& Current()
{
    return *g_trace.load(std::memory_order_acquire);
}

} // namespace

Trace::Trace()
{
    g_trace.store(this, std::memory_order_release);
    const SchDbgHookTable hooks = {OnInsert, OnDelete, nullptr, OnError, OnTrace};
    SCH_RegisterDbgHookTable(&hooks);
}

Trace::~Trace()
{
    SCH_DeregisterDbgHookTable();
    g_trace.store(nullptr, std::memory_order_release);
}

void Trace::OnInsert(const SchDbgTaskInfo*)
{
    Trace& self = Current();
    const std::lock_guard guard(self.mutex_);
    ++self.liveTasks_;
}

void Trace::OnDelete(u32)
{
    Trace& self = Current();
    const std::lock_guard guard(self.mutex_);
    --self.liveTasks_;
}

void Trace::OnError(u32, u32)
{
    Trace& self = Current();
    const std::lock_guard guard(self.mutex_);
    ++self.errors_;
}

void Trace::OnTrace(u32, const SchDbgTaskTrace* trace)
{
    Trace& self = Current();
    const std::lock_guard guard(self.mutex_);
    TraceRow* row = self.Find(trace->name);
    if (row != nullptr) {
        row->runs.Count(trace->procTime);
    }
}

TraceRow* Trace::Find(const char* name)
{
    for (size_t i = 0; i < used_; ++i) {
        if (strncmp(rows_[i].name, name, XEL_NAME_SIZE) == 0) {
            return &rows_[i];
        }
    }
    if (used_ == rows_.size()) {
        return nullptr;
    }
    TraceRow& row = rows_[used_++];
    memcpy(row.name, name, XEL_NAME_SIZE - 1);
    return &row;
}

std::vector<TraceRow> Trace::Rows() const
{
    const std::lock_guard guard(mutex_);
    return {rows_.begin(), rows_.begin() + static_cast<std::ptrdiff_t>(used_)};
}

u64 Trace::Errors() const
{
    const std::lock_guard guard(mutex_);
    return errors_;
}

u64 Trace::LiveTasks() const
{
    const std::lock_guard guard(mutex_);
    return liveTasks_;
}
