// What the scheduler asks of the memory service: the file and the line that each request names.
// This program puts its own definitions in front of that service; they note the request and pass it
// on.
#include <string>
#include <sys/epoll.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "common/xel_int.h"
#include "scheduler/xel_scheduler_inner.h"
#include "tests/support/next_symbol.h"
#include "xel_mem.h"

namespace
{

struct Request {
    std::string file;
    u32 line;
    u32 flags;
};

// One thread only.
bool g_isNoting = false;
std::vector<Request> g_allocs;
std::vector<Request> g_frees;

void Note(std::vector<Request>& list, const char* file, u32 line, u32 flags)
{
    if (g_isNoting) {
        list.push_back({file, line, flags});
    }
}

} // namespace

void* XEL_MemAllocF(size_t size, const char* file, uint32_t line, uint32_t flags)
{
    Note(g_allocs, file, line, flags);
    static const auto next = xeltest::NextSymbol<decltype(&XEL_MemAllocF)>("XEL_MemAllocF");
    return next(size, file, line, flags);
}

void XEL_MemFreeF(void* block, const char* file, uint32_t line, uint32_t flags)
{
    Note(g_frees, file, line, flags);
    static const auto next = xeltest::NextSymbol<decltype(&XEL_MemFreeF)>("XEL_MemFreeF");
    next(block, file, line, flags);
}

namespace
{

constexpr char kTaskFile[] = "scheduler/xel_sch_task";
constexpr char kSchFile[] = "scheduler/xel_scheduler";
constexpr char kBfsFile[] = "scheduler/xel_sch_policy_bfs";

u32 NopProc(struct epoll_event* /*event*/, u64 /*data*/)
{
    return 0;
}

class SchRequests : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(SchInit(), 0U);
        g_allocs.clear();
        g_frees.clear();
        g_isNoting = true;
    }
    void TearDown() override
    {
        g_isNoting = false;
        EXPECT_EQ(SchFinal(), 0U);
        for (const std::vector<Request>* list : {&g_allocs, &g_frees}) {
            for (const Request& request : *list) {
                EXPECT_NE(request.line, 0U) << request.file;
                EXPECT_EQ(request.flags, 0U) << request.file;
            }
        }
    }

    // The lines that requests of this file came from.
    static std::vector<u32> LinesOf(const std::vector<Request>& list, const std::string& file)
    {
        std::vector<u32> lines;
        for (const Request& request : list) {
            if (request.file == file) {
                lines.push_back(request.line);
            }
        }
        return lines;
    }

    // One block of the file came and went, each at a line of its own.
    static void ExpectOneBlockOf(const std::string& file)
    {
        const std::vector<u32> allocs = LinesOf(g_allocs, file);
        const std::vector<u32> frees = LinesOf(g_frees, file);
        ASSERT_EQ(allocs.size(), 1U) << file;
        ASSERT_EQ(frees.size(), 1U) << file;
        EXPECT_NE(allocs[0], frees[0]) << file;
    }
};

TEST_F(SchRequests, TaskAttributeNamesTheFileOfTheTasks)
{
    XEL_TaskDestroyAttr(XEL_TaskCreateAttr());
    ExpectOneBlockOf(kTaskFile);
}

TEST_F(SchRequests, BufferAndPolicyNameTheirFiles)
{
    const int epFd = epoll_create1(EPOLL_CLOEXEC);
    SchCtrl* sch = XEL_SchCreate(static_cast<u32>(epFd), 8);
    ASSERT_NE(sch, nullptr);
    XEL_SchDestroy(sch);
    ExpectOneBlockOf(kSchFile);
    ExpectOneBlockOf(kBfsFile);
    close(epFd);
}

TEST_F(SchRequests, BindingNamesTheFileOfTheTasks)
{
    XelTaskAttr attr = {};
    attr.magic = kTaskAttrMagic;
    attr.proc = NopProc;
    SchTaskCtrl* task = SchTaskCreate(600000, &attr);
    ASSERT_NE(task, nullptr);
    EXPECT_EQ(SchTaskAddScheduler(task, &attr), 0U);
    SchTaskRmScheduler(task, &attr);
    ExpectOneBlockOf(kTaskFile);
    XEL_TaskDestroy(task);
}

} // namespace
