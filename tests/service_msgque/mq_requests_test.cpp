// What both message queues ask of the services below them, argument by argument: queues, the table
// of names, memory, and the order in which a queue goes. This program puts its own definitions in
// front of those services; they note the request and pass it on.
#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "event/xel_event_inner.h"
#include "msgque_light/xel_msgque_light_inner.h"
#include "service_msgque/xel_service_mq_inner.h"
#include "tests/support/next_symbol.h"
#include "xel_hash.h"
#include "xel_mem.h"
#include "xel_queue.h"

namespace
{

struct QueueRequest {
    u32 elemSize;
    u32 mode;
    u32 capacity;
    bool operator==(const QueueRequest&) const = default;
};

struct BlockRequest {
    size_t size;
    std::string file;
    u32 flags;
    bool operator==(const BlockRequest&) const = default;
};

// Requests may come from scheduler threads too.
struct Notes {
    std::mutex mutex;
    std::vector<QueueRequest> queues;
    std::vector<XelHashDllParam> tables;
    std::vector<BlockRequest> blocks;
    std::vector<std::string> ends; // in order: "queue", "block <file>"
};
Notes g_notes;
thread_local bool t_isNoting = false;

template <typename List, typename Value>
void Note(List& list, Value&& value)
{
    if (t_isNoting) {
        const std::lock_guard guard(g_notes.mutex);
        list.push_back(std::forward<Value>(value));
    }
}

// What a given-back block leaves in the notes.
std::string BlockNote(const char* file)
{
    std::string note = "block ";
    note += file;
    return note;
}

// Notes what this thread asks for during one call.
template <typename Body>
auto Noting(Body&& body)
{
    g_notes.queues.clear();
    g_notes.tables.clear();
    g_notes.blocks.clear();
    g_notes.ends.clear();
    t_isNoting = true;
    struct End {
        ~End() { t_isNoting = false; }
    } end;
    return body();
}

} // namespace

void* XelFlexibleQueCreate(uint32_t elemSize, uint32_t mode, uint32_t capacity)
{
    Note(g_notes.queues, QueueRequest{elemSize, mode, capacity});
    static const auto next =
        xeltest::NextSymbol<decltype(&XelFlexibleQueCreate)>("XelFlexibleQueCreate");
    return next(elemSize, mode, capacity);
}

void XelFlexibleQueDestroy(void* queue)
{
    Note(g_notes.ends, "queue");
    static const auto next =
        xeltest::NextSymbol<decltype(&XelFlexibleQueDestroy)>("XelFlexibleQueDestroy");
    next(queue);
}

void* XelHashDllTblCreate(const XelHashDllParam* params)
{
    Note(g_notes.tables, *params);
    static const auto next =
        xeltest::NextSymbol<decltype(&XelHashDllTblCreate)>("XelHashDllTblCreate");
    return next(params);
}

void* XEL_MemAllocF(size_t size, const char* file, uint32_t line, uint32_t flags)
{
    EXPECT_NE(line, 0U);
    Note(g_notes.blocks, BlockRequest{size, file, flags});
    static const auto next = xeltest::NextSymbol<decltype(&XEL_MemAllocF)>("XEL_MemAllocF");
    return next(size, file, line, flags);
}

void XEL_MemFreeF(void* block, const char* file, uint32_t line, uint32_t flags)
{
    EXPECT_NE(line, 0U);
    EXPECT_EQ(flags, 0U);
    Note(g_notes.ends, BlockNote(file));
    static const auto next = xeltest::NextSymbol<decltype(&XEL_MemFreeF)>("XEL_MemFreeF");
    next(block, file, line, flags);
}

namespace
{

constexpr char kLightFile[] = "msgque_light/xel_msgque_light";
constexpr char kServiceFile[] = "service_msgque/xel_service_mq";
constexpr char kMngFile[] = "service_msgque/xel_service_mq_mng";

class MqRequests : public ::testing::Test
{
protected:
    void SetUp() override
    {
        XelThreadAttr* attr = XEL_ThreadCreateAttr();
        EXPECT_EQ(XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, "requests", 8), 0U);
        thread_ = XEL_ThreadCreate(attr);
        XEL_ThreadDestroyAttr(attr);
        ASSERT_NE(thread_, nullptr);
        ServiceMqInit();
    }
    void TearDown() override { EXPECT_EQ(SchEventThreadDestory(thread_), 0U); }

    XelLightMqConfig Light() const
    {
        XelLightMqConfig config = {};
        config.capacity = 7;
        config.elemSize = 13;
        config.callback = [](u64) { return 0U; };
        return config;
    }
    XelServiceMqConfig Service() const
    {
        return {9, thread_, [](XelServiceMsg*, void*) {}, nullptr};
    }
    static size_t BlocksOf(const char* file)
    {
        size_t count = 0;
        for (const BlockRequest& block : g_notes.blocks) {
            EXPECT_EQ(block.flags, 0U);
            count += block.file == file ? 1 : 0;
        }
        return count;
    }

