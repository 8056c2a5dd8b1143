// Many events on many threads: every notification is accounted for, and events that come and go do
// not disturb the others.
#include "event_support.h"

namespace
{

using namespace eventtest;

class EventStress : public EventTest
{
protected:
    // Fewer rounds where everything takes longer.
    static int Rounds(int usual) { return IsSanitized() ? usual / 5 : usual; }
};

// What several notifiers put in comes out as runs, event by event.
TEST_F(EventStress, RunsAreExactlyTheNotifications)
{
    constexpr size_t kThreads = 3;
    constexpr size_t kEvents = 9;
    constexpr u32 kNotifiers = 4;
    const int rounds = Rounds(500);
    std::vector<std::unique_ptr<Worker>> workers;
    std::vector<std::unique_ptr<Event>> events;
    std::atomic<u32> runs[kEvents] = {};
    for (size_t i = 0; i < kThreads; ++i) {
        workers.push_back(std::make_unique<Worker>());
    }
    for (size_t i = 0; i < kEvents; ++i) {
        events.push_back(std::make_unique<Event>(*workers[i % kThreads], runs[i]));
    }
    EXPECT_EQ(g_xelEventList.count, kEvents);
    std::vector<std::unique_ptr<Runner>> notifiers;
    for (u32 n = 0; n < kNotifiers; ++n) {
        notifiers.push_back(std::make_unique<Runner>([&] {
            for (int round = 0; round < rounds; ++round) {
                for (size_t i = 0; i < kEvents; ++i) {
                    if (static_cast<size_t>(round) % (i + 1) == 0) {
                        events[i]->Notify();
                    }
                }
            }
        }));
    }
    notifiers.clear();
    for (size_t i = 0; i < kEvents; ++i) {
        const u32 step = static_cast<u32>(i + 1);
        const u32 expected = kNotifiers * ((static_cast<u32>(rounds) + step - 1) / step);
        EXPECT_TRUE(AwaitTrue([&] { return runs[i].load() == expected; })) << runs[i].load();
    }
    for (const auto& worker : workers) {
        worker->Run([] {});
    }
    u32 sum = 0;
    for (const auto& count : runs) {
        sum += count.load();
    }
    u32 expectedSum = 0;
    for (u32 step = 1; step <= kEvents; ++step) {
        expectedSum += kNotifiers * ((static_cast<u32>(rounds) + step - 1) / step);
    }
    EXPECT_EQ(sum, expectedSum);
    EXPECT_NO_LOG();
}

// Some sides create, use and destroy events of their own while others notify events that stay.
TEST_F(EventStress, EventsComeAndGoBesideOthers)
{
    const int rounds = Rounds(200);
    Worker shared;
    std::atomic<u32> stayingRuns{0};
    std::atomic<u32> passingRuns{0};
    const Event staying(shared, stayingRuns);
    std::vector<std::unique_ptr<Runner>> sides;
    for (int side = 0; side < 3; ++side) {
        sides.push_back(std::make_unique<Runner>([&] {
            for (int round = 0; round < rounds; ++round) {
                std::atomic<u32> runs{0};
                const Event passing(shared, runs);
                passing.Notify();
                EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == 1; }));
                passingRuns.fetch_add(runs.load());
            }
        }));
    }
    for (int side = 0; side < 2; ++side) {
        sides.push_back(std::make_unique<Runner>([&] {
            for (int round = 0; round < 5 * rounds; ++round) {
                staying.Notify();
            }
        }));
    }
    sides.clear();
    EXPECT_TRUE(AwaitTrue([&] { return stayingRuns.load() == static_cast<u32>(10 * rounds); }));
    EXPECT_EQ(passingRuns.load(), static_cast<u32>(3 * rounds));
    shared.Run([] {});
    DropLog(); // a readiness that the thread took before the destroy finds its task gone
}

// Events destroyed from another thread while their callbacks may be running. The counters outlive
// the callbacks; only then may a run come after the destroy.
TEST_F(EventStress, DestroyBesideRunningCallbacks)
{
    const int rounds = Rounds(300);
    Worker first("first");
    Worker second("second");
    std::atomic<u32> runs{0};
    u32 notified = 0;
    for (int round = 0; round < rounds; ++round) {
        Event event(round % 2 == 0 ? first : second, runs);
        const u32 before = runs.load();
        event.Notify();
        event.Notify();
        notified += 2;
        if (round % 3 == 0) {
            EXPECT_TRUE(AwaitTrue([&] { return runs.load() > before; }));
        }
        event.Destroy();
    }
    first.Run([] {});
    second.Run([] {});
    EXPECT_GE(runs.load(), static_cast<u32>(rounds / 3));
    EXPECT_LE(runs.load(), notified);
    DropLog(); // as above
}

// Each event destroys itself in its callback, again and again.
TEST_F(EventStress, CallbacksDestroyTheirOwnEvents)
{
    struct Self {
        XelEventNode* event;
        std::atomic<u32>* runs;
    };
    const auto destroySelf = [](u64 data) {
        auto* self = reinterpret_cast<Self*>(data);
        XEL_EventDestroy(self->event);
        self->runs->fetch_add(1);
        return 0U;
    };
    const u32 rounds = static_cast<u32>(Rounds(200));
    const Worker worker;
    std::atomic<u32> runs{0};
    for (u32 round = 0; round < rounds; ++round) {
        Self self{nullptr, &runs};
        self.event =
            XelEventInnerCreate(worker.Get(), destroySelf, "self", reinterpret_cast<u64>(&self));
        ASSERT_NE(self.event, nullptr);
        EXPECT_EQ(XEL_EventNotify(self.event), 0U);
        ASSERT_TRUE(AwaitTrue([&] { return runs.load() == round + 1; }));
    }
    EXPECT_NO_LOG();
}

// Stale handles are refused while other events come and go; the refusal reads the list only.
TEST_F(EventStress, ManyEventsAtOnce)
{
    const Worker worker;
    std::atomic<u32> runs{0};
    std::vector<std::unique_ptr<Event>> events;
    constexpr u32 kCount = 300;
    for (u32 i = 0; i < kCount; ++i) {
        events.push_back(std::make_unique<Event>(worker, runs));
    }
    EXPECT_EQ(g_xelEventList.count, kCount);
    for (const auto& event : events) {
        event->Notify();
    }
    EXPECT_TRUE(AwaitTrue([&runs] { return runs.load() == kCount; }));
    // Out of the middle first.
    for (u32 i = kCount / 3; i < kCount; ++i) {
        events[i]->Destroy();
        EXPECT_EQ(g_xelEventList.count, kCount - 1 - (i - kCount / 3));
    }
    events.clear();
    EXPECT_EQ(g_xelEventList.count, 0U);
    EXPECT_NO_LOG();
}

} // namespace
