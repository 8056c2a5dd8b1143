// How every module writes its log lines: one macro, one site per source family.
#ifndef XEL_COMMON_LOG_SITE_H
#define XEL_COMMON_LOG_SITE_H

#include "common/xel_int.h"
#include "xel_log.h"

// Where a module's lines claim to come from: its layout path and its fixed number.
struct LogSite {
    const char* file;
    u32 fileNo;
};

constexpr u32 kLogComponent = 9;

// Function names are not logged: the placeholder stands for all of them.
#define XEL_LOG(site, level, ...)                                                                  \
    LOG_InnerPrint(0, (site).file, (site).fileNo, "<unknown>", kLogComponent, __LINE__, (level),   \
                   __VA_ARGS__)

#define XEL_LOG_FAIL(site, ...) XEL_LOG(site, XEL_LOG_ERROR, __VA_ARGS__)

#endif // XEL_COMMON_LOG_SITE_H
