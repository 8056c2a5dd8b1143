// Creation of schedulers, the registry, the handle checks and the lookups.
#include <gtest/gtest.h>

#include "sch_dispatch_support.h"
#include "xel_mem.h"

namespace
{

using namespace schtest;
using xeltest::Call;

static_assert(sizeof(SchCtrl) == 136);
static_assert(offsetof(SchCtrl, magic) == 0);
static_assert(offsetof(SchCtrl, dispatchLock) == 4);
static_assert(offsetof(SchCtrl, lock) == 8);
static_assert(offsetof(SchCtrl, epFd) == 16);
static_assert(offsetof(SchCtrl, epSize) == 20);
static_assert(offsetof(SchCtrl, waitTimeout) == 24);
static_assert(offsetof(SchCtrl, state) == 28);
static_assert(offsetof(SchCtrl, eventBuf) == 32);
static_assert(offsetof(SchCtrl, policy) == 40);
static_assert(offsetof(SchCtrl, policyOps) == 48);
static_assert(offsetof(SchCtrl, epollOps) == 104);
static_assert(offsetof(SchRunCtrl, lock) == 0);
static_assert(offsetof(SchRunCtrl, table) == sizeof(pthread_rwlock_t));
static_assert(offsetof(SchRunCtrl, created) == sizeof(pthread_rwlock_t) + 8);
static_assert(offsetof(SchRunCtrl, inited) == sizeof(pthread_rwlock_t) + 16);
static_assert(offsetof(SchPolicyOps, create) == 0);
static_assert(offsetof(SchPolicyOps, destroy) == 8);
static_assert(offsetof(SchPolicyOps, prepare) == 16);
static_assert(offsetof(SchPolicyOps, insert) == 24);
static_assert(offsetof(SchPolicyOps, select) == 32);
static_assert(offsetof(SchPolicyOps, getEventCache) == 40);
static_assert(offsetof(SchPolicyOps, getEventLeft) == 48);
static_assert(offsetof(SchEpollOps, wait) == 0);
static_assert(offsetof(SchEpollOps, ctl) == 8);
static_assert(offsetof(SchEpollOps, getErrNo) == 16);
static_assert(offsetof(SchEpollOps, reserved) == 24);
static_assert(sizeof(SchEpollOps) == 32);

TEST(Version, TextsAreFixed)
{
    EXPECT_STREQ(g_xelSchOuterVer, "1.0");
    EXPECT_STREQ(g_xelSchInterSubVer, "B137");
    EXPECT_STREQ(g_xelSchMiniVer, "2.2.0");
}

constexpr const char* kBadArgument = "Sch create unsuccessfully, invalid epFd or epoll size.";

std::string CreateFailed(int epFd, int size)
{
    return Text("Sch create unsuccessfully, create ts handle unsuccessfully, epFd = %d, "
                "epSize = %d.",
                epFd, size);
}

class SchRegistry : public SchTest
{
protected:
    void SetUp() override
    {
        SchTest::SetUp();
        FakePolicy::Reset();
        FakePolicy::noting = false;
    }

    // A creation that must fail, leave nothing behind and say just this.
    void ExpectFailure(const SchPolicyOps* policy, const Lines& lines, u64 createdBy)
    {
        const SchEpollOps ops = LinuxOps();
        const Footprint before = Measure();
        const u64 created = g_xelSchRunCtrl.created;
        EXPECT_EQ(SCH_CreateSch(epoll.Get(), 24, &ops, policy), nullptr);
        EXPECT_EQ(TakeLines(), lines);
        EXPECT_EQ(Measure(), before);
        EXPECT_EQ(g_xelSchRunCtrl.created, created + createdBy);
        EXPECT_TRUE(RegistryIsFree());
        xeltest::ResetFaults();
        SchCtrl* sch = SCH_CreateSch(epoll.Get(), 24, &ops, policy);
        ASSERT_NE(sch, nullptr) << "the next one succeeds";
        XEL_SchDestroy(sch);
        EXPECT_LINES();
    }

