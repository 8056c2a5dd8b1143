// Creates, uses, overloads and destroys objects of all families at random, from several threads at
// once, for some seconds, with exact books. Prints operations per second by family, the books, and
// what is left at the end, which has to be nothing.
//   soak [SECONDS [SEED]]
#include "soak.h"

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

#include <unistd.h>

#include "support/footprint.h"
#include "xel_event.h"
#include "xel_log.h"
#include "xel_service_mq.h"

namespace soak
{

namespace
{

using xeltest::Footprint;
using xeltest::Measure;

constexpr u32 kWorkersPerFamily = 2;

struct Family {
    const char* name;
    void (*round)(Worker&);
};
constexpr Family kFamilies[] = {
    {"events", SoakEvents},           {"timers", SoakTimers},
    {"timer groups", SoakGroups},     {"light queues", SoakLightQueues},
    {"service queues", SoakServices}, {"schedulers", SoakSchedulers},
    {"threads", SoakThreads},
};
constexpr u32 kFamilyCount = sizeof(kFamilies) / sizeof(kFamilies[0]);

Ledger g_books[static_cast<u32>(Book::Count)] = {
    {"notifications", {}, {}, {}, {}},    {"one-shot expiries", {}, {}, {}, {}},
    {"timer data", {}, {}, {}, {}},       {"light elements", {}, {}, {}, {}},
    {"service messages", {}, {}, {}, {}}, {"task signals", {}, {}, {}, {}},
};
XelThreadCtrl* g_threads[kSharedThreads];

// Set by the main thread at the end, read by the workers between two rounds.
std::atomic<bool> g_isOver = false;
std::atomic<u64> g_logLines = 0;

void CountLine(void*, u32, const char*, size_t)
{
    g_logLines.fetch_add(1, std::memory_order_relaxed);
}

// Threads that have ended, joined or not, are counted still for a moment.
Footprint MeasureAtRest()
{
    Footprint last = Measure();
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const Footprint now = Measure();
        if (now == last) {
            return now;
        }
        last = now;
    }
}

// The tables that the first use makes stay for the life of the process.
void WarmUp()
{
    std::thread([] {}).join();
    XelThreadCtrl* thread = StartThread("first", XEL_SCH_POLICY_BFS);
    const XelServiceMqConfig config = {1, thread, [](XelServiceMsg*, void*) {}, nullptr};
    SOAK_CHECK(XEL_ServiceMqCreate("first", &config, nullptr) == XEL_OK);
    XEL_ServiceMqDestroy("first");
    SOAK_CHECK(SchEventThreadDestory(thread) == XEL_OK);
}

void RunWorkers(u64 seconds, u64 seed, std::vector<std::unique_ptr<Worker>>& workers)
{
    std::vector<std::thread> threads;
    for (u32 i = 0; i < kFamilyCount * kWorkersPerFamily; ++i) {
        workers.push_back(std::unique_ptr<Worker>(new Worker{i, Random(seed + i), {}}));
        threads.emplace_back([worker = workers.back().get()] {
            while (!g_isOver.load()) {
                kFamilies[worker->number % kFamilyCount].round(*worker);
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    g_isOver.store(true);
    for (std::thread& thread : threads) {
        thread.join();
    }
}

void PrintOperations(u64 seconds, const std::vector<std::unique_ptr<Worker>>& workers)
{
    for (u32 family = 0; family < kFamilyCount; ++family) {
        u64 operations = 0;
        for (u32 i = family; i < workers.size(); i += kFamilyCount) {
            operations += workers[i]->operations.load();
        }
        printf("%-18s %10" PRIu64 " operations a second\n", kFamilies[family].name,
               operations / seconds);
        SOAK_CHECK(operations > 0);
    }
}

bool CheckBooks()
{
    bool isBalanced = true;
    for (const Ledger& book : g_books) {
        const u64 out = book.out.load() + book.refused.load() + book.dropped.load();
        printf("%-18s %10" PRIu64 " in, %" PRIu64 " out, %" PRIu64 " refused, %" PRIu64
               " dropped%s\n",
               book.what, book.in.load(), book.out.load(), book.refused.load(), book.dropped.load(),
               book.in.load() == out ? "" : ": DOES NOT BALANCE");
        isBalanced = isBalanced && book.in.load() == out;
    }
    return isBalanced;
}

// Signed: what was there before and is gone counts as well.
bool CheckLeft(const Footprint& before)
{
    for (u32 i = 0; i < 2000 && !(Measure() == before); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const Footprint after = Measure();
    const auto left = [](u64 now, u64 then) { return static_cast<long>(now - then); };
    printf("left: blocks %ld, units %ld, pools %ld, descriptors %ld, threads %ld\n",
           left(after.blocks, before.blocks), left(after.units, before.units),
           left(after.pools, before.pools), left(after.descriptors, before.descriptors),
           left(after.threads, before.threads));
    return after == before;
}

int Run(u64 seconds, u64 seed)
{
    LOG_SetSink(CountLine, nullptr);
    WarmUp();
    const Footprint before = MeasureAtRest();
    for (u32 i = 0; i < kSharedThreads; ++i) {
        const bool isLast = i + 1 == kSharedThreads;
        g_threads[i] = StartThread("shared", isLast ? XEL_SCH_POLICY_NONE : XEL_SCH_POLICY_BFS);
    }
    std::vector<std::unique_ptr<Worker>> workers;
    RunWorkers(seconds, seed, workers);
    // A timer that is due when its thread is destroyed never ends.
    Ledger& timers = Of(Book::TimerData);
    Await("the end of the last timers", [&] { return timers.out.load() == timers.in.load(); });
    for (XelThreadCtrl* thread : g_threads) {
        SOAK_CHECK(SchEventThreadDestory(thread) == XEL_OK);
    }
    PrintOperations(seconds, workers);
    const bool isBalanced = CheckBooks();
    const bool isClean = CheckLeft(before);
    printf("log lines          %10" PRIu64 "\n", g_logLines.load());
    LOG_SetSink(nullptr, nullptr);
    return isBalanced && isClean ? 0 : 1;
}

} // namespace

Ledger& Of(Book book)
{
    return g_books[static_cast<u32>(book)];
}

XelThreadCtrl* SharedThread(u32 number)
{
    return g_threads[number % kSharedThreads];
}

XelThreadCtrl* StartThread(const char* name, u32 policy)
{
    XelThreadAttr* attr = XEL_ThreadCreateAttr();
    SOAK_CHECK(attr != nullptr);
    SOAK_CHECK(XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_NAME, name, XEL_NAME_SIZE - 1) == XEL_OK);
    SOAK_CHECK(XEL_ThreadSetAttr(attr, XEL_THREAD_ATTR_SCHEDULE_POLICY, &policy, sizeof(policy)) ==
               XEL_OK);
    XelThreadCtrl* thread = XEL_ThreadCreate(attr);
    XEL_ThreadDestroyAttr(attr);
    SOAK_CHECK(thread != nullptr);
    return thread;
}

void Fail(const char* file, int line, const char* what)
{
    fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    fflush(nullptr);
    _exit(1);
}

void Await(const char* what, const std::function<bool()>& condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            Fail(what, 0, "waited for too long");
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}

namespace
{

struct Errand {
    const std::function<void()>* body;
    std::atomic<bool> isDone;
};

} // namespace

void RunOn(XelThreadCtrl* thread, const std::function<void()>& body)
{
    Errand errand = {&body, {}};
    XelEventNode* event = XelEventInnerCreate(
        thread,
        [](u64 data) {
            auto* own = reinterpret_cast<Errand*>(data);
            (*own->body)();
            own->isDone.store(true);
            return 0U;
        },
        "errand", reinterpret_cast<u64>(&errand));
    SOAK_CHECK(event != nullptr && XEL_EventNotify(event) == XEL_OK);
    Await("an errand", [&errand] { return errand.isDone.load(); });
    XEL_EventDestroy(event);
}

} // namespace soak

int main(int argc, char** argv)
{
    const u64 seconds = argc > 1 ? strtoull(argv[1], nullptr, 10) : 60;
    const u64 seed = argc > 2 ? strtoull(argv[2], nullptr, 10) : static_cast<u64>(getpid());
    if (seconds == 0) {
        fprintf(stderr, "usage: soak [SECONDS [SEED]]\n");
        return 2;
    }
    (void)setvbuf(stdout, nullptr, _IOLBF, 0);
    printf("seed %" PRIu64 "\n", seed);
    return soak::Run(seconds, seed);
}
