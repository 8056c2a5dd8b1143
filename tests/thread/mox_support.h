// What the tests of the alternative epoll implementation share: which library the loader finds, the
// stand-in's control, and the fixture that keeps account of the waiting threads' buffers.
#ifndef XEL_TESTS_MOX_SUPPORT_H
#define XEL_TESTS_MOX_SUPPORT_H

#include <set>
#include <string>

#include "stand_in/stand_in.h"
#include "thread/xel_adapt_mox.h"
#include "thread_support.h"

namespace moxtest
{

using namespace threadtest;
using namespace xeltest;

// What dlopen() of the library's name leads to.
enum class Found {
    Whatever, // the real search
    Nothing,  // a file that does not exist
    Whole,
    WithoutSymbol,
};
void LetLoaderFind(Found found);
// Calls of dlopen and dlclose by the library since the last LetLoaderFind, and the last flags.
u32 Opened();
u32 Closed();
int OpenFlags();
bool OpenNameWasRight();

const char* PathOf(Found found);
// True while a variant is mapped.
bool IsMapped(Found found);

// Forgets the load: the next creation loads again.
void ForgetLoad();

// Fixture: the whole library is to be found, but not loaded yet. The buffers of waiting threads
// live as long as the process; the test keeps and frees them, so that the account is even.
class MoxTest : public ThreadTest
{
protected:
    void SetUp() override;
    void TearDown() override;
    // The control of the whole stand-in; loads it for the test as well.
    standin::Control* Stand();

private:
    standin::Control* control_ = nullptr;
};

// Takes note of the calling thread's buffer, to be freed at the end of the test.
void KeepBuffer();
// Frees the calling thread's buffer.
void DropBuffer();

// A type 2 attribute.
class MoxAttr : public ThreadAttr
{
public:
    explicit MoxAttr(const char* name = "mox") : ThreadAttr(name)
    {
        Set(XEL_THREAD_ATTR_EPOLL_TYPE, XEL_EPOLL_TYPE_MOX);
    }
};

} // namespace moxtest

#endif // XEL_TESTS_MOX_SUPPORT_H
