// What every test program of the library starts from: recorded log lines, faults on demand, the
// leak guard and small helpers. Link xel_test_support.
#ifndef XEL_TESTS_SUPPORT_XEL_TEST_H
#define XEL_TESTS_SUPPORT_XEL_TEST_H

#include "support/clean_process.h"
#include "support/faults.h"
#include "support/helpers.h"
#include "support/log_recorder.h"

#endif // XEL_TESTS_SUPPORT_XEL_TEST_H
