// The cores that a benchmark pins its threads to.
#ifndef XEL_BENCH_CORES_H
#define XEL_BENCH_CORES_H

#include <stdexcept>
#include <vector>

#include <pthread.h>
#include <sched.h>

// The first two cores that this process may use; fewer than two: empty.
inline std::vector<int> TwoCores()
{
    std::vector<int> found;
    cpu_set_t cores;
    CPU_ZERO(&cores);
    sched_getaffinity(0, sizeof(cores), &cores);
    for (int core = 0; core < CPU_SETSIZE && found.size() < 2; ++core) {
        if (CPU_ISSET(core, &cores)) {
            found.push_back(core);
        }
    }
    return found.size() == 2 ? found : std::vector<int>();
}

inline void Pin(pthread_t thread, int core)
{
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    if (pthread_setaffinity_np(thread, sizeof(cores), &cores) != 0) {
        throw std::runtime_error("cannot pin a thread");
    }
}

#endif // XEL_BENCH_CORES_H
