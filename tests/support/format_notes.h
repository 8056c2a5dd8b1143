// Which format each log line is made from, to the letter: the platform's log groups lines by it.
// Link xel_format_test_support.
#ifndef XEL_TESTS_SUPPORT_FORMAT_NOTES_H
#define XEL_TESTS_SUPPORT_FORMAT_NOTES_H

#include <functional>
#include <string>
#include <vector>

#include "support/log_recorder.h"

namespace xeltest
{

// The formats of all lines, and texts made with Text, since the last call.
std::vector<std::string> TakeFormats();
// The formats of the lines that body logs from these sources, in order. Afterwards no line is left
// and no fault is planned any more.
std::vector<std::string> FormatsOf(const std::vector<LogSource>& sources,
                                   const std::function<void()>& body);

} // namespace xeltest

#endif // XEL_TESTS_SUPPORT_FORMAT_NOTES_H
