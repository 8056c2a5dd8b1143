// Debug hooks: registration, the five wrappers, the trace record.
#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "scheduler/xel_sch_dbg_inner.h"
#include "task_support.h"

using namespace xeltest;

namespace
{

std::vector<std::string> g_calls;
SchDbgTaskTrace g_trace;
std::atomic<u32> g_counted{0};

void NoteInsert(const SchDbgTaskInfo* info)
{
    g_calls.push_back(Text("insert %u %d %s", info->epFd, info->fd, info->name));
}
void NoteDel(u32 fd)
{
    g_calls.push_back(Text("del %u", fd));
}
void NoteStatistic(u32 fd, u32 procTimeUs)
{
    g_calls.push_back(Text("statistic %u %u", fd, procTimeUs));
}
void NoteError(u32 epFd, u32 code)
{
    g_calls.push_back(Text("error %u %u", epFd, code));
}
void NoteTrace(u32 epFd, const SchDbgTaskTrace* trace)
{
    g_calls.push_back(Text("trace %u", epFd));
    g_trace = *trace;
}
void NoteOtherDel(u32 fd)
{
    g_calls.push_back(Text("other del %u", fd));
}
void CountDel(u32 /*fd*/)
{
    g_counted.fetch_add(1);
}

constexpr SchDbgHookTable kHooks{NoteInsert, NoteDel, NoteStatistic, NoteError, NoteTrace};

class Dbg : public CleanProcess
{
protected:
    void SetUp() override
    {
        CleanProcess::SetUp();
        g_calls.clear();
    }
    void TearDown() override
    {
        SCH_DeregisterDbgHookTable();
        CleanProcess::TearDown();
    }
};

void CallAll()
{
    SchDbgTaskInfo info{};
    info.epFd = 3;
    info.fd = 4;
    strcpy(info.name, "task");
    SchDbgInsertTaskInfo(&info);
    SchDbgDelTaskInfo(5);
    SchDbgUpdateTasksStatistic(6, 77);
    SchDbgAddErrStat(8, 2);
    const SchTaskTraceInfo trace = tasktest::TraceOf(NopProc);
    SchDbgInsertTaskTrace(9, &trace);
}

const std::vector<std::string> kAllCalls = {"insert 3 4 task", "del 5", "statistic 6 77",
                                            "error 8 2", "trace 9"};

TEST_F(Dbg, RecordsHaveTheirFieldsInOrder)
{
    EXPECT_EQ(offsetof(SchDbgHookTable, insertTaskInfo), 0U);
    EXPECT_EQ(offsetof(SchDbgHookTable, delTaskInfo), 8U);
    EXPECT_EQ(offsetof(SchDbgHookTable, updateTasksStatistic), 16U);
    EXPECT_EQ(offsetof(SchDbgHookTable, addErrStat), 24U);
    EXPECT_EQ(offsetof(SchDbgHookTable, insertTaskTrace), 32U);
    EXPECT_EQ(sizeof(SchDbgHookTable), 40U);
    EXPECT_EQ(offsetof(SchDbgTaskTrace, name), 0U);
    EXPECT_EQ(offsetof(SchDbgTaskTrace, events), 16U);
    EXPECT_EQ(offsetof(SchDbgTaskTrace, fd), 20U);
    EXPECT_EQ(offsetof(SchDbgTaskTrace, tvSec), 24U);
    EXPECT_EQ(offsetof(SchDbgTaskTrace, tvUsec), 32U);
    EXPECT_EQ(offsetof(SchDbgTaskTrace, procTime), 40U);
    EXPECT_EQ(sizeof(SchDbgTaskTrace), 48U);
}

TEST_F(Dbg, NothingIsRegisteredAtFirst)
{
    EXPECT_FALSE(SchDbgIsInit());
    CallAll();
    EXPECT_TRUE(g_calls.empty());
    EXPECT_NO_LOG();
}

TEST_F(Dbg, EachWrapperCallsItsSlot)
{
    EXPECT_EQ(SCH_RegisterDbgHookTable(&kHooks), 0U);
    EXPECT_TRUE(SchDbgIsInit());
    CallAll();
    EXPECT_EQ(g_calls, kAllCalls);
    EXPECT_NO_LOG();
}

TEST_F(Dbg, TableIsCopied)
{
    SchDbgHookTable table = kHooks;
    SCH_RegisterDbgHookTable(&table);
    table = {};
    CallAll();
    EXPECT_EQ(g_calls, kAllCalls);
}

TEST_F(Dbg, FirstRegistrationWins)
{
    SchDbgHookTable other = kHooks;
    other.delTaskInfo = NoteOtherDel;
    EXPECT_EQ(SCH_RegisterDbgHookTable(&kHooks), 0U);
    EXPECT_EQ(SCH_RegisterDbgHookTable(&other), 0U);
    SchDbgDelTaskInfo(1);
    SCH_DeregisterDbgHookTable();
    EXPECT_EQ(SCH_RegisterDbgHookTable(&other), 0U);
    SchDbgDelTaskInfo(1);
    EXPECT_EQ(g_calls, (std::vector<std::string>{"del 1", "other del 1"}));
    EXPECT_NO_LOG();
}

TEST_F(Dbg, DeregistrationSilencesEveryWrapper)
{
    SCH_RegisterDbgHookTable(&kHooks);
    SCH_DeregisterDbgHookTable();
    EXPECT_FALSE(SchDbgIsInit());
    CallAll();
    EXPECT_TRUE(g_calls.empty());
    SCH_DeregisterDbgHookTable();
    EXPECT_FALSE(SchDbgIsInit());
    EXPECT_NO_LOG();
}

// An old slot does not show through a later table that leaves it empty.
TEST_F(Dbg, LaterTableReplacesEverySlot)
{
    SCH_RegisterDbgHookTable(&kHooks);
    SCH_DeregisterDbgHookTable();
    const SchDbgHookTable nothing{};
    SCH_RegisterDbgHookTable(&nothing);
    EXPECT_TRUE(SchDbgIsInit());
    CallAll();
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(Dbg, EmptySlotIsSkippedAndTheOthersWork)
{
    for (size_t skipped = 0; skipped < kAllCalls.size(); ++skipped) {
        SchDbgHookTable table = kHooks;
        const void* nothing = nullptr;
        memcpy(reinterpret_cast<char*>(&table) + skipped * sizeof(void*), &nothing,
               sizeof(nothing));
        SCH_RegisterDbgHookTable(&table);
        CallAll();
        SCH_DeregisterDbgHookTable();
        std::vector<std::string> expected = kAllCalls;
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(skipped));
        EXPECT_EQ(g_calls, expected);
        g_calls.clear();
    }
    EXPECT_NO_LOG();
}

TEST_F(Dbg, TraceIsCopiedFieldByField)
{
    SCH_RegisterDbgHookTable(&kHooks);
    memset(static_cast<void*>(&g_trace), 0x5A, sizeof(g_trace));
    SchTaskTraceInfo trace = tasktest::TraceOf(NopProc);
    trace.fd = -1;
    SchDbgInsertTaskTrace(9, &trace);
    EXPECT_STREQ(g_trace.name, "tracedtask");
    EXPECT_EQ(g_trace.events, u32{EPOLLIN});
    EXPECT_EQ(g_trace.fd, 0xFFFFFFFFU);
    EXPECT_EQ(g_trace.tvSec, 8U);
    EXPECT_EQ(g_trace.tvUsec, 9U);
    EXPECT_EQ(g_trace.procTime, 7U);
}

TEST_F(Dbg, TraceWhoseNameCannotBeCopiedIsNotHandedOut)
{
    SCH_RegisterDbgHookTable(&kHooks);
    const SchTaskTraceInfo trace = tasktest::TraceOf(NopProc);
    FailNth(Call::StrcpyS, 1, 34);
    SchDbgInsertTaskTrace(9, &trace);
    EXPECT_LOG(kDbgSource,
               "Dbg insert task trace info unsuccessfully. (taskName = tracedtask, ret = 34)");
    EXPECT_TRUE(g_calls.empty());
}

TEST_F(Dbg, TraceIsNotCopiedForAnEmptySlot)
{
    SchDbgHookTable table = kHooks;
    table.insertTaskTrace = nullptr;
    SCH_RegisterDbgHookTable(&table);
    const SchTaskTraceInfo trace = tasktest::TraceOf(NopProc);
    FailAll(Call::StrcpyS);
    SchDbgInsertTaskTrace(9, &trace);
    EXPECT_NO_LOG();
}

// A reader that has passed the flag must neither call a null slot nor tear a pointer.
TEST_F(Dbg, HooksComeAndGoBesideTheirUsers)
{
    SchDbgHookTable table{};
    table.delTaskInfo = CountDel;
    g_counted.store(0);
    std::atomic<bool> stop{false};
    const auto use = [&stop] {
        while (!stop.load()) {
            SchDbgDelTaskInfo(1);
            SchDbgAddErrStat(1, 1);
        }
    };
    {
        const Runner first(use);
        const Runner second(use);
        EXPECT_TRUE(AwaitTrue([&table] {
            for (int i = 0; i < 200; ++i) {
                SCH_RegisterDbgHookTable(&table);
                std::this_thread::yield();
                SCH_DeregisterDbgHookTable();
            }
            return g_counted.load() >= 100;
        }));
        stop.store(true);
    }
    EXPECT_FALSE(SchDbgIsInit());
}

} // namespace
