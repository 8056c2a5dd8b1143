// Symbol names for log lines, and the monitor of slow runs that prints them.
#include <cstring>
#include <string>

#include "scheduler/xel_sch_dbg_inner.h"
#include "task_support.h"

using namespace xeltest;

// Symbols that the C library can name, since the program exports them.
extern "C" __attribute__((visibility("default"))) u32 abcdef(struct epoll_event*, u64)
{
    return 0;
}
extern "C" __attribute__((visibility("default"))) u32
a_function_with_a_name_of_more_than_thirty_one_characters(struct epoll_event*, u64)
{
    return 0;
}

namespace
{

constexpr u32 kFailed = 0xFFFFFFFFU;

// What lies below the caller's frame holds no 0 afterwards, so that the frame of its next call does
// not begin cleared by luck.
__attribute__((noinline)) void DirtyStack()
{
    volatile char bytes[4096];
    for (volatile char& byte : bytes) {
        byte = 'x';
    }
}

class DbgName : public CleanProcess
{
};

std::string Deal(const char* symbol, size_t size = 32)
{
    char buf[64];
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(SchFuncNameDeal(buf, size, symbol), 0U);
    EXPECT_EQ(buf[size], '#') << "written behind the size";
    return buf;
}

TEST_F(DbgName, NameEndsAtPlusOrParenthesisAndIsAltered)
{
    EXPECT_EQ(Deal("lib.so(abcdef+0x10) [0x1]"), "acceeg");
    EXPECT_EQ(Deal("lib.so(abcdef) [0x1]"), "acceeg");
    EXPECT_EQ(Deal("lib.so(a+0x10)"), "a");
    EXPECT_EQ(Deal("lib.so(+0x10) [0x1]"), "") << "a symbol without a name";
    EXPECT_EQ(Deal("lib.so() [0x1]"), "");
    EXPECT_EQ(Deal("a(bb(cc+0x1)"), "bc(dc") << "the first parenthesis opens";
}

TEST_F(DbgName, NameIsCutAtTheSize)
{
    EXPECT_EQ(Deal("(aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa+1)"),
              "abababababababababababababababa");
    EXPECT_EQ(Deal("(abcdef+0x10)", 2), "a");
    EXPECT_EQ(Deal("(abcdef+0x10)", 4), "acc");
    EXPECT_EQ(Deal("(abcdef+0x10)", 7), "acceeg");
}

TEST_F(DbgName, NulWithinTheNameDoesNotEndIt)
{
    const char symbol[] = "lib.so(ab\0\0d+0x10)";
    char buf[32];
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(SchFuncNameDeal(buf, sizeof(buf), symbol), 0U);
    EXPECT_EQ(std::string(buf, 7), std::string("ac\0\1d\0#", 7));
}

TEST_F(DbgName, SymbolWithoutParenthesisLeavesTheBuffer)
{
    char buf[8] = "before";
    EXPECT_EQ(SchFuncNameDeal(buf, sizeof(buf), "[0x7f00]"), kFailed);
    EXPECT_EQ(SchFuncNameDeal(buf, sizeof(buf), ""), kFailed);
    EXPECT_STREQ(buf, "before");
    EXPECT_NO_LOG();
}

TEST_F(DbgName, FunctionIsNamedByItsAlteredSymbol)
{
    char buf[32] = "before";
    EXPECT_EQ(DbgGetFuncName(reinterpret_cast<const void*>(abcdef), buf, sizeof(buf)), 0U);
    EXPECT_STREQ(buf, "acceeg");
    EXPECT_EQ(DbgGetFuncName(reinterpret_cast<const void*>(
                                 a_function_with_a_name_of_more_than_thirty_one_characters),
                             buf, sizeof(buf)),
              0U);
    EXPECT_STREQ(buf, "a`fvndtjoo_xiuh`a`nbmf_pf`mprf_");
}

TEST_F(DbgName, NullFunctionHasAnEmptyName)
{
    char buf[32] = "before";
    EXPECT_EQ(DbgGetFuncName(nullptr, buf, sizeof(buf)), 0U);
    EXPECT_STREQ(buf, "");
    EXPECT_EQ(Calls(Call::BacktraceSymbols), 0U);
}

TEST_F(DbgName, UnknownSymbolsHaveAnEmptyNameAndFail)
{
    char buf[32] = "before";
    FailNth(Call::BacktraceSymbols, 1);
    EXPECT_EQ(DbgGetFuncName(reinterpret_cast<const void*>(abcdef), buf, sizeof(buf)), kFailed);
    EXPECT_STREQ(buf, "");
    EXPECT_NO_LOG();
}

TEST_F(DbgName, AddressOutsideEveryModuleFails)
{
    char buf[32] = "before";
    EXPECT_EQ(DbgGetFuncName(reinterpret_cast<const void*>(uintptr_t{8}), buf, sizeof(buf)),
              kFailed);
    EXPECT_STREQ(buf, "before");
}

class Monitor : public CleanProcess
{
};

TEST_F(Monitor, ShortRunPrintsNothing)
{
    SchTaskTraceInfo trace = tasktest::TraceOf(abcdef);
    for (const u64 procTime : {u64{0}, u64{399999}}) {
        trace.procTime = procTime;
        SchCheckTaskException(9, &trace);
        EXPECT_NO_LOG();
    }
}

TEST_F(Monitor, LongRunPrintsTimeoutAndDetail)
{
    SchTaskTraceInfo trace = tasktest::TraceOf(abcdef);
    trace.procTime = 400000;
    SchCheckTaskException(9, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = 9)"),
               Detail("fd:12, procFunc:acceeg, name:tracedtask, type:1, prio:2, insertTime:4, "
                      "startTime:5,endTime:6, procTime:400000, eventLeft:3"));
}

