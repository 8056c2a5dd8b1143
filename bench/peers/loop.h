// What the side-by-side benchmarks ask of an event loop. Every peer implements it once and is
// linked with the same scenarios into an executable of its own, since two of the libraries export
// functions of one name.
//
// Except where a line says otherwise, a loop and what belongs to it are used by one thread at a
// time: the one that runs the loop, or, while it does not run, the one that prepares it.
#ifndef XEL_BENCH_PEERS_LOOP_H
#define XEL_BENCH_PEERS_LOOP_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

struct LoopOptions {
    bool priorities = false; // urgent watches go first
    bool oneAtATime = false; // poll again after each callback, with a peer that has the choice
    bool ownThread = false;  // Start and Join are used instead of Run
    bool timers = false;     // timers are used; exact ones, with a peer that has the choice
    bool mergeWakes = false; // one run for several wake-ups, with a peer that has the choice
    int batch = 128;         // events per poll, with a peer that has the choice
};

// Room in which a peer keeps its own record of a watch, wake-up or timer, so that no peer is made
// to allocate one that it lets its callers embed.
class Room
{
public:
    template <typename Record, typename... Values>
    Record& Make(Values&&... values)
    {
        Check<Record>();
        return *new (bytes_) Record(std::forward<Values>(values)...);
    }
    template <typename Record>
    Record& As()
    {
        Check<Record>();
        return *std::launder(reinterpret_cast<Record*>(bytes_));
    }

private:
    static constexpr std::size_t kSize = 192;

    template <typename Record>
    struct Held {
        Record record;
    };
    template <typename Record>
    static constexpr void Check()
    {
        static_assert(sizeof(Held<Record>) <= kSize);
        static_assert(alignof(Held<Record>) <= alignof(std::max_align_t));
    }

    alignas(std::max_align_t) std::byte bytes_[kSize];
};

using Proc = void (*)(void* data);

// A descriptor to be read from. Level-triggered: proc runs again while there is something to read.
struct Watch {
    int fd = -1;
    bool urgent = false;
    Proc proc = nullptr;
    void* data = nullptr;
    Room room;
};

// Something that another thread sends and the loop's thread reacts to.
struct Wake {
    Proc proc = nullptr;
    void* data = nullptr;
    Room room;
};

struct Timer {
    std::uint32_t periodMs = 0;
    Proc proc = nullptr;
    void* data = nullptr;
    std::uint64_t expirations = 0; // periods since proc ran last; set before each run
    Room room;
};

class Loop
{
public:
    Loop() = default;
    virtual ~Loop() = default;
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    virtual void Add(Watch& watch) = 0;
    virtual void Delete(Watch& watch) = 0;

    // Adding and deleting happens while the loop does not run.
    virtual void Add(Wake& wake) = 0;
    virtual void Delete(Wake& wake) = 0;
    // Any thread but the loop's own.
    virtual void Send(Wake& wake) = 0;
    // Whether wake-ups that arrive together make one run only.
    virtual bool MergesWakes() const { return false; }

    // Whether its thread runs before Start.
    virtual bool RunsFromCreation() const { return false; }

    // Creates and arms a periodic timer; stops and destroys it.
    virtual void Add(Timer& timer) = 0;
    virtual void Delete(Timer& timer) = 0;

    // Brings a time that the peer keeps up to date, so that the next timer counts from now.
    virtual void RefreshTime() {}

    // Completes what a peer puts off when it deletes something. Until then the record of what was
    // deleted stays in use.
    virtual void Settle() {}

    // Runs callbacks on the calling thread until one of them calls Stop.
    virtual void Run() = 0;
    virtual void Stop() = 0;

    // Runs callbacks on another thread between the two.
    virtual void Start() = 0;
    virtual void Join() = 0;
};

// Each peer defines these three.
std::unique_ptr<Loop> MakeLoop(const LoopOptions& options);
const char* PeerName();
const char* PeerVersion(); // of the library that runs

#endif // XEL_BENCH_PEERS_LOOP_H
