// The hash table against a model, with an allocator that counts its blocks and fails on demand.
#include "xel_hash.h"

#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>

#include <gtest/gtest.h>

namespace
{

// The table's functions take no context: their state is reset by the fixture.
struct AllocState {
    std::set<void*> blocks;
    std::set<void*> keyBlocks; // released by the key function
    int failAfter = -1;        // the allocation to fail, counted from 0; -1: none
    bool strange = false;      // a block was released that is not live
};
AllocState* g_state = nullptr;

void* Alloc(size_t size)
{
    if (g_state->failAfter >= 0 && g_state->failAfter-- == 0) {
        return nullptr;
    }
    void* block = malloc(size);
    memset(block, 0xEE, size);
    g_state->blocks.insert(block);
    return block;
}

void Release(void* block)
{
    g_state->strange |= g_state->blocks.erase(block) != 1;
    free(block);
}

void ReleaseKey(void* block)
{
    g_state->keyBlocks.insert(block);
    Release(block);
}

uint32_t FewBuckets(const void* key)
{
    return static_cast<uint32_t>(strlen(static_cast<const char*>(key)));
}

uint32_t Spread(const void* key)
{
    uint32_t hash = 0;
    for (const char* c = static_cast<const char*>(key); *c != '\0'; c++) {
        hash = hash * 33 + static_cast<unsigned char>(*c);
    }
    return hash;
}

int32_t Match(const void* a, const void* b)
{
    return strcmp(static_cast<const char*>(a), static_cast<const char*>(b));
}

class Hash : public testing::Test
{
protected:
    void SetUp() override { g_state = &state_; }
    void TearDown() override
    {
        EXPECT_TRUE(state_.blocks.empty());
        EXPECT_FALSE(state_.strange);
        g_state = nullptr;
    }

    static XelHashDllParam Param()
    {
        return XelHashDllParam{32, Spread, Match, Alloc, Release, ReleaseKey};
    }

