// Wakes one thread by another.
#ifndef XEL_BENCH_PEERS_SIGNAL_H
#define XEL_BENCH_PEERS_SIGNAL_H

#include <semaphore.h>

class Signal
{
public:
    Signal() { sem_init(&semaphore_, 0, 0); }
    ~Signal() { sem_destroy(&semaphore_); }
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    void Post() { sem_post(&semaphore_); }
    void Wait()
    {
        while (sem_wait(&semaphore_) != 0) { // interrupted by a signal handler
        }
    }

private:
    sem_t semaphore_;
};

#endif // XEL_BENCH_PEERS_SIGNAL_H
