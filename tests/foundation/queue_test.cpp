// Both families of queues against a model, through one table of their functions.
#include "xel_queue.h"

#include <cstring>
#include <deque>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace
{

struct QueueFamily {
    const char* name;
    void* (*create)(uint32_t elemSize, uint32_t capacity);
    void (*destroy)(void*);
    uint32_t (*enqueue)(void*, const void*);
    uint32_t (*dequeue)(void*, void*);
    uint32_t (*used)(const void*);
};

void PrintTo(const QueueFamily& family, std::ostream* out)
{
    *out << family.name;
}

const QueueFamily kFamilies[] = {
    {"Fixed", XelQueCreate, XelQueDestroy, XelQueEnqueue, XelQueDequeue, XelQueGetSizeUsed},
    {"Flexible",
     [](uint32_t elemSize, uint32_t capacity) {
         return XelFlexibleQueCreate(elemSize, 8, capacity);
     },
     XelFlexibleQueDestroy, XelFlexibleQueEnqueue, XelFlexibleQueDequeue, XelFlexibleQueGetUsedNum},
};

class Queue : public testing::TestWithParam<QueueFamily>
{
};

INSTANTIATE_TEST_SUITE_P(Families, Queue, testing::ValuesIn(kFamilies),
                         [](const auto& tested) { return tested.param.name; });

TEST_P(Queue, SizeZeroIsRefused)
{
    EXPECT_EQ(GetParam().create(0, 1), nullptr);
    EXPECT_EQ(GetParam().create(1, 0), nullptr);
    EXPECT_EQ(GetParam().create(0, 0), nullptr);
}

TEST_P(Queue, MoreThanAddressSpaceIsRefused)
{
    EXPECT_EQ(GetParam().create(UINT32_MAX, UINT32_MAX), nullptr);
}

TEST_P(Queue, NullIsRefused)
{
    char elem[4] = "abc";
    EXPECT_EQ(GetParam().enqueue(nullptr, elem), XEL_FAIL);
    EXPECT_EQ(GetParam().dequeue(nullptr, elem), XEL_FAIL);
    EXPECT_EQ(GetParam().used(nullptr), 0U);
    GetParam().destroy(nullptr);
    void* queue = GetParam().create(sizeof(elem), 2);
    ASSERT_NE(queue, nullptr);
    EXPECT_EQ(GetParam().enqueue(queue, nullptr), XEL_FAIL);
    EXPECT_EQ(GetParam().used(queue), 0U);
    EXPECT_EQ(GetParam().enqueue(queue, elem), XEL_OK);
    EXPECT_EQ(GetParam().dequeue(queue, nullptr), XEL_FAIL);
    EXPECT_EQ(GetParam().used(queue), 1U);
    GetParam().destroy(queue);
}

TEST_P(Queue, EmptyLeavesTheOutputUntouched)
{
    void* queue = GetParam().create(4, 1);
    char out[4] = "abc";
    EXPECT_EQ(GetParam().dequeue(queue, out), XEL_FAIL);
    EXPECT_STREQ(out, "abc");
    GetParam().destroy(queue);
}

TEST_P(Queue, CapacityOneTakesOneElement)
{
    void* queue = GetParam().create(sizeof(int), 1);
    for (int i = 0; i < 10; i++) {
        int out = -1;
        const int other = 99;
        ASSERT_EQ(GetParam().enqueue(queue, &i), XEL_OK);
        ASSERT_EQ(GetParam().enqueue(queue, &other), XEL_FAIL);
        ASSERT_EQ(GetParam().dequeue(queue, &out), XEL_OK);
        ASSERT_EQ(out, i);
        ASSERT_EQ(GetParam().dequeue(queue, &out), XEL_FAIL);
    }
    GetParam().destroy(queue);
}

TEST_P(Queue, KeepsOrderAndBytesOverManyWraps)
{
    std::mt19937 random(1);
    for (const uint32_t elemSize : {1U, 3U, 16U, 100U}) {
        for (const uint32_t capacity : {1U, 2U, 7U, 64U}) {
            void* queue = GetParam().create(elemSize, capacity);
            ASSERT_NE(queue, nullptr);
            std::deque<std::string> model;
            for (int step = 0; step < 2000; step++) {
                std::string elem(elemSize, '\0');
                if (random() % 2 == 0) {
                    for (char& c : elem) {
                        c = static_cast<char>(random());
                    }
                    const bool fits = model.size() < capacity;
                    ASSERT_EQ(GetParam().enqueue(queue, elem.data()), fits ? XEL_OK : XEL_FAIL);
                    if (fits) {
                        model.push_back(elem);
                    }
                } else {
                    const bool any = !model.empty();
                    ASSERT_EQ(GetParam().dequeue(queue, elem.data()), any ? XEL_OK : XEL_FAIL);
                    if (any) {
                        ASSERT_EQ(elem, model.front());
                        model.pop_front();
                    }
                }
                ASSERT_EQ(GetParam().used(queue), model.size());
            }
            GetParam().destroy(queue);
        }
    }
}

TEST(FixedQueue, UsedAndFreeMakeTheCapacity)
{
    void* queue = XelQueCreate(1, 5);
    for (uint32_t used = 0; used <= 5; used++) {
        EXPECT_EQ(XelQueGetSizeUsed(queue), used);
        EXPECT_EQ(XelQueGetSizeFree(queue), 5 - used);
        EXPECT_EQ(XelQueEnqueue(queue, "x"), used < 5 ? XEL_OK : XEL_FAIL);
    }
    XelQueDestroy(queue);
    EXPECT_EQ(XelQueGetSizeFree(nullptr), 0U);
}

TEST(FlexibleQueue, FrontCopiesTheOldestAndKeepsIt)
{
    void* queue = XelFlexibleQueCreate(sizeof(int), 8, 3);
    int out = -1;
    EXPECT_EQ(XelFlexibleQueGetFront(queue, &out), XEL_FAIL);
    EXPECT_EQ(out, -1);
    for (const int value : {7, 8, 9}) {
        ASSERT_EQ(XelFlexibleQueEnqueue(queue, &value), XEL_OK);
    }
    for (const int value : {7, 8, 9}) {
        EXPECT_EQ(XelFlexibleQueGetFront(queue, &out), XEL_OK);
        EXPECT_EQ(out, value);
        EXPECT_EQ(XelFlexibleQueGetFront(queue, nullptr), XEL_FAIL);
        EXPECT_EQ(XelFlexibleQueDequeue(queue, &out), XEL_OK);
        EXPECT_EQ(out, value);
    }
    EXPECT_EQ(XelFlexibleQueGetFront(nullptr, &out), XEL_FAIL);
    XelFlexibleQueDestroy(queue);
}

TEST(FlexibleQueue, FullAndEmptyFollowTheContent)
{
    void* queue = XelFlexibleQueCreate(1, 8, 2);
    char out = 0;
    EXPECT_TRUE(XelIsFlexibleQueEmpty(queue));
    EXPECT_FALSE(XelIsFlexibleQueFull(queue));
    XelFlexibleQueEnqueue(queue, "a");
    EXPECT_FALSE(XelIsFlexibleQueEmpty(queue));
    EXPECT_FALSE(XelIsFlexibleQueFull(queue));
    XelFlexibleQueEnqueue(queue, "b");
    EXPECT_FALSE(XelIsFlexibleQueEmpty(queue));
    EXPECT_TRUE(XelIsFlexibleQueFull(queue));
    XelFlexibleQueDequeue(queue, &out);
    EXPECT_FALSE(XelIsFlexibleQueFull(queue));
    EXPECT_TRUE(XelIsFlexibleQueFull(nullptr));
    EXPECT_TRUE(XelIsFlexibleQueEmpty(nullptr));
    XelFlexibleQueDestroy(queue);
}

TEST(FlexibleQueue, ClearDropsEverything)
{
    void* queue = XelFlexibleQueCreate(1, 8, 3);
    char out = 0;
    XelFlexibleQueEnqueue(queue, "a");
    XelFlexibleQueEnqueue(queue, "b");
    XelFlexibleQueDequeue(queue, &out);
    XelFlexibleQueClear(queue);
    EXPECT_EQ(XelFlexibleQueGetUsedNum(queue), 0U);
    EXPECT_TRUE(XelIsFlexibleQueEmpty(queue));
    for (const char* value : {"x", "y", "z"}) {
        EXPECT_EQ(XelFlexibleQueEnqueue(queue, value), XEL_OK);
    }
    EXPECT_EQ(XelFlexibleQueEnqueue(queue, "!"), XEL_FAIL);
    EXPECT_EQ(XelFlexibleQueDequeue(queue, &out), XEL_OK);
    EXPECT_EQ(out, 'x');
    XelFlexibleQueClear(nullptr);
    XelFlexibleQueDestroy(queue);
}

TEST(FlexibleQueue, EveryModeWorksAlike)
{
    for (const uint32_t mode : {0U, 1U, 8U, UINT32_MAX}) {
        void* queue = XelFlexibleQueCreate(1, mode, 1);
        ASSERT_NE(queue, nullptr);
        EXPECT_EQ(XelFlexibleQueEnqueue(queue, "a"), XEL_OK);
        EXPECT_EQ(XelFlexibleQueEnqueue(queue, "b"), XEL_FAIL);
        XelFlexibleQueDestroy(queue);
    }
}

} // namespace
