// Lists against a model, with nodes of every origin, and looked at by a reader without a lock.
#include "xel_list.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <random>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/xel_list_index.h"
#include "xel_pool.h"

namespace
{

std::vector<XelDll*> Forward(const XelDll& head)
{
    std::vector<XelDll*> nodes;
    for (XelDll* node = XelDllNextGet(&head); node != &head; node = XelDllNextGet(node)) {
        nodes.push_back(node);
    }
    return nodes;
}

std::vector<XelDll*> Backward(const XelDll& head)
{
    std::vector<XelDll*> nodes;
    for (XelDll* node = head.prev; node != &head; node = node->prev) {
        nodes.push_back(node);
    }
    std::reverse(nodes.begin(), nodes.end());
    return nodes;
}

TEST(List, NodeAndHeadHaveTheirFixedSizes)
{
    EXPECT_EQ(sizeof(XelDll), 24U);
    EXPECT_EQ(sizeof(XelSll), 16U);
}

TEST(List, InitMakesAnEmptyListAndSetsTheCounterToZero)
{
    XelDll head;
    uint32_t counter = 77;
    XelDllInit(&head, &counter);
    EXPECT_EQ(counter, 0U);
    EXPECT_EQ(head.data, &counter);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.prev, &head);
    EXPECT_TRUE(XelDllIsEmpty(&head));
    EXPECT_EQ(XelDllNextGet(&head), &head);
}

TEST(List, PrevAddsAtTheTailAndNextAtTheFront)
{
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    XelDll nodes[3];
    int data = 0;
    XelDllInitAndAddPrev(&head, &nodes[1], &data);
    XelDllInitAndAddPrev(&head, &nodes[2], nullptr);
    XelDllInitAndAddNext(&head, &nodes[0], &nodes);
    EXPECT_EQ(Forward(head), (std::vector<XelDll*>{&nodes[0], &nodes[1], &nodes[2]}));
    EXPECT_EQ(Backward(head), Forward(head));
    EXPECT_EQ(nodes[0].data, &nodes);
    EXPECT_EQ(nodes[1].data, &data);
    EXPECT_EQ(nodes[2].data, nullptr);
    EXPECT_EQ(counter, 3U);
    EXPECT_FALSE(XelDllIsEmpty(&head));
    for (XelDll& node : nodes) {
        XelDllDel(&node);
    }
}

TEST(List, DeletedNodeHasNullLinksAndKeepsItsData)
{
    XelDll head;
    XelDll node;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    XelDllInitAndAddNext(&head, &node, &counter);
    XelDllDel(&node);
    EXPECT_EQ(node.next, nullptr);
    EXPECT_EQ(node.prev, nullptr);
    EXPECT_EQ(node.data, &counter);
    EXPECT_EQ(counter, 0U);
    EXPECT_TRUE(XelDllIsEmpty(&head));
    EXPECT_EQ(XelDllNextGet(&node), nullptr);
}

TEST(List, DeletingWhatIsNotLinkedDoesNothing)
{
    XelDll head;
    XelDll linked;
    XelDll fresh = {};
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    XelDllInitAndAddPrev(&head, &linked, nullptr);
    XelDllDel(nullptr);
    XelDllDel(&fresh);
    XelDllDel(&head);
    EXPECT_EQ(counter, 1U);
    EXPECT_EQ(Forward(head), std::vector<XelDll*>{&linked});
    XelDllDel(&linked);
    XelDllDel(&linked);
    EXPECT_EQ(counter, 0U);
}

TEST(List, NullIsHarmlessEverywhere)
{
    XelDll head;
    XelDll node = {};
    uint32_t counter = 5;
    XelDllInit(nullptr, &counter);
    EXPECT_EQ(counter, 5U);
    XelDllInit(&head, nullptr);
    XelDllInitAndAddPrev(nullptr, &node, nullptr);
    XelDllInitAndAddNext(nullptr, &node, nullptr);
    XelDllInitAndAddPrev(&head, nullptr, nullptr);
    XelDllInitAndAddNext(&head, nullptr, nullptr);
    EXPECT_TRUE(XelDllIsEmpty(&head));
    XelDllInitAndAddNext(&head, &node, nullptr);
    EXPECT_EQ(XelDllNextGet(&head), &node) << "a list without a counter";
    XelDllDel(&node);
    EXPECT_TRUE(XelDllIsEmpty(&head));
    EXPECT_EQ(XelDllNextGet(nullptr), nullptr);
    EXPECT_TRUE(XelDllIsEmpty(nullptr));
}