    Fd epoll = Fd::Epoll();
};

TEST_F(SchRegistry, BadDescriptorsAndSizesAreRefused)
{
    const SchEpollOps ops = LinuxOps();
    const std::pair<i32, i32> cases[] = {
        {-1, 8},    {epoll.Get(), 0}, {epoll.Get(), -1},       {-1, 0},
        {-1, 4097}, {INT32_MIN, 8},   {epoll.Get(), INT32_MIN}};
    for (const auto& [epFd, size] : cases) {
        EXPECT_EQ(SCH_CreateSch(epFd, size, &ops, nullptr), nullptr);
        EXPECT_LINES(SchLine(kBadArgument));
        EXPECT_EQ(XEL_SchCreate(static_cast<u32>(epFd), static_cast<u32>(size)), nullptr);
        EXPECT_LINES(SchLine(kBadArgument));
    }
}

TEST_F(SchRegistry, SizeIsAtMost4096)
{
    const SchEpollOps ops = LinuxOps();
    for (const i32 size : {4097, INT32_MAX}) {
        EXPECT_EQ(SCH_CreateSch(epoll.Get(), size, &ops, nullptr), nullptr);
        EXPECT_LINES(SchLine(
            Text("Sch create unsuccessfully, epoll size is too large. (epoll size = %d)", size)));
    }
    for (const u32 size : {1U, 4096U}) {
        SchCtrl* sch = XEL_SchCreate(epoll.U32(), size);
        ASSERT_NE(sch, nullptr);
        EXPECT_EQ(sch->epSize, size);
        XEL_SchDestroy(sch);
    }
}

// Leaves blocks of this size on the heap that are not zero.
void DirtyHeap(size_t size)
{
    std::vector<void*> blocks(8);
    for (void*& block : blocks) {
        block = XEL_MemAllocF(size, "dirty", 1, 0);
        memset(block, 0xEE, size);
    }
    for (void* block : blocks) {
        XEL_MemFreeF(block, "dirty", 2, 0);
    }
}

TEST_F(SchRegistry, NewSchedulerIsAliveUnlockedAndMayBlock)
{
    DirtyHeap(24 * sizeof(struct epoll_event));
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 24);
    ASSERT_NE(sch, nullptr);
    EXPECT_EQ(sch->magic.load(), 0xFBADBEEFU);
    EXPECT_EQ(sch->state.load(), 3U);
    EXPECT_EQ(sch->waitTimeout, -1);
    EXPECT_EQ(sch->epFd, epoll.Get());
    EXPECT_EQ(sch->epSize, 24U);
    EXPECT_EQ(sch->dispatchLock.word, 0U);
    EXPECT_EQ(sch->lock.count, 0U);
    EXPECT_EQ(sch->lock.gate, 0xFFFFFFFFU);
    const std::string buffer(reinterpret_cast<const char*>(sch->eventBuf),
                             24 * sizeof(struct epoll_event));
    EXPECT_EQ(buffer, std::string(buffer.size(), '\0'));
    EXPECT_EQ(memcmp(&sch->policyOps, &g_schBfsPolicyOps, sizeof(SchPolicyOps)), 0);
    EXPECT_NE(sch->policy, nullptr);
    EXPECT_EQ(sch->epollOps.ctl, SchLinuxEpollCtlAdapt);
    EXPECT_EQ(sch->epollOps.getErrNo, SchLinuxEpollGetErrNoAdapt);
    EXPECT_EQ(sch->epollOps.reserved, nullptr);
    XEL_SchDestroy(sch);
}

TEST_F(SchRegistry, WithoutPolicyAllSlotsAreNull)
{
    TestSch sch(Policy::None);
    const SchPolicyOps none = {};
    EXPECT_EQ(memcmp(&sch->policyOps, &none, sizeof(none)), 0);
    EXPECT_EQ(sch->policy, nullptr);
}

TEST_F(SchRegistry, TablesAreCopied)
{
    EpollProbe probe;
    SchEpollOps ops = probe.Ops();
    ops.reserved = &ops;
    SchPolicyOps policy = FakePolicy::Ops();
    TestSch sch(ops, &policy);
    const SchEpollOps opsBefore = ops;
    const SchPolicyOps policyBefore = policy;
    ops = {};
    policy = {};
    EXPECT_EQ(memcmp(&sch->epollOps, &opsBefore, sizeof(opsBefore)), 0);
    EXPECT_EQ(memcmp(&sch->policyOps, &policyBefore, sizeof(policyBefore)), 0);
}

