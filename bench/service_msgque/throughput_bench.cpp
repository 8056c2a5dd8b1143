// How many messages of 64 bytes one producer gets through to the consumer of a service, against a
// bare loop of the same mandatory steps. Each iteration sends a batch through one and then through
// the other, in turns, and times each from the first send to the last message consumed. The
// producer has one core, both consumers share the other; who has no batch sleeps in epoll_wait. The
// queues hold a whole batch, so that nothing is refused.
//
// A million messages pass each way; afterwards no block of the library may be left.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include <sched.h>

#include <benchmark/benchmark.h>

#include "bench/cores.h"
#include "bench/event/event_objects.h"
#include "bench/service_msgque/bare_queue.h"
#include "xel_mem.h"

namespace
{

constexpr std::uint32_t kBatch = 1000; // shorter than a time slice, so that most run undisturbed
constexpr int kBatches = 1000;
constexpr std::size_t kBodySize = 64;
constexpr char kName[] = "throughput";

// The consumer of either queue: counts, sums up a word of each body, and tells when a batch is
// complete.
class Sink
{
public:
    static void Consume(XelServiceMsg* message, void* data)
    {
        auto* self = static_cast<Sink*>(data);
        std::uint64_t word = 0;
        std::memcpy(&word, message->data, sizeof(word));
        self->sum_ += word;
        self->count_ += 1;
        if (self->count_ % kBatch == 0) {
            self->complete_.Post();
        }
    }
    void AwaitBatch() { complete_.Wait(); }
    // After a batch: the semaphore hands them over.
    std::uint64_t Count() const { return count_; }
    std::uint64_t Sum() const { return sum_; }

private:
    std::uint64_t count_ = 0;
    std::uint64_t sum_ = 0;
    Signal complete_;
};

// A service on a scheduler thread of its own.
class Service
{
public:
    Service(XelServiceConsumer consumer, void* data) : thread_("bench_service")
    {
        const XelServiceMqConfig config = {kBatch, thread_.Handle(), consumer, data};
        if (XEL_ServiceMqCreate(kName, &config, nullptr) != XEL_OK) {
            throw std::runtime_error("cannot create a service");
        }
    }
    ~Service() { XEL_ServiceMqDestroy(kName); }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    pthread_t Id() const { return thread_.Id(); }
    static bool Send(const XelServiceMsg& message)
    {
        return XEL_ServiceMqSendMsg(kName, &message) == XEL_OK;
    }

private:
    SchedulerThread thread_;
};

// What the batches of one kind took, per message: until the producer was done, and in all.
struct Times {
    std::vector<double> sendNs;
    std::vector<double> allNs;
};

template <typename Send>
bool SendBatch(Send&& send)
{
    char body[kBodySize] = {};
    XelServiceMsg message = {};
    std::strcpy(message.name, "producer");
    message.data = body;
    message.len = sizeof(body);
    bool isComplete = true;
    for (std::uint64_t i = 0; i < kBatch; ++i) {
        std::memcpy(body, &i, sizeof(i));
        isComplete &= send(message);
    }
    return isComplete;
}

template <typename Send>
bool TimeBatch(Sink& sink, Times& times, Send&& send)
{
    bool isComplete = false;
    double sendNs = 0;
    const double allNs = NanosecondsOf([&] {
        sendNs = NanosecondsOf([&] { isComplete = SendBatch(send); });
        if (isComplete) {
            sink.AwaitBatch();
        }
    });
    times.sendNs.push_back(sendNs / kBatch);
    times.allNs.push_back(allNs / kBatch);
    return isComplete;
}

// The batch that was disturbed least, for a machine with other work to do.
double Best(const std::vector<double>& values)
{
    return *std::min_element(values.begin(), values.end());
}

std::uint64_t LiveBlocks()
{
    XelMemUsage usage = {};
    XEL_MemGetUsage(&usage);
    return usage.blocks;
}

constexpr std::uint64_t kSumOfBatch = std::uint64_t{kBatch} * (kBatch - 1) / 2;

bool HasAll(const Sink& sink, const Times& times)
{
    const std::uint64_t batches = times.allNs.size();
    return sink.Count() == batches * kBatch && sink.Sum() == batches * kSumOfBatch;
}

// All batches, on threads that are gone afterwards; the counts of the consumers.
bool RunBatches(benchmark::State& state, const std::vector<int>& cores, Times& bare, Times& service)
{
    Sink bareSink;
    Sink serviceSink;
    BareQueue bareQueue(kBatch, Sink::Consume, &bareSink);
    Service serviceQueue(Sink::Consume, &serviceSink);
    Pin(bareQueue.Id(), cores[1]);
    Pin(serviceQueue.Id(), cores[1]);
    Pin(pthread_self(), cores[0]);
    const auto runBare = [&] {
        return TimeBatch(bareSink, bare,
                         [&](const XelServiceMsg& message) { return bareQueue.Send(message); });
    };
    const auto runService = [&] {
        return TimeBatch(serviceSink, service,
                         [&](const XelServiceMsg& message) { return Service::Send(message); });
    };
    bool isComplete = true;
    bool bareFirst = true;
    for (auto _ : state) {
        isComplete &= bareFirst ? runBare() && runService() : runService() && runBare();
        bareFirst = !bareFirst;
    }
    state.counters["delivered"] = static_cast<double>(serviceSink.Count());
    return isComplete && HasAll(bareSink, bare) && HasAll(serviceSink, service);
}

void ServiceAgainstBareLoop(benchmark::State& state)
{
    const std::vector<int> cores = TwoCores();
    if (cores.empty()) {
        state.SkipWithError("needs two cores");
        return;
    }
    cpu_set_t before;
    sched_getaffinity(0, sizeof(before), &before);
    { // what stays for the life of the process
        const Service first(Sink::Consume, nullptr);
    }
    const std::uint64_t blocks = LiveBlocks();
    Times bare;
    Times service;
    const bool isComplete = RunBatches(state, cores, bare, service);
    sched_setaffinity(0, sizeof(before), &before);
    if (!isComplete) {
        state.SkipWithError("messages were refused, lost or changed");
        return;
    }
    state.counters["bare_per_s"] = 1e9 / Median(bare.allNs);
    state.counters["service_per_s"] = 1e9 / Median(service.allNs);
    state.counters["bare_send_ns"] = Median(bare.sendNs);
    state.counters["service_send_ns"] = Median(service.sendNs);
    state.counters["ratio"] = Median(bare.allNs) / Median(service.allNs);
    state.counters["best_ratio"] = Best(bare.allNs) / Best(service.allNs);
    state.counters["sent"] = static_cast<double>(service.allNs.size() * kBatch);
    state.counters["blocks_left"] = static_cast<double>(LiveBlocks() - blocks);
}
BENCHMARK(ServiceAgainstBareLoop)->Iterations(kBatches)->Unit(benchmark::kMillisecond);

} // namespace
