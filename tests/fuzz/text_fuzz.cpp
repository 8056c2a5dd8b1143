// Names, sizes and commands of any kind for the attribute setters of all families, and symbol texts
// for the cutting of function names. Every buffer is exactly as large as it is said to be, so that
// a sanitizer sees each byte read or written beside it; a small model says what has to come back.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "check.h"
#include "input.h"
#include "scheduler/xel_sch_dbg_inner.h"
#include "xel_event.h"
#include "xel_sch_task.h"
#include "xel_thread.h"
#include "xel_timer.h"

using namespace xelfuzz;

namespace
{

constexpr u32 kMaxCalls = 32;
constexpr u32 kMaxText = 80;

// What an attribute setter is asked: the value stands in a block of its own size, but a name is
// read up to its terminator or to the size of the field, whatever the stated size is.
struct Question {
    u32 cmd;
    size_t size;
    size_t room;
    std::unique_ptr<char[]> value;
};

Question Ask(Input& input)
{
    Question question = {};
    question.cmd = input.Byte() < 0xE0 ? input.Below(8) : input.Word();
    if (question.cmd == 7) {
        question.cmd = XEL_THREAD_ATTR_EPOLL_TYPE;
    }
    question.size = input.Byte() < 0xF8 ? input.Below(20) : input.Word();
    question.room = std::max<size_t>({question.size > 64 ? 64 : question.size, XEL_NAME_SIZE});
    question.value = std::make_unique<char[]>(question.room);
    input.Fill(question.value.get(), question.room);
    return question;
}

size_t LengthOf(const Question& question)
{
    return strnlen(question.value.get(), XEL_NAME_SIZE);
}

// A name that has a terminator within its field and is not longer than said.
bool IsNameGood(const Question& question, bool mayBeEmpty)
{
    const size_t length = LengthOf(question);
    return question.size < XEL_NAME_SIZE && length < XEL_NAME_SIZE && question.size >= length &&
           (mayBeEmpty || length > 0);
}

template <typename Value>
Value ValueOf(const Question& question)
{
    Value value;
    memcpy(&value, question.value.get(), sizeof(value));
    return value;
}

bool IsTaskValueGood(const Question& question)
{
    switch (question.cmd) {
    case XEL_TASK_ATTR_USR_CB:
        return question.size == 16 && ValueOf<u64>(question) != 0;
    case XEL_TASK_ATTR_TYPE:
        return question.size == 4 && ValueOf<u32>(question) < 4;
    case XEL_TASK_ATTR_PRIO:
        return question.size == 4 && ValueOf<u32>(question) <= 32;
    case XEL_TASK_ATTR_NAME:
        return question.size < XEL_NAME_SIZE &&
               (LengthOf(question) == 0 || IsNameGood(question, true));
    case XEL_TASK_ATTR_FD_TYPE:
        return question.size == 4;
    default:
        return false;
    }
}

bool IsEventValueGood(const Question& question)
{
    switch (question.cmd) {
    case XEL_EVENT_ATTR_PROC_INFO:
        return question.size == 16 && ValueOf<u64>(question) != 0;
    case XEL_EVENT_ATTR_TASK_NAME:
        return IsNameGood(question, true);
    default:
        return false;
    }
}

bool IsTimerValueGood(const Question& question)
{
    switch (question.cmd) {
    case XEL_TIMER_ATTR_USR_CB:
        return question.size == 16 && ValueOf<u64>(question) != 0;
    case XEL_TIMER_ATTR_MODE:
        return question.size == 4 && ValueOf<u32>(question) < 2;
    case XEL_TIMER_ATTR_TIMEOUT:
        return question.size == 4;
    case XEL_TIMER_ATTR_NAME:
        return IsNameGood(question, true);
    case XEL_TIMER_ATTR_DESTRUCTOR:
        return question.size == 8;
    default:
        return false;
    }
}

bool IsThreadValueGood(const Question& question)
{
    if (question.size == 0) {
        return false;
    }
    const u32 word = ValueOf<u32>(question);
    switch (question.cmd) {
    case XEL_THREAD_ATTR_NAME:
        return IsNameGood(question, false);
    case XEL_THREAD_ATTR_EP_SIZE:
        return question.size == 4 && static_cast<i32>(word) > 0;
    case XEL_THREAD_ATTR_STACK_SIZE:
        return question.size == 4;
    case XEL_THREAD_ATTR_DEADLOOP_PARAM: {
        const auto ticks = ValueOf<XelDeadloopThreshold>(question);
        return question.size == 16 && XelDeadloopCheckThreshold(&ticks) == XEL_OK;
    }
    case XEL_THREAD_ATTR_SIMPLE_THRESHOLD:
        return question.size == 4 && word != 0 && word % 10 == 0;
    case XEL_THREAD_ATTR_SCHEDULE_POLICY:
        return question.size == 4 && word < 2;
    case XEL_THREAD_ATTR_EPOLL_TYPE:
        return question.size == 4 && (word == 0 || word == 2);
    default:
        return false;
    }
}

// Every refusal writes a line; a priority above 32 and what is wrong with an event's value are
// silent.
template <typename Call>
void CheckAnswer(bool isGood, bool maySilent, Call call)
{
    const u64 before = LogLines();
    const u32 result = call();
    FUZZ_CHECK((result == XEL_OK) == isGood);
    FUZZ_CHECK(result == XEL_OK || result == XEL_EARG || result == XEL_EINVAL ||
               result == XEL_FAIL);
    const u64 lines = LogLines() - before;
    FUZZ_CHECK(isGood ? lines == 0 : lines > 0 || maySilent);
}

// One attribute object of each family, for the whole input.
struct Attributes {
    XelTaskAttr* task = XEL_TaskCreateAttr();
    XelEventAttr* event = XEL_EventCreateAttr();
    XelTimerAttr* timer = XEL_TimerCreateAttr();
    XelThreadAttr* thread = XEL_ThreadCreateAttr();