    XelThreadCtrl* thread_ = nullptr;
};

TEST_F(MqRequests, LightQueueAsksForSizeModeAndCapacity)
{
    const XelLightMqConfig config = Light();
    XelLightMq* queue = Noting([&] { return XelLightMqCreate(thread_, &config); });
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(g_notes.queues, (std::vector<QueueRequest>{{13, 8, 7}}));
    ASSERT_FALSE(g_notes.blocks.empty());
    EXPECT_EQ(g_notes.blocks.front(), (BlockRequest{sizeof(XelLightMq), kLightFile, 0}));
    EXPECT_EQ(BlocksOf(kLightFile), 1U);
    XelLightMqDestroy(queue);
}

// The callback must not find a queue that is gone.
TEST_F(MqRequests, EventGoesBeforeTheQueueAndTheRecordLast)
{
    const XelLightMqConfig config = Light();
    XelLightMq* queue = XelLightMqCreate(thread_, &config);
    ASSERT_NE(queue, nullptr);
    Noting([&] { XelLightMqDestroy(queue); });
    const std::vector<std::string>& ends = g_notes.ends;
    ASSERT_GE(ends.size(), 3U);
    EXPECT_EQ(std::vector<std::string>(ends.end() - 3, ends.end()),
              (std::vector<std::string>{"block event/xel_event", "queue", BlockNote(kLightFile)}));
}

TEST_F(MqRequests, ServiceAsksForAQueueOfMessages)
{
    const XelServiceMqConfig config = Service();
    EXPECT_EQ(Noting([&] { return XEL_ServiceMqCreate("requests", &config, nullptr); }), 0U);
    EXPECT_EQ(g_notes.queues, (std::vector<QueueRequest>{{sizeof(XelServiceMsg), 8, 9}}));
    ASSERT_FALSE(g_notes.blocks.empty());
    EXPECT_EQ(g_notes.blocks.front(), (BlockRequest{sizeof(XelServiceMq), kServiceFile, 0}));
    EXPECT_EQ(BlocksOf(kServiceFile), 1U);
    EXPECT_EQ(BlocksOf(kMngFile), 3U); // the entry, and the table's node and key
    XEL_ServiceMqDestroy("requests");
}

// A send asks for the body and for nothing else.
TEST_F(MqRequests, SendAsksForTheBodyOnly)
{
    static std::atomic<u32> runs;
    runs = 0;
    XelServiceMqConfig config = Service();
    config.callback = [](XelServiceMsg*, void*) { ++runs; };
    ASSERT_EQ(XEL_ServiceMqCreate("requests", &config, nullptr), 0U);
    char body[4096] = {};
    for (const u32 len : {1U, 64U, 4096U}) {
        XelServiceMsg message = {"requests", 0, body, len};
        EXPECT_EQ(Noting([&] { return XEL_ServiceMqSendMsg("requests", &message); }), 0U);
        EXPECT_EQ(g_notes.blocks, (std::vector<BlockRequest>{{len, kServiceFile, 0}}));
    }
    // After its consumer a message is not looked for in the queue any more.
    for (int i = 0; runs != 3 && i < 20000; ++i) {
        usleep(1000);
    }
    EXPECT_EQ(runs, 3U);
    XEL_ServiceMqDestroy("requests");
}

TEST_F(MqRequests, TableIsDescribedInSixEntries)
{
    void* table = Noting([] { return ServiceMqInitHashTbl(); });
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(g_notes.tables.size(), 1U);
    const XelHashDllParam& params = g_notes.tables.front();
    EXPECT_EQ(params.bucketCount, 32U);
    EXPECT_EQ(params.hash, ServiceMqStrHashCal);
    EXPECT_EQ(params.match, ServiceMqHashMatch);
    EXPECT_EQ(params.alloc, ServiceMqMemAlloc);
    EXPECT_EQ(params.release, ServiceMqMemFree);
    EXPECT_EQ(params.release2, ServiceMqMemFree);
    EXPECT_EQ(BlocksOf(kMngFile), 1U);
    XelHashDllTblDestroy(table);
}

TEST_F(MqRequests, RegistryWrapsTheAllocatorWithItsOwnFile)
{
    void* block = Noting([] { return ServiceMqMemAlloc(123); });
    EXPECT_EQ(g_notes.blocks, (std::vector<BlockRequest>{{123, kMngFile, 0}}));
    Noting([&] { ServiceMqMemFree(block); });
    EXPECT_EQ(g_notes.ends, (std::vector<std::string>{BlockNote(kMngFile)}));
    Noting([] { ServiceMqMemFree(nullptr); });
    EXPECT_TRUE(g_notes.ends.empty());
}

} // namespace
