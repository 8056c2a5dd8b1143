// Which format each log line of both message queues is made from, to the letter.
#include <cerrno>

#include "service_support.h"
#include "support/format_notes.h"

namespace
{

using namespace servicetest;

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
        EXPECT_EQ(xeltest::FormatsOf({kLightMqSource, kServiceMqSource, kServiceMqMngSource}, body),
                  formats);
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
        EXPECT_EQ(xeltest::TakeFormats(),
                  (std::vector<std::string>{"Service mq init unsuccessfully."}));
    });
}

} // namespace
