// Which format each log line of both message queues is made from, to the letter: the platform's log
// groups lines by it. The log recorder measures every line with vsnprintf; this program puts a
// function of its own in front of that (--wrap) and notes the formats.
#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "service_support.h"

using namespace servicetest;

namespace
{

std::mutex g_mutex; // guards g_formats
std::vector<std::string> g_formats;

} // namespace

extern "C" int __real_vsnprintf(char* out, size_t size, const char* format, va_list arguments);
extern "C" int __wrap_vsnprintf(char* out, size_t size, const char* format, va_list arguments);

// Without a buffer it is the recorder that measures.
int __wrap_vsnprintf(char* out, size_t size, const char* format, va_list arguments)
{
    if (out == nullptr) {
        const std::lock_guard guard(g_mutex);
        g_formats.emplace_back(format);
    }
    return __real_vsnprintf(out, size, format, arguments);
}

namespace
{

class MqFormat : public ServiceMqTest
{
protected:
    void SetUp() override
    {
        ServiceMqTest::SetUp();
        worker_ = std::make_unique<Worker>();
        service_ = std::make_unique<Service>("taken", *worker_, 2);
        mq_ = QueueOf("taken");
        held_ = std::make_unique<HeldWorker>(*worker_);
        Forget();
    }
    void TearDown() override
    {
        service_->Destroy();
        held_.reset();
        service_.reset();
        worker_.reset();
        ServiceMqTest::TearDown();
    }
    // What body logs is made from these formats; lines of the event below are left out.
    static void Expect(const std::vector<std::string>& formats, const std::function<void()>& body)
    {
        Forget();
        body();
        xeltest::ResetFaults();
        std::vector<std::string> own;
        const std::vector<xeltest::LogLine> lines = xeltest::TakeLog();
        const std::lock_guard guard(g_mutex);
        ASSERT_EQ(lines.size(), g_formats.size());
        for (size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].file != xeltest::kEventSource.file) {
                own.push_back(g_formats[i]);
            }
        }
        EXPECT_EQ(own, formats);
    }
    static void Forget()
    {
        xeltest::ResetFaults();
        xeltest::DropLog();
        const std::lock_guard guard(g_mutex);
        g_formats.clear();
    }
    XelLightMq* Queue() const { return mq_->queue; }
    u32 Create() const
    {
        const XelServiceMqConfig config = ConfigOf(*worker_);
        return XEL_ServiceMqCreate("new", &config, nullptr);
    }

    std::unique_ptr<Worker> worker_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<HeldWorker> held_;
    XelServiceMq* mq_ = nullptr;
};

TEST_F(MqFormat, LightQueue)
{
    const std::string lock = "[CONN] Mutex lock unsuccessfully. (errno = %d)";
    const std::string unlock = "[CONN] Mutex unlock unsuccessfully. (errno = %d)";
    const std::function<void()> operations[] = {
        [this] { (void)XelLightMqIsEmpty(Queue()); }, [this] { (void)XelLightMqIsFull(Queue()); },
        [this] { XelLightMqClear(Queue()); }, [this] { XelLightMqNotify(Queue()); }};
    for (const auto& operation : operations) {
        Expect({lock}, [&] {
            FailLock();
            operation();
        });
        Expect({unlock}, [&] {
            FailUnlock(Queue()->mutex);
            operation();
        });
    }
    XelServiceMsg message = {};
    Expect({"[CONN] Message queue write, enque unsuccessfully. (ret = %x)"}, [&] {
        xeltest::FailNth(Call::XelFlexibleQueEnqueue, 1);
        EXPECT_EQ(XelLightMqWrite(Queue(), &message), kFail);
    });
    Expect({"[CONN] Message queue write, event notify unsuccessfully. (ret = %x)"}, [&] {
        xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
        EXPECT_EQ(XelLightMqWrite(Queue(), &message), kFail);
    });
    Expect({"[CONN] Event notify unsuccessfully. (ret = %x)"}, [&] {
        xeltest::FailNth(Call::EventfdWrite, 1, -1, EAGAIN);
        XelLightMqNotify(Queue());
    });
    Expect({"[LMQ]Mutex lock unsuccessfully. (errno = %d)"}, [&] {
        FailLock();
        (void)XelLightMqGetUsedNum(Queue());
    });
    Expect({"[LMQ] Mutex unlock unsuccessfully. (errno = %d)"}, [&] {
        FailUnlock(Queue()->mutex);
        (void)XelLightMqGetUsedNum(Queue());
    });
}

TEST_F(MqFormat, UseOfServices)
{
    Expect({"Service mq already exist. (service = %s)"}, [this] {
        const XelServiceMqConfig config = ConfigOf(*worker_);
        (void)XEL_ServiceMqCreate("taken", &config, nullptr);
    });
    Expect({"Service destination service not exist. (service = %s)"},
           [] { (void)Send("nobody", "b"); });
    Expect({"Service mq destination service not exist. (service = %s)"},
           [] { (void)XEL_ServiceMqGetMsgNum("nobody"); });
    Expect({"Service mq destination service not exist. (service = %s)"},
           [] { (void)XEL_ServiceMqGetMsgNum(std::string(40, 'x').c_str()); });
    Expect({"Service mq send unsuccessfully. (ret = %d)"}, [] {
        xeltest::FailNth(Call::StrncpyS, 1);
        (void)Send("taken", "b");
    });
    Expect({"Service mq read msg unsuccessfully. (ret = %#x)"},
           [this] { (void)ServiceMqCbWrapper(reinterpret_cast<u64>(mq_)); });
}

TEST_F(MqFormat, FailingCreations)
{
    Expect({"Service mq create unsuccessfully, no memory.",
            "Service mq create unsuccessfully. (service = %s)"},
           [this] {
               xeltest::FailNth(Call::XelMemAllocF, 1);
               (void)Create();
           });
    Expect({"Service mq create unsuccessfully, create message queue unsuccessfully.",
            "Service mq create unsuccessfully. (service = %s)"},
           [this] {
               xeltest::FailNth(Call::XelFlexibleQueCreate, 1);
               (void)Create();
           });
    Expect({"Service mq add to hash unsuccessfully. (service = %s, ret = %#x)"}, [this] {
        xeltest::FailNth(Call::XelHashDllEntryAdd, 1);
        (void)Create();
    });
    Expect({"Service mq add node unsuccessfully. (ret = %d)"}, [this] {
        xeltest::FailNth(Call::StrcpyS, 1);
        EXPECT_EQ(ServiceMqAddMqNode("new", mq_), 22U);
    });
}

TEST(MqFormatFresh, FailingTable)
{
    XELTEST_IN_FRESH_PROCESS([] {
        xeltest::FailNth(Call::XelHashDllTblCreate, 1);
        ServiceMqInit();
        EXPECT_LOG(kServiceMqMngSource, "Service mq init unsuccessfully.");
        EXPECT_EQ(g_formats, (std::vector<std::string>{"Service mq init unsuccessfully."}));
    });
}

} // namespace
