// Printing and checking. Called by the main thread when everything else has ended.
#include "examples/service_platform/report.h"

#include <cstdio>

namespace
{

void PrintRequests(const PlatformAccount& all)
{
    const FrontAccount& front = all.front;
    printf("requests: %lu = %lu answered (200) + %lu refused (503) + %lu timed out (504)"
           " + %lu whose client left\n",
           front.requests, front.answered, front.refused, front.timedOut, front.gone);
    printf("clients: %lu connections, %lu turned away, %lu malformed requests\n", front.opened,
           front.turnedAway, front.malformed);
    printf("answers: %lu posted = %lu used + %lu too late + %lu left behind; %lu calls dropped\n",
           all.answersPosted, front.used, front.unused, all.answersLeft, all.sessions.dropped);
}

void PrintServices(const std::vector<ServiceRow>& services)
{
    printf("\n%-10s %9s %9s %9s %9s %6s %9s\n", "service", "sent", "delivered", "refused", "left",
           "depth", "peak");
    for (const ServiceRow& row : services) {
        const ServiceAccount& account = row.account;
        printf("%-10s %9lu %9lu %9lu %9lu %6u %9lu\n", row.name, account.sent, account.delivered,
               account.refused, account.left, row.depth, account.peak);
    }
}

void PrintTimers(const PlatformAccount& all)
{
    printf("\n%-10s %9s %9s %9s %9s %12s\n", "timer", "started", "fired", "cancelled", "late",
           "worst us");
    for (size_t i = 0; i < kTimerKinds; ++i) {
        const TimerAccount& account = all.timers.at(i);
        printf("%-10s %9lu %9lu %9lu %9lu %12lu\n", Timers::NameOf(static_cast<TimerKind>(i)),
               account.started, account.fired, account.cancelled, account.late, account.worstUs);
    }
    printf("late: the callback began more than %lu ms after it was due, or stood for more than one"
           " expiry\n",
           kLateUs / 1000);
}

void PrintRuns(const std::vector<TraceRow>& rows)
{
    printf("\n%-15s %9s %12s %9s %9s %9s\n", "task", "runs", "total us", "p50 us", "p99 us",
           "max us");
    for (const TraceRow& row : rows) {
        const Histogram& runs = row.runs;
        printf("%-15s %9lu %12lu %9lu %9lu %9lu\n", row.name, runs.Samples(), runs.Total(),
               runs.Percentile(50), runs.Percentile(99), runs.Max());
    }
}

void PrintClients(const char* name, const ClientTally& tally)
{
    printf("%-10s %9lu %9lu %9lu %9lu %9lu %9lu %9lu\n", name, tally.asked, tally.answered,
           tally.refused, tally.timedOut, tally.latency.Percentile(50),
           tally.latency.Percentile(99), tally.latency.Max());
}

void PrintLoad(const LoadTally& load)
{
    printf("\n%-10s %9s %9s %9s %9s %9s %9s %9s\n", "clients", "asked", "200", "503", "504",
           "p50 us", "p99 us", "max us");
    PrintClients("bulk", load.bulk);
    PrintClients("slow", load.slow);
    PrintClients("admin", load.admin);
}

void PrintRest(const Report& report)
{
    const PlatformAccount& all = report.platform;
    const SessionAccount& sessions = all.sessions;
    const u64 mean = sessions.questions == 0 ? 0 : sessions.overtaken / sessions.questions;
    printf("\nadmin: %lu questions overtook %lu waiting messages on average, %lu at most\n",
           sessions.questions, mean, sessions.mostOvertaken);
    printf("sessions: %lu opened = %lu expired + %lu ended at the stop\n", sessions.opened,
           sessions.expired, sessions.ended);
    printf("billing: %lu units; audit: %lu calls, %lu expiries; metrics: %lu samples, "
           "session waiting %u at most\n",
           all.units, all.auditedCalls, all.auditedExpiries, all.samples, all.mostSampled);
    printf("log: %lu lines about refused messages, %lu others; dispatch errors: %lu\n",
           report.logRefusals, report.logOthers, report.dispatchErrors);
    printf("left: %ld blocks, %ld descriptors, %ld threads, %lu tasks\n", report.left.blocks,
           report.left.descriptors, report.left.threads, report.liveTasks);
}

// Says each account that does not close, and remembers that there was one.
class Verdict
{
public:
    void Expect(bool closes, const char* what)
    {
        if (!closes) {
            printf("does not close: %s\n", what);
            isGood_ = false;
        }
    }
    bool IsGood() const { return isGood_; }

private:
    bool isGood_ = true;
};

// Every request went to the desk, or to session, or was refused before; every call that reached
// session was answered or dropped.
void CheckRequests(Verdict& verdict, const PlatformAccount& all)
{
    const FrontAccount& front = all.front;
    const ServiceAccount& session = all.services.front().account;
    verdict.Expect(front.Closes(), "requests");
    verdict.Expect(front.requests == session.sent + front.admin + front.refusedAtOnce,
                   "requests and messages to session");
    verdict.Expect(front.admin == all.sessions.questions + front.adminRefused, "admin questions");
    verdict.Expect(all.answersPosted == front.used + front.unused + all.answersLeft, "answers");
    verdict.Expect(all.answersPosted ==
                       session.delivered - all.sessions.dropped + all.sessions.questions,
                   "answers and calls");
    verdict.Expect(all.answersLeft == 0, "answers left behind");
}

void CheckServices(Verdict& verdict, const Report& report)
{
    u64 refused = 0;
    u64 left = 0;
    for (const ServiceRow& row : report.platform.services) {
        verdict.Expect(row.account.Closes(), row.name);
        refused += row.account.refused;
        left += row.account.left;
    }
    verdict.Expect(report.logRefusals == refused, "log lines and refused messages");
    // A wake-up that is dropped with its message is logged; and what real clients bring about, such
    // as a lack of descriptors, is no error of the account.
    const bool isQuiet = report.logOthers == 0 && report.dispatchErrors == 0;
    verdict.Expect(isQuiet || left != 0 || !report.hasLoad, "log");
}

void CheckTimers(Verdict& verdict, const PlatformAccount& all)
{
    for (size_t i = 0; i < kTimerKinds; ++i) {
        const auto kind = static_cast<TimerKind>(i);
        verdict.Expect(all.timers.at(i).Closes(Timers::IsPeriodic(kind)), Timers::NameOf(kind));
    }
    const SessionAccount& sessions = all.sessions;
    verdict.Expect(sessions.opened == sessions.expired + sessions.ended, "sessions");
}

void CheckLoad(Verdict& verdict, const FrontAccount& front, const ClientTally& sum)
{
    verdict.Expect(sum.asked == front.requests && sum.answered == front.answered &&
                       sum.refused == front.refused && sum.timedOut == front.timedOut &&
                       sum.failed == 0,
                   "what the clients saw");
}

bool Check(const Report& report)
{
    Verdict verdict;
    CheckRequests(verdict, report.platform);
    CheckServices(verdict, report);
    CheckTimers(verdict, report.platform);
    if (report.hasLoad) {
        CheckLoad(verdict, report.platform.front, report.load.Sum());
    }
    verdict.Expect(report.left.blocks == 0 && report.left.descriptors == 0 &&
                       report.left.threads == 0 && report.liveTasks == 0,
                   "something is left");
    return verdict.IsGood();
}

} // namespace

bool PrintReport(const Report& report)
{
    PrintRequests(report.platform);
    PrintServices(report.platform.services);
    PrintTimers(report.platform);
    PrintRuns(report.runs);
    if (report.hasLoad) {
        PrintLoad(report.load);
    }
    PrintRest(report);
    const bool isGood = Check(report);
    if (isGood) {
        printf("accounts: closed\n");
    }
    return isGood;
}
