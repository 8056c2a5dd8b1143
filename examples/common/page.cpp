// Refusals and computed bodies. Called by the connections and sessions of the examples, each on its
// own thread; no state but the object's.
#include "examples/common/page.h"

namespace
{

const char* ReasonText(u32 status)
{
    switch (status) {
    case 400:
        return "bad request\n";
    case 404:
        return "not found\n";
    case 405:
        return "only GET and HEAD\n";
    case 408:
        return "request took too long\n";
    case 413:
        return "request too large\n";
    default:
        return "refused\n";
    }
}

} // namespace

Page MakeRefusal(u32 status)
{
    return {.status = status, .text = ReasonText(status)};
}

void BulkBody::Append(std::string& out, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        out += static_cast<char>('a' + (state_ >> 33U) % 26U);
    }
}