    AllocState state_;
};

int g_entries[64];

TEST_F(Hash, IncompleteDescriptionsAreRefused)
{
    EXPECT_EQ(XelHashDllTblCreate(nullptr), nullptr);
    XelHashDllParam cases[6];
    for (XelHashDllParam& param : cases) {
        param = Param();
    }
    cases[0].bucketCount = 0;
    cases[1].hash = nullptr;
    cases[2].match = nullptr;
    cases[3].alloc = nullptr;
    cases[4].release = nullptr;
    cases[5].release2 = nullptr;
    for (const XelHashDllParam& param : cases) {
        EXPECT_EQ(XelHashDllTblCreate(&param), nullptr);
    }
}

TEST_F(Hash, DescriptionIsReadDuringCreationOnly)
{
    XelHashDllParam param = Param();
    void* table = XelHashDllTblCreate(&param);
    ASSERT_NE(table, nullptr);
    memset(static_cast<void*>(&param), 0, sizeof(param));
    EXPECT_EQ(XelHashDllEntryAdd(table, "a", g_entries), XEL_OK);
    EXPECT_EQ(XelHashDllEntryLkup(table, "a"), g_entries);
    XelHashDllTblDestroy(table);
}

TEST_F(Hash, NullArgumentsAreRefused)
{
    const XelHashDllParam param = Param();
    void* table = XelHashDllTblCreate(&param);
    EXPECT_EQ(XelHashDllEntryAdd(nullptr, "a", g_entries), XEL_FAIL);
    EXPECT_EQ(XelHashDllEntryAdd(table, nullptr, g_entries), XEL_FAIL);
    EXPECT_EQ(XelHashDllEntryAdd(table, "a", nullptr), XEL_FAIL);
    EXPECT_EQ(XelHashDllEntryDel(nullptr, "a"), XEL_FAIL);
    EXPECT_EQ(XelHashDllEntryDel(table, nullptr), XEL_FAIL);
    EXPECT_EQ(XelHashDllEntryLkup(nullptr, "a"), nullptr);
    EXPECT_EQ(XelHashDllEntryLkup(table, nullptr), nullptr);
    EXPECT_EQ(state_.blocks.size(), 1U) << "a refused add took memory";
    XelHashDllTblDestroy(nullptr);
    XelHashDllTblDestroy(table);
}

TEST_F(Hash, ExistingKeyIsRefusedAndChangesNothing)
{
    const XelHashDllParam param = Param();
    void* table = XelHashDllTblCreate(&param);
    ASSERT_EQ(XelHashDllEntryAdd(table, "a", &g_entries[0]), XEL_OK);
    const size_t blocks = state_.blocks.size();
    EXPECT_EQ(XelHashDllEntryAdd(table, "a", &g_entries[1]), XEL_FAIL);
    EXPECT_EQ(XelHashDllEntryLkup(table, "a"), &g_entries[0]);
    EXPECT_EQ(state_.blocks.size(), blocks);
    XelHashDllTblDestroy(table);
}

TEST_F(Hash, KeysAreCopied)
{
    const XelHashDllParam param = Param();
    void* table = XelHashDllTblCreate(&param);
    char key[] = "first";
    ASSERT_EQ(XelHashDllEntryAdd(table, key, g_entries), XEL_OK);
    strcpy(key, "other");
    EXPECT_EQ(XelHashDllEntryLkup(table, "first"), g_entries);
    EXPECT_EQ(XelHashDllEntryLkup(table, "other"), nullptr);
    EXPECT_EQ(XelHashDllEntryDel(table, "first"), XEL_OK);
    XelHashDllTblDestroy(table);
}

TEST_F(Hash, OnlyKeysGoThroughTheKeyRelease)
{
    const XelHashDllParam param = Param();
    void* table = XelHashDllTblCreate(&param);
    XelHashDllEntryAdd(table, "a", &g_entries[0]);
    XelHashDllEntryAdd(table, "b", &g_entries[1]);
    EXPECT_EQ(XelHashDllEntryDel(table, "a"), XEL_OK);
    EXPECT_EQ(state_.keyBlocks.size(), 1U);
    EXPECT_EQ(state_.blocks.size(), 3U) << "table, node and key";
    state_.keyBlocks.clear();
    XelHashDllTblDestroy(table);
    EXPECT_EQ(state_.keyBlocks.size(), 1U);
}

TEST_F(Hash, FollowsAModelInOneBucketAndInMany)
{
    std::mt19937 random(2);
    for (const uint32_t buckets : {1U, 2U, 32U}) {
        XelHashDllParam param = Param();
        param.bucketCount = buckets;
        param.hash = buckets == 2 ? FewBuckets : Spread;
        void* table = XelHashDllTblCreate(&param);
        std::map<std::string, void*> model;
        for (int step = 0; step < 4000; step++) {
            const std::string key(1 + random() % 3, static_cast<char>('a' + random() % 20));
            void* entry = &g_entries[random() % 64];
            switch (random() % 3) {
            case 0:
                ASSERT_EQ(XelHashDllEntryAdd(table, key.c_str(), entry) == XEL_OK,
                          model.emplace(key, entry).second);
                break;
            case 1:
                ASSERT_EQ(XelHashDllEntryDel(table, key.c_str()) == XEL_OK, model.erase(key) == 1);
                break;
            default:
                ASSERT_EQ(XelHashDllEntryLkup(table, key.c_str()),
                          model.contains(key) ? model[key] : nullptr);
            }
            ASSERT_EQ(state_.blocks.size(), 1 + 2 * model.size());
        }
        XelHashDllTblDestroy(table);
    }
}

TEST_F(Hash, AnAllocationThatFailsChangesNothing)
{
    const XelHashDllParam param = Param();
    state_.failAfter = 0;
    EXPECT_EQ(XelHashDllTblCreate(&param), nullptr);
    EXPECT_TRUE(state_.blocks.empty());
    state_.failAfter = -1;
    void* table = XelHashDllTblCreate(&param);
    ASSERT_EQ(XelHashDllEntryAdd(table, "kept", g_entries), XEL_OK);
    const std::set<void*> blocks = state_.blocks;
    for (const int failing : {0, 1}) {
        state_.failAfter = failing;
        EXPECT_EQ(XelHashDllEntryAdd(table, "new", g_entries), XEL_FAIL) << failing;
        EXPECT_EQ(state_.blocks, blocks);
        EXPECT_EQ(XelHashDllEntryLkup(table, "new"), nullptr);
        EXPECT_EQ(XelHashDllEntryLkup(table, "kept"), g_entries);
    }
    EXPECT_EQ(state_.failAfter, -1) << "every allocation was made to fail once";
    EXPECT_EQ(XelHashDllEntryAdd(table, "new", g_entries), XEL_OK);
    XelHashDllTblDestroy(table);
}

} // namespace