TEST_F(SchRegistry, OneSchedulerPerDescriptor)
{
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
    ASSERT_NE(sch, nullptr);
    EXPECT_EQ(XEL_SchCreate(epoll.U32(), 8), nullptr);
    EXPECT_LINES(
        SchLine(Text("Sch epoll fd has already create scheduler. (epFd = %d)", epoll.Get())));
    XEL_SchDestroy(sch);
    sch = XEL_SchCreate(epoll.U32(), 8);
    EXPECT_NE(sch, nullptr);
    XEL_SchDestroy(sch);
}

TEST_F(SchRegistry, CreatedIsOnlyCountedUp)
{
    const u64 before = g_xelSchRunCtrl.created;
    for (u64 i = 1; i <= 3; ++i) {
        TestSch sch;
        EXPECT_EQ(g_xelSchRunCtrl.created, before + i);
    }
    EXPECT_EQ(g_xelSchRunCtrl.created, before + 3);
}

TEST_F(SchRegistry, ManySchedulersLiveTogether)
{
    std::vector<std::unique_ptr<TestSch>> all;
    for (int i = 0; i < 70; ++i) {
        all.push_back(std::make_unique<TestSch>(Policy::Bfs, 1));
    }
    for (const auto& sch : all) {
        EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(sch->EpFd())), sch->Get());
    }
}

TEST_F(SchRegistry, FailedEventBufferIsUndone)
{
    xeltest::FailNth(Call::XelMemAllocF, 1);
    ExpectFailure(&g_schBfsPolicyOps,
                  {SchLine(Text("Sch param init, malloc event buffer unsuccessfully. (size = %zu)",
                                24 * sizeof(struct epoll_event))),
                   SchLine(CreateFailed(epoll.Get(), 24))},
                  1);
}

TEST_F(SchRegistry, FailedPolicyIsUndone)
{
    const SchPolicyOps ops = FakePolicy::Ops();
    FakePolicy::createFails = true;
    const SchEpollOps linuxOps = LinuxOps();
    const Footprint before = Measure();
    EXPECT_EQ(SCH_CreateSch(epoll.Get(), 24, &linuxOps, &ops), nullptr);
    EXPECT_LINES(SchLine("Sch policy init, create scheudle policy unsuccessfully, "
                         "epoll size = 24."),
                 SchLine(CreateFailed(epoll.Get(), 24)));
    EXPECT_EQ(Measure(), before);
    EXPECT_TRUE(RegistryIsFree());
    EXPECT_EQ(SchGetSchHandleByEpFd(epoll.U32()), nullptr);
    EXPECT_LINES();
}

TEST_F(SchRegistry, EachFailingPartOfTheBfsPolicyIsUndone)
{
    const Line policy =
        SchLine("Sch policy init, create scheudle policy unsuccessfully, epoll size = 24.");
    const Line create = SchLine(CreateFailed(epoll.Get(), 24));
    xeltest::FailNth(Call::XelMemAllocF, 2);
    ExpectFailure(&g_schBfsPolicyOps, {policy, create}, 1);
    xeltest::FailNth(Call::XelQueCreate, 1);
    ExpectFailure(&g_schBfsPolicyOps,
                  {BfsLine("Ctrl create, create queue unsuccessfully, unit = 16, size = 24."),
                   policy, create},
                  1);
    xeltest::FailNth(Call::FmmCtrlCreate, 1);
    ExpectFailure(&g_schBfsPolicyOps,
                  {BfsLine("Bfs create dll unsuccessfully, size = 24, flag = 1."), policy, create},
                  1);
    xeltest::FailNth(Call::FmmCtrlCreate, 2);
    ExpectFailure(&g_schBfsPolicyOps,
                  {BfsLine("Bfs create data unsuccessfully, size = 32, flag = 1."), policy, create},
                  1);
}

TEST_F(SchRegistry, FailedRecordIsUndone)
{
    for (const u32 nth : {1U, 2U}) {
        xeltest::FailNth(Call::FmmUnitAlloc, nth);
        ExpectFailure(&g_schBfsPolicyOps,
                      {SchLine("Sch ctrl create, malloc control unsuccessfully."),
                       SchLine(CreateFailed(epoll.Get(), 24))},
                      0);
    }
}

