// Which addresses are live handles: the answer that a walk of the list of live records would give,
// in constant time. An address is only compared, never followed, so any value may be asked about.
// The lock of the owning list guards it: changes under the write side, questions under either.
#ifndef XEL_COMMON_ADDRESS_INDEX_H
#define XEL_COMMON_ADDRESS_INDEX_H

#include "common/xel_int.h"

// Stands behind a record in its block.
struct AddressLink {
    AddressLink* next;
    const void* address;
};

template <u32 BucketBits>
class AddressIndex
{
public:
    void Add(AddressLink* link, const void* address)
    {
        AddressLink** bucket = &buckets_[BucketOf(address)];
        link->address = address;
        link->next = *bucket;
        *bucket = link;
    }

    void Remove(const void* address)
    {
        AddressLink** place = PlaceOf(address);
        if (*place != nullptr) {
            *place = (*place)->next;
        }
    }

    bool Contains(const void* address) const
    {
        return *const_cast<AddressIndex*>(this)->PlaceOf(address) != nullptr;
    }

private:
    // Multiplicative hashing: the low bits of block addresses are all alike, the product's high
    // bits are not.
    static u32 BucketOf(const void* address)
    {
        constexpr u64 kGolden = 0x9E3779B97F4A7C15ULL;
        return static_cast<u32>(reinterpret_cast<uintptr_t>(address) * kGolden >>
                                (64 - BucketBits));
    }

    // Where the link to address stands, or the null end of its bucket.
    AddressLink** PlaceOf(const void* address)
    {
        AddressLink** place = &buckets_[BucketOf(address)];
        while (*place != nullptr && (*place)->address != address) {
            place = &(*place)->next;
        }
        return place;
    }

    AddressLink* buckets_[1U << BucketBits];
};

#endif // XEL_COMMON_ADDRESS_INDEX_H
