// A ball between two loop threads on two cores: each sends a wake-up to the other and sleeps.
#include <vector>

#include "bench/peers/loop.h"
#include "bench/peers/scenario.h"
#include "bench/peers/signal.h"

namespace
{

class Game
{
public:
    Game() : cores_(FindTwoCores())
    {
        LoopOptions options;
        options.ownThread = true;
        near_.loop = MakeLoop(options);
        far_.loop = MakeLoop(options);
        near_.wake.proc = OnNear;
        far_.wake.proc = OnFar;
        for (Side* side : {&near_, &far_}) {
            side->wake.data = this;
            side->loop->Add(side->wake);
            side->loop->Start();
        }
    }
    ~Game()
    {
        for (Side* side : {&near_, &far_}) {
            side->loop->Join();
            side->loop->Delete(side->wake);
            side->loop->Settle();
        }
    }
    Game(const Game&) = delete;
    Game& operator=(const Game&) = delete;

    // Nanoseconds per wake-up. The near thread counts the rounds: the first wake-up hands it left_,
    // the signal gives it back.
    double Play(std::uint64_t rounds)
    {
        left_ = rounds;
        const std::uint64_t begin = NowNs();
        near_.loop->Send(near_.wake);
        done_.Wait();
        return static_cast<double>(NowNs() - begin) / static_cast<double>(2 * rounds);
    }

private:
    struct Side {
        std::unique_ptr<Loop> loop;
        Wake wake;
        bool isPinned = false;
    };

    static void Pin(Side& side, int core)
    {
        if (!side.isPinned) {
            PinThisThread(core);
            side.isPinned = true;
        }
    }
    static void OnNear(void* data)
    {
        auto* self = static_cast<Game*>(data);
        Pin(self->near_, self->cores_.first);
        if (self->left_ == 0) {
            self->done_.Post();
            return;
        }
        self->left_ -= 1;
        self->far_.loop->Send(self->far_.wake);
    }
    static void OnFar(void* data)
    {
        auto* self = static_cast<Game*>(data);
        Pin(self->far_, self->cores_.second);
        self->near_.loop->Send(self->near_.wake);
    }

    const TwoCores cores_;
    std::uint64_t left_ = 0;
    Signal done_;
    Side near_;
    Side far_;
};

} // namespace

// The median of several parts: what else the machine does meanwhile hits some of them only.
void PingPongScenario(const Arguments& arguments, Line& line)
{
    constexpr std::uint64_t kWarmUp = 500;
    constexpr int kParts = 9;
    Game game;
    const double estimate = game.Play(kWarmUp);
    const double rounds = arguments.Real("seconds", 0.2) * 1e9 / (2 * estimate * kParts);
    std::vector<double> parts(kParts);
    for (double& part : parts) {
        part = game.Play(static_cast<std::uint64_t>(rounds) + 1);
    }
    line.Put("ns_per_wake", Percentile(parts, 0.5));
}