TEST_F(SchRegistry, NegativeResultOfTheWriteLockFailsTheCreation)
{
    xeltest::FailNth(Call::PthreadRwlockWrlock, 1, -35);
    ExpectFailure(nullptr,
                  {SchLine("Sch ctrl create, write lock unsuccessfully. (ret = -35)"),
                   SchLine(CreateFailed(epoll.Get(), 24))},
                  0);
}

// Error numbers of the lock calls are positive, and pass.
TEST_F(SchRegistry, PositiveResultOfTheWriteLockPasses)
{
    const SchEpollOps ops = LinuxOps();
    xeltest::FailNth(Call::PthreadRwlockWrlock, 1, EDEADLK);
    SchCtrl* sch = SCH_CreateSch(epoll.Get(), 8, &ops, nullptr);
    ASSERT_NE(sch, nullptr);
    EXPECT_LINES();
    xeltest::ResetFaults();
    XEL_SchDestroy(sch);
}

// A lookup that cannot take the lock finds nothing, and creation goes on.
TEST_F(SchRegistry, NegativeResultOfTheReadLockFindsNothing)
{
    xeltest::FailNth(Call::PthreadRwlockRdlock, 1, -11);
    SchCtrl* sch = XEL_SchCreate(epoll.U32(), 8);
    ASSERT_NE(sch, nullptr);
    const Line line =
        SchLine("Sch get task handle unsuccessfully, read lock unsuccessfully. (ret = -11)");
    EXPECT_LINES(line);
    xeltest::ResetFaults();
    xeltest::FailNth(Call::PthreadRwlockRdlock, 1, -11);
    EXPECT_EQ(SchGetSchHandleByEpFd(epoll.U32()), nullptr);
    EXPECT_LINES(line);
    xeltest::ResetFaults();
    XEL_SchDestroy(sch);
}

TEST_F(SchRegistry, MissingTableIsLogged)
{
    const SchEpollOps ops = LinuxOps();
    FtCtrl* table = std::exchange(g_xelSchRunCtrl.table, nullptr);
    EXPECT_EQ(SchCtrlCreate(epoll.U32(), 8, &ops, nullptr), nullptr);
    EXPECT_LINES(SchLine("Sch ctrl create, scheduler table handle is null."));
    g_xelSchRunCtrl.table = table;
    EXPECT_TRUE(RegistryIsFree());
}

TEST_F(SchRegistry, LookupFindsTheSchedulerOfADescriptor)
{
    TestSch a;
    TestSch b;
    EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(a.EpFd())), a.Get());
    EXPECT_EQ(SchGetSchHandleByEpFd(static_cast<u32>(b.EpFd())), b.Get());
    EXPECT_EQ(SchGetSchHandleByEpFd(epoll.U32()), nullptr);
    EXPECT_EQ(SchGetSchHandleByEpFd(0xFFFFFFFF), nullptr);
    EXPECT_LINES();
}

TEST_F(SchRegistry, LookupLogsADamagedRecord)
{
    TestSch sch;
    const u32 epFd = static_cast<u32>(sch.EpFd());
    EXPECT_TRUE(SchMatchSchHandleWithEpFd(sch.Get(), &epFd));
    sch->magic.store(1);
    const Line line = SchLine("Sch get task handle unsuccessfully, magic error.");
    EXPECT_FALSE(SchMatchSchHandleWithEpFd(sch.Get(), &epFd));
    EXPECT_LINES(line);
    EXPECT_EQ(SchGetSchHandleByEpFd(epFd), nullptr);
    EXPECT_LINES(line);
    sch->magic.store(0xFBADBEEF);
    const u32 other = epFd + 1;
    EXPECT_FALSE(SchMatchSchHandleWithEpFd(sch.Get(), &other));
    EXPECT_EQ(sch->lock.count, 0U);
}

TEST_F(SchRegistry, LookupComparesTheDescriptorUnderTheLock)
{
    TestSch sch;
    const u32 epFd = static_cast<u32>(sch.EpFd());
    XelRwlockWriteLock(&sch->lock);
    const u64 yields = xeltest::Calls(Call::SchedYield);
    Runner reader([epFd] { EXPECT_EQ(SchGetSchHandleByEpFd(epFd), nullptr); });
    EXPECT_TRUE(
        AwaitTrue([&] { return xeltest::Calls(Call::SchedYield) > yields || reader.HasEnded(); }));
    sch->epFd.store(-1);
    XelRwlockWriteUnLock(&sch->lock);
    reader.Join();
    sch->epFd.store(sch.EpFd());
}