TEST_F(Monitor, TimesAreUnsigned)
{
    SchTaskTraceInfo trace = tasktest::TraceOf(abcdef);
    trace.procFunc = nullptr;
    trace.procTime = UINT64_MAX;
    SchCheckTaskException(0xFFFFFFFF, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = -1)"));
}

TEST_F(Monitor, DetailPrintsWholeNumbers)
{
    SchTaskTraceInfo trace = tasktest::TraceOf(abcdef);
    trace.fd = -5;
    trace.type = 0xFFFFFFFF;
    trace.prio = 0xFFFFFFFE;
    trace.eventLeft = 0xFFFFFFFD;
    trace.insertTime = UINT64_MAX;
    trace.startTime = UINT64_MAX - 1;
    trace.endTime = UINT64_MAX - 2;
    trace.procTime = UINT64_MAX - 3;
    SchCheckTaskException(1, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = 1)"),
               Detail("fd:-5, procFunc:acceeg, name:tracedtask, type:4294967295, prio:4294967294, "
                      "insertTime:18446744073709551615, startTime:18446744073709551614,"
                      "endTime:18446744073709551613, procTime:18446744073709551612, "
                      "eventLeft:4294967293"));
}

TEST_F(Monitor, RunWithoutCallbackPrintsTheTimeoutOnly)
{
    SchTaskTraceInfo trace = tasktest::TraceOf(abcdef);
    trace.procFunc = nullptr;
    trace.procTime = 400000;
    SchCheckTaskException(9, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = 9)"));
}

TEST_F(Monitor, NameIsCutAtThirtyOneCharacters)
{
    SchTaskTraceInfo trace =
        tasktest::TraceOf(a_function_with_a_name_of_more_than_thirty_one_characters);
    trace.procTime = 400000;
    SchCheckTaskException(9, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = 9)"),
               Detail("fd:12, procFunc:a`fvndtjoo_xiuh`a`nbmf_pf`mprf_, name:tracedtask, type:1, "
                      "prio:2, insertTime:4, startTime:5,endTime:6, procTime:400000, eventLeft:3"));
}

// An address outside every module leaves the buffer of the name as it is.
TEST_F(Monitor, FailedNameIsPrintedEmpty)
{
    SchTaskTraceInfo trace = tasktest::TraceOf(abcdef);
    trace.procTime = 400000;
    const ExpectedLine detail =
        Detail("fd:12, procFunc:, name:tracedtask, type:1, prio:2, insertTime:4, "
               "startTime:5,endTime:6, procTime:400000, eventLeft:3");
    FailNth(Call::BacktraceSymbols, 1);
    SchCheckTaskException(9, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = 9)"), detail);
    const uintptr_t nowhere = 8;
    memcpy(&trace.procFunc, &nowhere, sizeof(nowhere));
    DirtyStack();
    SchCheckTaskException(9, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = 9)"), detail);
}

TEST_F(Monitor, WorksWithHooksRegistered)
{
    const SchDbgHookTable nothing{};
    SCH_RegisterDbgHookTable(&nothing);
    SchTaskTraceInfo trace = tasktest::TraceOf(abcdef);
    trace.procFunc = nullptr;
    trace.procTime = 400000;
    SchCheckTaskException(9, &trace);
    EXPECT_LOG(kMonitorSource, Warning("Proc time timeout. (epFd = 9)"));
    SCH_DeregisterDbgHookTable();
}

} // namespace
