// The fixture of the query tests: one task, and records that show what was written to them.
#ifndef XEL_TESTS_TASK_QUERY_SUPPORT_H
#define XEL_TESTS_TASK_QUERY_SUPPORT_H

#include <algorithm>
#include <cstring>

#include "task_support.h"

namespace tasktest
{

constexpr u32 kFailed = 0xFFFFFFFFU;
constexpr u32 kMagic = 0x3DFFE844U;

// Fills a record in place: a copy would not carry the bytes between its fields.
template <typename Record>
void Fill(Record* record)
{
    memset(static_cast<void*>(record), 0x5A, sizeof(*record));
}

template <typename Record>
bool IsUntouched(const Record& record)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
    return std::all_of(bytes, bytes + sizeof(record),
                       [](unsigned char byte) { return byte == 0x5A; });
}

class TaskQuery : public TaskTest
{
protected:
    void SetUp() override
    {
        TaskTest::SetUp();
        Fill(&info_);
        Fill(&event_);
        fd_ = xeltest::Fd::Event();
        task_ = XEL_TaskCreate(fd_.Get(),
                               xeltest::Attr({xeltest::NopProc, 7, 3, 5, "the task", 1}).Get());
        ASSERT_NE(task_, nullptr);
        task_->insertTime = 11;
        task_->lastInsertTime = 22;
    }
    void TearDown() override
    {
        xeltest::ResetFaults();
        EXPECT_TRUE(LockIsFree(task_));
        ForceMagic(task_, kMagic);
        task_->init = 1;
        XEL_TaskDestroy(task_);
        fd_.Reset();
        TaskTest::TearDown();
    }

    u32 Insert(u32 events, void* sch = nullptr)
    {
        struct epoll_event event {
            events, {}
        };
        return SchTaskGetInfoInsert(sch, task_, &event, &info_);
    }
    u32 GetEvent(u32 version)
    {
        Fill(&event_);
        return SchTaskGetEvent(task_, version, &event_);
    }

    xeltest::Fd fd_;
    SchTaskCtrl* task_ = nullptr;
    SchTaskInsertInfo info_{};
    struct epoll_event event_ {
    };
};

} // namespace tasktest

#endif // XEL_TESTS_TASK_QUERY_SUPPORT_H
