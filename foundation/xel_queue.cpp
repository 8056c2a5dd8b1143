// Bounded queues of elements copied by value: one ring under two families of names. A queue is one
// block of the C library's heap; its owner serialises all calls.
#include "xel_queue.h"

#include <cstdlib>
#include <cstring>

#include "common/xel_int.h"

namespace
{

struct Ring {
    u64 elemSize;
    u32 capacity;
    u32 oldest; // place of the oldest element
    u32 used;
};

u8* PlaceAt(Ring& ring, u64 index)
{
    return reinterpret_cast<u8*>(&ring + 1) + index * ring.elemSize;
}

const Ring* ReadRing(const void* queue)
{
    return static_cast<const Ring*>(queue);
}

// Two words, the commonest element, are not worth a call.
void CopyElem(void* to, const void* from, u64 size)
{
    constexpr u64 kTwoWords = 16;
    if (size == kTwoWords) {
        memcpy(to, from, kTwoWords);
    } else {
        memcpy(to, from, size);
    }
}

Ring* CreateRing(u32 elemSize, u32 capacity)
{
    size_t size = 0;
    if (elemSize == 0 || capacity == 0 ||
        __builtin_mul_overflow(size_t{elemSize}, size_t{capacity}, &size) ||
        __builtin_add_overflow(size, sizeof(Ring), &size) || size > PTRDIFF_MAX) {
        return nullptr;
    }
    auto* ring = static_cast<Ring*>(malloc(size));
    if (ring != nullptr) {
        *ring = Ring{elemSize, capacity, 0, 0};
    }
    return ring;
}

u32 Enqueue(Ring* ring, const void* elem)
{
    if (ring == nullptr || elem == nullptr || ring->used == ring->capacity) {
        return XEL_FAIL;
    }
    const u64 place = u64{ring->oldest} + ring->used;
    CopyElem(PlaceAt(*ring, place < ring->capacity ? place : place - ring->capacity), elem,
             ring->elemSize);
    ring->used++;
    return XEL_OK;
}

u32 CopyOldest(Ring* ring, void* out)
{
    if (ring == nullptr || out == nullptr || ring->used == 0) {
        return XEL_FAIL;
    }
    CopyElem(out, PlaceAt(*ring, ring->oldest), ring->elemSize);
    return XEL_OK;
}

u32 Dequeue(Ring* ring, void* out)
{
    if (CopyOldest(ring, out) != XEL_OK) {
        return XEL_FAIL;
    }
    ring->oldest = ring->oldest + 1 == ring->capacity ? 0 : ring->oldest + 1;
    ring->used--;
    return XEL_OK;
}

} // namespace

void* XelQueCreate(uint32_t elemSize, uint32_t capacity)
{
    return CreateRing(elemSize, capacity);
}

void XelQueDestroy(void* queue)
{
    free(queue);
}

uint32_t XelQueEnqueue(void* queue, const void* elem)
{
    return Enqueue(static_cast<Ring*>(queue), elem);
}

uint32_t XelQueDequeue(void* queue, void* out)
{
    return Dequeue(static_cast<Ring*>(queue), out);
}

uint32_t XelQueGetSizeUsed(const void* queue)
{
    return queue != nullptr ? ReadRing(queue)->used : 0;
}

uint32_t XelQueGetSizeFree(const void* queue)
{
    return queue != nullptr ? ReadRing(queue)->capacity - ReadRing(queue)->used : 0;
}

void* XelFlexibleQueCreate(uint32_t elemSize, uint32_t, uint32_t capacity)
{
    return CreateRing(elemSize, capacity);
}

void XelFlexibleQueDestroy(void* queue)
{
    free(queue);
}

uint32_t XelFlexibleQueEnqueue(void* queue, const void* elem)
{
    return Enqueue(static_cast<Ring*>(queue), elem);
}

uint32_t XelFlexibleQueDequeue(void* queue, void* out)
{
    return Dequeue(static_cast<Ring*>(queue), out);
}

uint32_t XelFlexibleQueGetFront(const void* queue, void* out)
{
    return CopyOldest(static_cast<Ring*>(const_cast<void*>(queue)), out);
}

uint32_t XelFlexibleQueGetUsedNum(const void* queue)
{
    return queue != nullptr ? ReadRing(queue)->used : 0;
}

void XelFlexibleQueClear(void* queue)
{
    if (queue != nullptr) {
        static_cast<Ring*>(queue)->used = 0;
    }
}

bool XelIsFlexibleQueFull(const void* queue)
{
    return queue == nullptr || ReadRing(queue)->used == ReadRing(queue)->capacity;
}

bool XelIsFlexibleQueEmpty(const void* queue)
{
    return queue == nullptr || ReadRing(queue)->used == 0;
}
