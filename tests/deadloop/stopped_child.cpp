// Stops itself inside an open unit of work; exits with the number of reports that it got, or with
// 100 when the monitor failed it.
#include <csignal>
#include <cstdlib>

#include "recorder.h"

static int ReportsOfAStoppedUnit()
{
    ReportRecorder recorder;
    Registration registration({1, 70, 80, 90});
    bool good = AwaitLooks(2) && registration.Begin() == 0 && AwaitLooks(3);
    good = good && raise(SIGSTOP) == 0;
    good = good && AwaitLooks(5) && registration.End() == 0 && AwaitLooks(3);
    good = good && registration.Unreg() == 0;
    return good ? static_cast<int>(recorder.Count()) : 100;
}

int main()
{
    return ReportsOfAStoppedUnit();
}