    Attributes() = default;
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    ~Attributes()
    {
        XEL_TaskDestroyAttr(task);
        XEL_EventDestoryAttr(event);
        XEL_TimerDestroyAttr(timer);
        XEL_ThreadDestroyAttr(thread);
    }
};

void SetAttribute(Attributes& attrs, Input& input)
{
    const u32 family = input.Below(4);
    const Question question = Ask(input);
    const void* value = question.value.get();
    switch (family) {
    case 0:
        CheckAnswer(IsTaskValueGood(question), question.cmd == XEL_TASK_ATTR_PRIO, [&] {
            return XEL_TaskSetAttr(attrs.task, question.cmd, value, question.size);
        });
        break;
    case 1:
        CheckAnswer(IsEventValueGood(question), question.cmd <= XEL_EVENT_ATTR_TASK_NAME, [&] {
            return XEL_EventSetAttr(attrs.event, question.cmd, value, question.size);
        });
        break;
    case 2:
        CheckAnswer(IsTimerValueGood(question), false, [&] {
            return XEL_TimerSetAttr(attrs.timer, question.cmd, value, question.size);
        });
        break;
    default:
        CheckAnswer(IsThreadValueGood(question), false, [&] {
            return XEL_ThreadSetAttr(attrs.thread, static_cast<i32>(question.cmd), value,
                                     question.size);
        });
        break;
    }
}

// What the name has to be: cut out behind the first parenthesis, every second character raised.
std::string ExpectedName(const std::string& symbol, size_t size)
{
    std::string name;
    for (size_t i = symbol.find('(') + 1; name.size() < size - 1; ++i) {
        if (symbol[i] == ')' || symbol[i] == '+') {
            break;
        }
        const int raise = name.size() % 2 == 0 ? 0 : 1;
        name.push_back(static_cast<char>(static_cast<u8>(symbol[i] + raise)));
    }
    return name;
}

// A text that ends the copy within the buffer's size, as every symbol text does: only the two
// closing characters stop it.
void CutName(Input& input)
{
    const size_t size = 2 + input.Below(40);
    std::string symbol(input.Below(kMaxText), '\0');
    input.Fill(symbol.data(), symbol.size());
    std::replace(symbol.begin(), symbol.end(), '\0', ' ');
    const bool hasOpening = symbol.find('(') != std::string::npos;
    if (input.Flag()) {
        symbol.append(input.Flag() ? "+0x10) [0x1]" : ")");
    } else {
        symbol.append(size, 'x');
    }
    const auto text = std::make_unique<char[]>(symbol.size() + 1);
    memcpy(text.get(), symbol.c_str(), symbol.size() + 1);
    const auto buf = std::make_unique<char[]>(size);
    memset(buf.get(), '#', size);
    const u32 result = SchFuncNameDeal(buf.get(), size, text.get());
    FUZZ_CHECK(result == (hasOpening ? XEL_OK : XEL_FAIL));
    if (hasOpening) {
        const std::string name = ExpectedName(symbol, size);
        FUZZ_CHECK(memcmp(buf.get(), name.c_str(), name.size() + 1) == 0);
    } else {
        FUZZ_CHECK(std::all_of(buf.get(), buf.get() + size, [](char c) { return c == '#'; }));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, size_t size)
{
    const Footprint before = Measure();
    {
        Input input(bytes, size);
        Attributes attrs;
        for (u32 i = 0; i < kMaxCalls && !input.IsEmpty(); ++i) {
            if (input.Below(3) == 0) {
                CutName(input);
            } else {
                SetAttribute(attrs, input);
            }
        }
    }
    FUZZ_CHECK(Measure() == before);
    return 0;
}
