/*
 * xel_deadloop.h - the dead-loop monitor (libxeldeadloop.so).
 *
 * A thread registers with four thresholds, binds itself to the registration and marks the begin and
 * the end of each unit of work, such as one callback. One monitor thread per process looks at all
 * registrations and reports a thread that stays inside one unit too long. The monitor thread starts
 * with the first registration and is gone when the last one has ended; it is named "XelDeadloop"
 * and blocks all signals. At most XEL_DEADLOOP_MAX registrations exist at a time.
 *
 * What is measured. Thresholds count ticks of 10 ms. The time inside a unit is the time that the
 * monitor really saw: it runs from the first look that finds the unit open, and each look adds the
 * time since the look before, as long as both found the same unit open. A look adds at most one
 * check interval, and at most two ticks more than the time for which it was planned: what a late
 * look missed beyond that is never made up. So a stopped process, a suspended machine or a report
 * function that blocks is not taken for work.
 *
 * When reports come. Never before the unit has lasted as long as the threshold says. At most one
 * tenth of the check interval plus one tick after it, provided that the monitor thread gets the
 * processor in time: it looks every tenth of the check interval (at least every tick), the shortest
 * of all registrations, which is all that it costs while the threads sleep. A unit that is shorter
 * than the distance of two looks leaves no trace.
 */
#ifndef XEL_DEADLOOP_H
#define XEL_DEADLOOP_H

#include "xel_types.h"

XEL_EXTERN_C_BEGIN

/* Registrations that a process can have at a time. */
#define XEL_DEADLOOP_MAX 1024U

/* Valid when all words are above 0, the first is not above the second, and the last three do not
 * decrease. The default of scheduler threads is {100, 100, 200, 300}: a look every second, reports
 * after 1, 2 and 3 seconds inside one callback. */
typedef struct XelDeadloopThreshold {
    uint32_t checkTicks;  /* look at the thread every so many ticks */
    uint32_t firstTicks;  /* first report, ticks inside one unit of work */
    uint32_t secondTicks; /* second report */
    uint32_t deadTicks;   /* dead-loop report */
} XelDeadloopThreshold;

/* Kinds of reports, see XelDeadloopReport. The first three come once each for a stuck unit, in this
 * order; the last one when a unit that was reported at least once has ended after all. */
#define XEL_DEADLOOP_FIRST 1U  /* inside for firstTicks; severity XEL_LOG_WARN */
#define XEL_DEADLOOP_SECOND 2U /* inside for secondTicks; severity XEL_LOG_WARN */
#define XEL_DEADLOOP_DEAD 3U   /* inside for deadTicks; severity XEL_LOG_ERROR */
#define XEL_DEADLOOP_ENDED 4U  /* left the unit; severity XEL_LOG_INFO */

/* What a report function is told. The record is the monitor's, for the duration of the call. */
typedef struct XelDeadloopReport {
    uint32_t kind;                  /* XEL_DEADLOOP_FIRST to XEL_DEADLOOP_ENDED */
    uint32_t level;                 /* log severity */
    uint32_t handle;                /* the registration */
    int32_t tid;                    /* kernel thread id; 0 while no thread is bound */
    uint64_t pthreadId;             /* pthread id; 0 while no thread is bound */
    uint64_t elapsedMs;             /* time inside the unit as measured; for XEL_DEADLOOP_ENDED up
                                     * to the last look that found it open */
    char threadName[XEL_NAME_SIZE]; /* name when the thread was bound, or "<unbound>" */
} XelDeadloopReport;

/*
 * Receives one report, on the monitor thread. It may log, and it may block: all measuring stands
 * still until it returns, but every call for other registrations goes on. XelDeadloopMonReg,
 * XelDeadloopMonUnreg and XelDeadloopSetReport are refused inside it.
 */
typedef void (*XelDeadloopReportFunc)(void* context, const XelDeadloopReport* report);

/*
 * Registers a thread to be watched and stores the registration's number in *handle. The number is
 * never 0 nor 0xFFFFFFFF, and is not given out again for a long time after the registration ended.
 * Threads: any but inside a report function; not only the thread to be watched.
 * Blocks: shortly; while the last registration ends, until the monitor thread is gone.
 * Owner: the caller ends the registration with XelDeadloopMonUnreg; *threshold is copied.
 * Returns: 0; 0xFFFFFFFF for null, an invalid threshold, no free registration, a call from a report
 * function, or when the monitor thread cannot be started (nothing is left behind then).
 */
XEL_API uint32_t XelDeadloopMonReg(const XelDeadloopThreshold* threshold, uint32_t* handle);

/*
 * Ends a registration. A unit may be open; it is not reported any more, not even its end. The last
 * call stops the monitor thread and joins it.
 * Threads: any but inside a report function. The bound thread must not be inside
 * XelDeadloopMonBegin or XelDeadloopMonEnd at that moment. Blocks: until a running report about
 * this registration has returned, so the caller must hold no lock that the report function takes.
 * Returns: 0; 0xFFFFFFFF for an unknown or ended handle and for a call from a report function.
 */
XEL_API uint32_t XelDeadloopMonUnreg(uint32_t handle);

/*
 * Binds the calling thread to the registration: reports carry the name that it has now, and its
 * ids. A further call binds anew. Reports about a registration without a thread say "<unbound>".
 * Threads: the thread to be watched. Blocks: shortly.
 * Returns: 0; 0xFFFFFFFF for an unknown or ended handle.
 */
XEL_API uint32_t XelDeadloopMonProcSet(uint32_t handle);

/*
 * Marks the begin of a unit of work. reserved: 0. Costs two stores: no lock, no clock, no system
 * call. Units nest: a begin inside an open unit belongs to it, and the outermost unit is measured
 * until its own end, because a thread that stays in there serves nobody else.
 * Threads: the bound thread. Blocks: never.
 * Returns: 0; 0xFFFFFFFF for null and for an unknown or ended handle.
 */
XEL_API uint32_t XelDeadloopMonBegin(uint32_t reserved, const uint32_t* handle);

/*
 * Marks the end of a unit of work; phase is accepted as it stands. Costs as much as the begin. An
 * end without a begin does nothing.
 * Threads: the bound thread. Blocks: never.
 * Returns: 0; 0xFFFFFFFF for an unknown or ended handle.
 */
XEL_API uint32_t XelDeadloopMonEnd(uint32_t handle, uint32_t phase);

/*
 * Makes four thresholds of one number of ticks: {value, value, 2 value, 3 value}.
 * Threads: any. Blocks: never.
 * Returns: 0; 0xFFFFFFFF for null, or a value of 0 or one whose triple does not fit (*out is
 * untouched).
 */
XEL_API uint32_t XelDeadloopGetThreshold(XelDeadloopThreshold* out, uint32_t value);

/*
 * Tells whether the thresholds can be registered.
 * Threads: any. Blocks: never.
 * Returns: 0 when the threshold is valid; 0xFFFFFFFF when it is not or is null.
 */
XEL_API uint32_t XelDeadloopCheckThreshold(const XelDeadloopThreshold* threshold);

/*
 * Replaces what is done with all further reports; null means the default again, one log line each.
 * When the call returns no thread is inside the old function any more.
 * Threads: any but inside a report function. Blocks: until a running report has returned.
 * Owner: context stays the caller's and must live until the function is replaced.
 * Returns: 0; 0xFFFFFFFF for a call from a report function.
 */
XEL_API uint32_t XelDeadloopSetReport(XelDeadloopReportFunc report, void* context);

XEL_EXTERN_C_END

#endif /* XEL_DEADLOOP_H */
