// Checks that end the process, so that the fuzzing engine keeps the input that led there; what is
// in use; and the calls that the program puts in front of the system's, so that no input has to
// wait.
#ifndef XEL_TESTS_FUZZ_CHECK_H
#define XEL_TESTS_FUZZ_CHECK_H

#include <functional>

#include "common/xel_int.h"
#include "support/footprint.h"

namespace xelfuzz
{

[[noreturn]] void Die(const char* file, int line, const char* what);

#define FUZZ_CHECK(condition)                                                                      \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            xelfuzz::Die(__FILE__, __LINE__, #condition);                                          \
        }                                                                                          \
    } while (false)

using xeltest::Footprint;
using xeltest::Measure;
void Print(const char* title, const Footprint& footprint);

// Looks until the condition holds; ends the process when it does not within half a minute.
void Await(const char* what, const std::function<bool()>& condition);

// Log lines so far. Each was formatted in full and thrown away.
u64 LogLines();

} // namespace xelfuzz

#endif // XEL_TESTS_FUZZ_CHECK_H
