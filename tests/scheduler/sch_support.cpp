// Helpers of the scheduler tests.
#include "sch_support.h"

#include <cerrno>
#include <map>
#include <ostream>
#include <unistd.h>

namespace schtest
{

void Signal(int fd, u64 value)
{
    const ssize_t written = ::write(fd, &value, sizeof(value));
    EXPECT_EQ(written, static_cast<ssize_t>(sizeof(value)));
}

void Drain(int fd)
{
    u64 value = 0;
    while (::read(fd, &value, sizeof(value)) > 0) {
    }
}

u32 DrainProc(struct epoll_event* /*event*/, u64 data)
{
    Drain(static_cast<int>(data));
    return 0;
}

SchTaskCtrl* MakeTask(int fd, const TaskSpec& spec)
{
    return XEL_TaskCreate(fd, Attr(spec).Get());
}

u32 AddFd(SchCtrl* sch, int fd, const TaskSpec& spec, u32 events)
{
    const Attr attr(spec);
    SchEpollCtlReq request{events, attr.Get()};
    return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_ADD, fd, &request);
}

u32 ModFd(SchCtrl* sch, int fd, const TaskSpec& spec, u32 events)
{
    const Attr attr(spec);
    SchEpollCtlReq request{events, attr.Get()};
    return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_MOD, fd, &request);
}

u32 DelFd(SchCtrl* sch, int fd)
{
    return SCH_EpollCtrl(sch, XEL_SCH_EPOLL_DEL, fd, nullptr);
}

SchEpollOps LinuxOps()
{
    return {epoll_wait, SchLinuxEpollCtlAdapt, SchLinuxEpollGetErrNoAdapt, nullptr};
}

TestSch::TestSch(Policy policy, i32 size) : epoll_(Fd::Epoll()), sch_(nullptr)
{
    const SchEpollOps ops = LinuxOps();
    sch_ = SCH_CreateSch(epoll_.Get(), size, &ops,
                         policy == Policy::Bfs ? &g_schBfsPolicyOps : nullptr);
    EXPECT_NE(sch_, nullptr);
}

TestSch::TestSch(const SchEpollOps& ops, const SchPolicyOps* policy, i32 size)
    : epoll_(Fd::Epoll()), sch_(SCH_CreateSch(epoll_.Get(), size, &ops, policy))
{
    EXPECT_NE(sch_, nullptr);
}

void TestSch::Destroy()
{
    if (sch_ != nullptr) {
        XEL_SchDestroy(sch_);
        sch_ = nullptr;
    }
}

void PrintTo(const Line& line, std::ostream* out)
{
    *out << '[' << line.fileNo << '/' << line.level << "] " << line.text;
}

Lines TakeLines()
{
    static const std::map<u32, std::string> kFiles = {
        {80, "scheduler/xel_sch_task"},
        {81, "scheduler/xel_scheduler"},
        {83, "scheduler/xel_sch_dbg_pub"},
        {86, "scheduler/xel_sch_policy_bfs"},
        {93, "scheduler/xel_dbg_exception_monitor"},
    };
    Lines lines;
    for (const xeltest::LogLine& line : xeltest::TakeLog()) {
        const auto file = kFiles.find(line.fileNo);
        EXPECT_NE(file, kFiles.end()) << line.text;
        if (file != kFiles.end()) {
            EXPECT_EQ(line.file, file->second) << line.text;
        }
        lines.push_back({line.fileNo, line.level, line.text});
    }
    return lines;
}

bool RegistryIsFree()
{
    return pthread_rwlock_trywrlock(&g_xelSchRunCtrl.lock) == 0 &&
           pthread_rwlock_unlock(&g_xelSchRunCtrl.lock) == 0;
}

bool WriterWaits(SchCtrl* sch)
{
    return std::atomic_ref<u32>(sch->lock.gate).load() == 0;
}

namespace
{

std::mutex g_noteMutex;
std::vector<std::string> g_notes;

void NoteInsert(const SchDbgTaskInfo* info)
{
    HookRecorder::Note(Text("insert %u %d", info->epFd, info->fd));
}

void NoteDel(u32 fd)
{
    HookRecorder::Note(Text("del %d", static_cast<int>(fd)));
}

void NoteStat(u32 fd, u32 procTimeUs)
{
    HookRecorder::Note(Text("stat %u %u", fd, procTimeUs));
}

void NoteErr(u32 epFd, u32 code)
{
    HookRecorder::Note(Text("err %u %u", epFd, code));
}

void NoteTrace(u32 epFd, const SchDbgTaskTrace* trace)
{
    HookRecorder::Note(Text("trace %u %u %lu", epFd, trace->fd, trace->procTime));
}

EpollProbe* g_probe;

int ProbeWait(int epFd, struct epoll_event* events, int maxEvents, int timeoutMs)
{
    EpollProbe& probe = *g_probe;
    const EpollProbe::Wait wait{epFd, events, maxEvents, timeoutMs};
    {
        const std::lock_guard<std::mutex> guard(probe.mutex);
        probe.waits.push_back(wait);
    }
    return probe.onWait ? probe.onWait(wait) : epoll_wait(epFd, events, maxEvents, timeoutMs);
}

int ProbeCtl(int epFd, u32 op, int fd, struct epoll_event* event)
{
    EpollProbe& probe = *g_probe;
    const EpollProbe::Ctl ctl{epFd,
                              op,
                              fd,
                              event != nullptr,
                              event != nullptr ? event->events : 0,
                              event != nullptr ? event->data.u64 : 0};
    {
        const std::lock_guard<std::mutex> guard(probe.mutex);
        probe.ctls.push_back(ctl);
    }
    return probe.onCtl ? probe.onCtl(ctl) : SchLinuxEpollCtlAdapt(epFd, op, fd, event);
}

int ProbeErrNo()
{
    EpollProbe& probe = *g_probe;
    ++probe.errNoCalls;
    const int fixed = probe.errNo.load();
    const int answer = fixed >= 0 ? fixed : errno;
    if (probe.clobber.load() >= 0) {
        errno = probe.clobber.load();
    }
    return answer;
}

} // namespace

HookRecorder::HookRecorder()
{
    (void)Take();
    const SchDbgHookTable table{NoteInsert, NoteDel, NoteStat, NoteErr, NoteTrace};
    SCH_RegisterDbgHookTable(&table);
}

HookRecorder::~HookRecorder()
{
    SCH_DeregisterDbgHookTable();
    (void)Take();
}

std::vector<std::string> HookRecorder::Take()
{
    const std::lock_guard<std::mutex> guard(g_noteMutex);
    return std::exchange(g_notes, {});
}

void HookRecorder::Note(std::string what)
{
    const std::lock_guard<std::mutex> guard(g_noteMutex);
    g_notes.push_back(std::move(what));
}

EpollProbe::EpollProbe()
{
    g_probe = this;
}

EpollProbe::~EpollProbe()
{
    g_probe = nullptr;
}

SchEpollOps EpollProbe::Ops() const
{
    return {ProbeWait, ProbeCtl, ProbeErrNo, nullptr};
}

std::vector<EpollProbe::Wait> EpollProbe::TakeWaits()
{
    const std::lock_guard<std::mutex> guard(mutex);
    return std::exchange(waits, {});
}

std::vector<EpollProbe::Ctl> EpollProbe::TakeCtls()
{
    const std::lock_guard<std::mutex> guard(mutex);
    return std::exchange(ctls, {});
}

} // namespace schtest
