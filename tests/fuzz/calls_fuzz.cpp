// Any sequence of calls over all families: good, stale, null and foreign handles, wrong sizes and
// commands, callbacks that call back in. What a caller must not do is left out: using an event, a
// queue or a thread after its end, dispatching or destroying a scheduler inside its own callback.
// Checks stand beside the calls; at the end of an input everything has to be given back.
#include "world.h"

using namespace xelfuzz;

namespace
{

constexpr u32 kMaxCalls = 200;

void CallOnce(Input& input)
{
    using Call = void (*)(Input&);
    static const Call calls[] = {CallTasks,  CallTasks,  CallTasks,    CallTasks,
                                 CallScheds, CallScheds, CallScheds,   CallEvents,
                                 CallEvents, CallTimers, CallTimers,   CallGroups,
                                 CallGroups, CallQueues, CallServices, CallThreads};
    calls[input.Below(sizeof(calls) / sizeof(calls[0]))](input);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, size_t size)
{
    BeginInput();
    Input input(bytes, size);
    for (u32 i = 0; i < kMaxCalls && !input.IsEmpty(); ++i) {
        CallOnce(input);
    }
    EndInput();
    return 0;
}
