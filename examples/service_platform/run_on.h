// Runs a function on a scheduler thread, between its other callbacks, and waits for it.
#ifndef SERVICE_PLATFORM_RUN_ON_H
#define SERVICE_PLATFORM_RUN_ON_H

#include <functional>

#include "examples/common/worker.h"

// Threads: any but a scheduler thread. What step throws is thrown here. Everything that step did is
// visible to the caller after, and everything before the call is visible to step.
void RunOn(const Worker& worker, const std::function<void()>& step);

#endif // SERVICE_PLATFORM_RUN_ON_H