TEST_F(SchRegistry, HandleCheckNamesTheFault)
{
    TestSch sch;
    EXPECT_TRUE(SchSchedulerHandleIsValid(sch.Get()));
    EXPECT_FALSE(SchSchedulerHandleIsValid(nullptr));
    EXPECT_LINES(SchLine("sch handle null."));
    sch->magic.store(0xABC);
    EXPECT_FALSE(SchSchedulerHandleIsValid(sch.Get()));
    EXPECT_LINES(SchLine("sch handle magic destroy, magic = 0xabc."));
    sch->magic.store(0xFBADBEEF);
    sch->state.store(0);
    EXPECT_TRUE(SchSchedulerHandleIsValid(sch.Get())) << "the alive bit is not looked at";
    sch->state.store(3);
}

TEST_F(SchRegistry, DescriptorOfAHandle)
{
    TestSch sch;
    EXPECT_EQ(SchGetEpollFdBySchHandle(sch.Get()), static_cast<u32>(sch.EpFd()));
    EXPECT_EQ(SchGetEpollFdBySchHandle(nullptr), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("sch handle null."),
                 SchLine("Sch get epoll fd unsuccessfully, schHandle invalid."));
    XelRwlockWriteLock(&sch->lock);
    EXPECT_EQ(SchGetEpollFdBySchHandle(sch.Get()), static_cast<u32>(sch.EpFd())) << "no lock";
    XelRwlockWriteUnLock(&sch->lock);
}

TEST_F(SchRegistry, PolicyOfAHandle)
{
    TestSch bfs;
    TestSch none(Policy::None);
    void* policy = nullptr;
    EXPECT_EQ(SchGetPolicyHandleBySchHandle(bfs.Get(), &policy), 0U);
    EXPECT_EQ(policy, bfs->policy);
    EXPECT_EQ(SchGetPolicyHandleBySchHandle(none.Get(), &policy), 0U);
    EXPECT_EQ(policy, nullptr);
    policy = &policy;
    EXPECT_EQ(SchGetPolicyHandleBySchHandle(nullptr, &policy), 0xFFFFFFFFU);
    EXPECT_LINES(SchLine("sch handle null."),
                 SchLine("Sch get epoll fd unsuccessfully, schHandle invalid."));
    EXPECT_EQ(policy, &policy);
}

TEST_F(SchRegistry, PolicyOfAHandleWaitsForAWriter)
{
    TestSch bfs;
    XelRwlockWriteLock(&bfs->lock);
    Runner reader([&] {
        void* policy = nullptr;
        EXPECT_EQ(SchGetPolicyHandleBySchHandle(bfs.Get(), &policy), 0U);
        EXPECT_EQ(policy, bfs->policy);
    });
    EXPECT_FALSE(reader.AwaitEnd(50));
    XelRwlockWriteUnLock(&bfs->lock);
    EXPECT_TRUE(reader.AwaitEnd());
}

TEST_F(SchRegistry, CreationStepsAnswerOneByOne)
{
    SchCtrl record;
    memset(static_cast<void*>(&record), 0, sizeof(record));
    const SchEpollOps ops = LinuxOps();
    const SchPolicyOps policy = FakePolicy::Ops();
    FakePolicy::createFails = true;
    EXPECT_EQ(SchCtrlPolicyInit(&record, &policy, 9), 0xFFFFFFFFU);
    EXPECT_EQ(SchCtrlParamConstruct(&record, 3, 9, &ops, &policy), 0xFFFFFFFFU);
    const Line line =
        SchLine("Sch policy init, create scheudle policy unsuccessfully, epoll size = 9.");
    EXPECT_LINES(line, line);
    EXPECT_EQ(record.magic.load(), 0U);
    struct epoll_event buffer[2];
    record.state.store(0x10);
    SchCtrlInitParam(&record, 3, 2, buffer);
    EXPECT_EQ(record.magic.load(), 0xFBADBEEFU);
    EXPECT_EQ(record.state.load(), 0x13U) << "the two bits are added";
    EXPECT_EQ(record.lock.gate, 0xFFFFFFFFU);
    EXPECT_EQ(record.eventBuf, buffer);
}

} // namespace
