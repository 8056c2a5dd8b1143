// Hash table of lists, keyed by copies of strings. All memory is the caller's allocator's; the
// owner of a table serialises all calls.
#include "xel_hash.h"

#include <cstring>

#include "common/xel_int.h"

namespace
{

struct HashNode {
    HashNode* next;
    char* key;
    void* entry;
};

struct Bucket {
    HashNode* first;
};

// Followed by the buckets.
struct HashTable {
    XelHashDllParam param;
};

Bucket& BucketAt(HashTable& table, u32 index)
{
    return *(reinterpret_cast<Bucket*>(&table + 1) + index);
}

// The link that leads to the node with this key, or the null link at the end of its bucket.
HashNode** FindLink(HashTable& table, const char* key)
{
    HashNode** link = &BucketAt(table, table.param.hash(key) % table.param.bucketCount).first;
    while (*link != nullptr && table.param.match((*link)->key, key) != 0) {
        link = &(*link)->next;
    }
    return link;
}

HashNode* MakeNode(const XelHashDllParam& param, const char* key, void* entry)
{
    auto* node = static_cast<HashNode*>(param.alloc(sizeof(HashNode)));
    if (node == nullptr) {
        return nullptr;
    }
    const size_t keySize = strlen(key) + 1;
    auto* copy = static_cast<char*>(param.alloc(keySize));
    if (copy == nullptr) {
        param.release(node);
        return nullptr;
    }
    memcpy(copy, key, keySize);
    *node = HashNode{nullptr, copy, entry};
    return node;
}

// Unlinks the node that link leads to, and frees it with its key.
void DropNode(HashTable& table, HashNode** link)
{
    HashNode* node = *link;
    *link = node->next;
    table.param.release2(node->key);
    table.param.release(node);
}

bool IsComplete(const XelHashDllParam* params)
{
    return params != nullptr && params->bucketCount != 0 && params->hash != nullptr &&
           params->match != nullptr && params->alloc != nullptr && params->release != nullptr &&
           params->release2 != nullptr;
}

} // namespace

void* XelHashDllTblCreate(const XelHashDllParam* params)
{
    if (!IsComplete(params)) {
        return nullptr;
    }
    const size_t bucketBytes = size_t{params->bucketCount} * sizeof(Bucket);
    auto* table = static_cast<HashTable*>(params->alloc(sizeof(HashTable) + bucketBytes));
    if (table != nullptr) {
        table->param = *params;
        memset(&BucketAt(*table, 0), 0, bucketBytes);
    }
    return table;
}

void XelHashDllTblDestroy(void* handle)
{
    if (handle == nullptr) {
        return;
    }
    auto* table = static_cast<HashTable*>(handle);
    for (u32 i = 0; i < table->param.bucketCount; i++) {
        Bucket& bucket = BucketAt(*table, i);
        while (bucket.first != nullptr) {
            DropNode(*table, &bucket.first);
        }
    }
    table->param.release(table);
}

uint32_t XelHashDllEntryAdd(void* handle, const char* key, void* entry)
{
    if (handle == nullptr || key == nullptr || entry == nullptr) {
        return XEL_FAIL;
    }
    auto* table = static_cast<HashTable*>(handle);
    HashNode** link = FindLink(*table, key);
    if (*link != nullptr) {
        return XEL_FAIL;
    }
    *link = MakeNode(table->param, key, entry);
    return *link != nullptr ? XEL_OK : XEL_FAIL;
}

uint32_t XelHashDllEntryDel(void* handle, const char* key)
{
    if (handle == nullptr || key == nullptr) {
        return XEL_FAIL;
    }
    auto* table = static_cast<HashTable*>(handle);
    HashNode** link = FindLink(*table, key);
    if (*link == nullptr) {
        return XEL_FAIL;
    }
    DropNode(*table, link);
    return XEL_OK;
}

void* XelHashDllEntryLkup(void* handle, const char* key)
{
    if (handle == nullptr || key == nullptr) {
        return nullptr;
    }
    const HashNode* node = *FindLink(*static_cast<HashTable*>(handle), key);
    return node != nullptr ? node->entry : nullptr;
}