TEST(List, HeadsThatShareACounterCountTogether)
{
    XelDll heads[3];
    XelDll nodes[9];
    uint32_t counter = 0;
    for (XelDll& head : heads) {
        XelDllInit(&head, &counter);
    }
    for (uint32_t i = 0; i < 9; i++) {
        XelDllInitAndAddPrev(&heads[i % 3], &nodes[i], nullptr);
        EXPECT_EQ(counter, i + 1);
    }
    for (uint32_t i = 9; i > 0; i--) {
        XelDllDel(&nodes[i - 1]);
        EXPECT_EQ(counter, i - 1);
    }
}

TEST(List, UnitFreedWhileLinkedAndTakenAgainBelongsToNoList)
{
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    void* pool = FmmCtrlCreate(sizeof(XelDll), 8, 2);
    auto* node = static_cast<XelDll*>(FmmUnitAlloc(pool));
    FmmUnitFree(FmmUnitAlloc(pool)); // so that the free list has a second unit to link to
    XelDllInitAndAddPrev(&head, node, nullptr);
    FmmUnitFree(node);
    XelDllDel(node);
    EXPECT_EQ(counter, 1U) << "a freed unit is no node any more";
    ASSERT_EQ(FmmUnitAlloc(pool), node);
    XelDllDel(node);
    EXPECT_EQ(counter, 1U) << "neither is the next unit at its place";
    EXPECT_EQ(Forward(head), std::vector<XelDll*>{node}) << "nothing was unlinked";
    FmmCtrlDestroy(pool);
    XelDllDel(node);
    EXPECT_EQ(counter, 1U);
}

TEST(List, NodeInNoListIsLeftAloneWhateverItsLinksSay)
{
    XelDll head;
    XelDll foreign;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    void* pool = FmmCtrlCreate(sizeof(XelDll), 8, 2);
    auto* unit = static_cast<XelDll*>(FmmUnitAlloc(pool));
    for (XelDll* node : {&foreign, unit}) {
        XelDllInitAndAddPrev(&head, node, nullptr);
        XelDllDel(node);
        node->next = &head;
        node->prev = &head;
        XelDllDel(node);
        EXPECT_EQ(counter, 0U);
        EXPECT_EQ(node->next, &head);
    }
    FmmCtrlDestroy(pool);
}

TEST(List, LinkingAUnitChangesNothingInThePool)
{
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    void* pool = FmmCtrlCreate(sizeof(XelDll), 8, 2);
    std::vector<XelDll*> nodes;
    for (int i = 0; i < 3000; i++) {
        nodes.push_back(static_cast<XelDll*>(FmmUnitAlloc(pool)));
        XelDllInitAndAddPrev(&head, nodes.back(), nullptr);
    }
    EXPECT_EQ(Forward(head), nodes);
    for (XelDll* node : nodes) {
        XelDllDel(node);
        FmmUnitFree(node);
    }
    for (auto node = nodes.rbegin(); node != nodes.rend(); ++node) {
        ASSERT_EQ(FmmUnitAlloc(pool), *node);
    }
    FmmCtrlDestroy(pool);
}

// Nodes of every origin: units, the inside of units, the heap and static memory.
class NodeStock
{
public:
    NodeStock() : pool_(FmmCtrlCreate(sizeof(XelDll), 8, 2)), widePool_(FmmCtrlCreate(64, 8, 6))
    {
        for (size_t i = 0; i < kEach; i++) {
            nodes.push_back(static_cast<XelDll*>(FmmUnitAlloc(pool_)));
            nodes.push_back(
                reinterpret_cast<XelDll*>(static_cast<char*>(FmmUnitAlloc(widePool_)) + 16));
            heap_.push_back(std::make_unique<XelDll>());
            nodes.push_back(heap_.back().get());
            nodes.push_back(&g_static[i]);
        }
    }
    ~NodeStock()
    {
        FmmCtrlDestroy(pool_);
        FmmCtrlDestroy(widePool_);
    }
    NodeStock(const NodeStock&) = delete;
    NodeStock& operator=(const NodeStock&) = delete;

    std::vector<XelDll*> nodes;

private:
    static constexpr size_t kEach = 15;
    static XelDll g_static[kEach];

    void* pool_;
    void* widePool_;
    std::vector<std::unique_ptr<XelDll>> heap_;
};

XelDll NodeStock::g_static[kEach];

