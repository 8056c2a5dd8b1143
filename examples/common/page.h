// What an answer consists of before it becomes HTTP. Plain values, used on the thread of the
// connection that sends them.
#ifndef EXAMPLES_PAGE_H
#define EXAMPLES_PAGE_H

#include <string>

#include "common/xel_int.h"

struct Page {
    u32 status = 200;
    const char* contentType = "text/plain";
    std::string text;
    u32 bulkSize = 0; // a computed body of that size instead of the text
};

// A page that says why a request was refused.
Page MakeRefusal(u32 status);

// The computed body of a page with a bulkSize: every body starts with the same letters.
class BulkBody
{
public:
    // Appends the next size letters.
    void Append(std::string& out, size_t size);

private:
    u64 state_ = 0;
};

#endif // EXAMPLES_PAGE_H
