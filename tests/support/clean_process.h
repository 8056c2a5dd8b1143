// The fixture that demands that a test leaves the process as it found it.
#ifndef XEL_TESTS_SUPPORT_CLEAN_PROCESS_H
#define XEL_TESTS_SUPPORT_CLEAN_PROCESS_H

#include <iosfwd>

#include <gtest/gtest.h>

#include "support/footprint.h"

namespace xeltest
{

void PrintTo(const Footprint& footprint, std::ostream* out);

// Creates and destroys one task, one scheduler and one thread, so that everything that stays for
// the life of the process is there.
void WarmUp();

// Warms the library up, forgets old log lines, faults, sleeps and clock settings, and measures.
// Afterwards the footprint must be the same (threads get a moment to leave) and every log line
// taken.
class CleanProcess : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // The state to be restored; a test that starts something meant to stay takes it anew.
    Footprint before_{};
};

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_CLEAN_PROCESS_H