TEST(List, FollowsAModelWithNodesOfEveryOrigin)
{
    constexpr size_t kHeads = 4;
    XelDll heads[kHeads];
    uint32_t counters[2] = {};
    std::vector<XelDll*> model[kHeads];
    for (size_t i = 0; i < kHeads; i++) {
        XelDllInit(&heads[i], &counters[i / 2]); // two heads share each counter
    }
    NodeStock stock;
    std::mt19937 random(7);
    for (int step = 0; step < 20000; step++) {
        XelDll* node = stock.nodes[random() % stock.nodes.size()];
        size_t at = 0;
        while (at < kHeads && std::count(model[at].begin(), model[at].end(), node) == 0) {
            at++;
        }
        if (at < kHeads || random() % 4 == 0) {
            XelDllDel(node);
            ASSERT_EQ(node->next, nullptr);
            for (std::vector<XelDll*>& list : model) {
                std::erase(list, node);
            }
        } else {
            at = random() % kHeads;
            const bool front = random() % 2 == 0;
            (front ? XelDllInitAndAddNext : XelDllInitAndAddPrev)(&heads[at], node, &model[at]);
            model[at].insert(front ? model[at].begin() : model[at].end(), node);
            ASSERT_EQ(node->data, &model[at]);
        }
        for (size_t i = 0; i < kHeads; i++) {
            ASSERT_EQ(counters[i / 2], model[i / 2 * 2].size() + model[i / 2 * 2 + 1].size());
        }
        if (step % 50 == 0) {
            for (size_t i = 0; i < kHeads; i++) {
                ASSERT_EQ(Forward(heads[i]), model[i]);
                ASSERT_EQ(Backward(heads[i]), model[i]);
                ASSERT_EQ(XelDllIsEmpty(&heads[i]), model[i].empty());
            }
        }
    }
    for (XelDll* node : stock.nodes) {
        XelDllDel(node);
    }
    EXPECT_EQ(counters[0] + counters[1], 0U);
}

TEST(List, HundredThousandNodesLeaveInAnyOrderWithExactCounts)
{
    constexpr uint32_t kNodes = 100000;
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    std::vector<XelDll> foreign(kNodes / 2);
    void* pool = FmmCtrlCreate(sizeof(XelDll), kNodes / 2, 2);
    std::vector<XelDll*> nodes;
    for (XelDll& node : foreign) {
        nodes.push_back(&node);
        nodes.push_back(static_cast<XelDll*>(FmmUnitAlloc(pool)));
    }
    for (XelDll* node : nodes) {
        XelDllInitAndAddPrev(&head, node, nullptr);
    }
    ASSERT_EQ(counter, kNodes);
    std::shuffle(nodes.begin(), nodes.end(), std::mt19937(8));
    for (uint32_t left = kNodes; left > 0; left--) {
        XelDllDel(nodes[left - 1]);
        ASSERT_EQ(counter, left - 1);
    }
    EXPECT_TRUE(XelDllIsEmpty(&head));
    FmmCtrlDestroy(pool);
}

TEST(List, ReaderWithoutTheLockWalksBesideAWriter)
{
    constexpr size_t kNodes = 32;
    constexpr size_t kStepBound = 1000;
    XelDll head;
    uint32_t counter = 0;
    XelDllInit(&head, &counter);
    void* pool = FmmCtrlCreate(sizeof(XelDll), kNodes, 2);
    std::vector<XelDll*> nodes(kNodes);
    for (XelDll*& node : nodes) {
        node = static_cast<XelDll*>(FmmUnitAlloc(pool));
    }
    std::atomic<bool> stop{false};
    std::atomic<bool> strange{false};
    std::thread reader([&] {
        while (!stop.load(std::memory_order_relaxed)) {
            XelDll* node = XelDllNextGet(&head);
            for (size_t step = 0; node != nullptr && node != &head && step < kStepBound; step++) {
                void* data = std::atomic_ref<void*>(node->data).load(std::memory_order_relaxed);
                strange = strange || data != &nodes;
                node = XelDllNextGet(node);
            }
            const uint32_t count = std::atomic_ref<uint32_t>(counter).load();
            strange = strange || count > kNodes;
            (void)XelDllIsEmpty(&head);
        }
    });
    std::mt19937 random(9);
    for (int step = 0; step < 20000; step++) {
        XelDll* node = nodes[random() % kNodes];
        if (XelDllNextGet(node) != nullptr) {
            XelDllDel(node);
        } else {
            (step % 2 == 0 ? XelDllInitAndAddNext : XelDllInitAndAddPrev)(&head, node, &nodes);
        }
    }
    stop = true;
    reader.join();
    EXPECT_FALSE(strange.load());
    EXPECT_EQ(Forward(head).size(), counter);
    FmmCtrlDestroy(pool);
}

