// What the process holds, counted to show that nothing is left.
#ifndef COMMON_HOLDINGS_H
#define COMMON_HOLDINGS_H

struct Holdings {
    long blocks;      // of the library's memory
    long descriptors; // the look itself included, which every count has alike
    long threads;
};

Holdings CountHoldings();

// The threads of a program that has not made any that last.
long CountThreadsAtRest();

// Counts again once no more than that many threads are left, or after five seconds. Scheduler
// threads are detached, so the end of their last instructions shows in /proc only.
Holdings CountHoldingsWithThreads(long threads);

#endif // COMMON_HOLDINGS_H