TEST(List, ListsOfDifferentThreadsDoNotDisturbEachOther)
{
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    threads.reserve(4);
    for (int i = 0; i < 4; i++) {
        threads.emplace_back([&wrong] {
            XelDll head;
            uint32_t counter = 0;
            XelDllInit(&head, &counter);
            std::vector<XelDll> nodes(500);
            for (int round = 0; round < 10; round++) {
                for (XelDll& node : nodes) {
                    XelDllInitAndAddPrev(&head, &node, nullptr);
                }
                wrong += counter == nodes.size() ? 0 : 1;
                for (XelDll& node : nodes) {
                    XelDllDel(&node);
                }
                wrong += counter == 0 ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong.load(), 0);
}

TEST(ListIndex, FollowsAModelThroughGrowthAndDeletedPlaces)
{
    ListIndex index;
    std::unordered_map<uint64_t, uint64_t> model;
    std::mt19937_64 random(10);
    // Growing, shrinking to nothing and growing again; neighbours and far apart.
    for (const uint64_t range : {50U, 3000U, 40U, 20000U}) {
        for (int step = 0; step < 40000; step++) {
            const uint64_t node = 0x7F0000000000U + random() % range * (range % 3 == 0 ? 8 : 4096);
            if (random() % 2 == 0) {
                ASSERT_TRUE(index.Put(node, node + 1));
                model[node] = node + 1;
            } else {
                const auto found = model.find(node);
                ASSERT_EQ(index.Take(node), found != model.end() ? found->second : 0);
                model.erase(node);
            }
        }
        for (const auto& [node, head] : model) {
            ASSERT_EQ(index.Take(node), head);
        }
        model.clear();
    }
    EXPECT_EQ(index.Take(0x7F0000000000U), 0U);
}

TEST(ListIndex, LaterEntryReplacesAnEarlierOne)
{
    ListIndex index;
    EXPECT_EQ(index.Take(8), 0U);
    EXPECT_TRUE(index.Put(8, 1));
    EXPECT_TRUE(index.Put(8, 2));
    EXPECT_EQ(index.Take(8), 2U);
    EXPECT_EQ(index.Take(8), 0U);
}

TEST(SinglyList, AddsAtTheFrontAndIsCircular)
{
    XelSll head;
    XelSll nodes[3];
    uint32_t counter = 9;
    XelSllInit(&head, &counter);
    EXPECT_EQ(counter, 0U);
    EXPECT_EQ(head.next, &head);
    EXPECT_EQ(head.data, &counter);
    for (uint32_t i = 0; i < 3; i++) {
        XelSllInitAndAdd(&head, &nodes[i], &nodes[i]);
        EXPECT_EQ(counter, i + 1);
        EXPECT_EQ(nodes[i].data, &nodes[i]);
    }
    EXPECT_EQ(head.next, &nodes[2]);
    EXPECT_EQ(nodes[2].next, &nodes[1]);
    EXPECT_EQ(nodes[1].next, &nodes[0]);
    EXPECT_EQ(nodes[0].next, &head);
}

TEST(SinglyList, DeletesOnlyItsOwnNodes)
{
    XelSll heads[2];
    XelSll nodes[4];
    uint32_t counters[2];
    for (int i = 0; i < 2; i++) {
        XelSllInit(&heads[i], &counters[i]);
    }
    for (int i = 0; i < 4; i++) {
        XelSllInitAndAdd(&heads[i % 2], &nodes[i], nullptr);
    }
    XelSllDel(&heads[0], &nodes[1]);
    XelSllDel(&heads[0], &heads[0]);
    XelSllDel(nullptr, &nodes[0]);
    XelSllDel(&heads[0], nullptr);
    EXPECT_EQ(counters[0], 2U);
    EXPECT_EQ(counters[1], 2U);
    XelSllDel(&heads[0], &nodes[0]);
    XelSllDel(&heads[0], &nodes[0]);
    EXPECT_EQ(counters[0], 1U);
    EXPECT_EQ(nodes[0].next, nullptr);
    EXPECT_EQ(heads[0].next, &nodes[2]);
    EXPECT_EQ(nodes[2].next, &heads[0]);
    XelSllDel(&heads[0], &nodes[2]);
    EXPECT_EQ(counters[0], 0U);
    EXPECT_EQ(heads[0].next, &heads[0]);
    XelSll never = {};
    XelSllDel(&never, &nodes[1]);
    EXPECT_EQ(counters[1], 2U);
}

} // namespace
