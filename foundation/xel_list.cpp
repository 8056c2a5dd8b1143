// Intrusive lists. Changes run under the caller's lock of the list, on any thread; readers without
// that lock may look on, so links and counters are written and read as atomics.
//
// XelDllDel is given a node only and yet counts down its list: the head of a linked node is kept in
// the hidden word of the pool unit that the node begins, else in the process-wide index.
#include "xel_list.h"

#include <atomic>

#include "common/xel_int.h"
#include "foundation/xel_list_index.h"
#include "foundation/xel_pool_slab.h"

namespace
{

constinit ListIndex g_xelListIndex{};

// A link. Stored with release once the node behind it is complete; pairs with ReadLink.
template <typename Node>
void SetLink(Node*& link, Node* target)
{
    std::atomic_ref<Node*>(link).store(target, std::memory_order_release);
}

template <typename Node>
Node* ReadLink(Node* const& link)
{
    return std::atomic_ref<Node*>(const_cast<Node*&>(link)).load(std::memory_order_acquire);
}

// The data word orders nothing by itself: the link that leads to its node does.
void SetData(void*& word, void* data)
{
    std::atomic_ref<void*>(word).store(data, std::memory_order_relaxed);
}

// Changes run under the list's lock, so that loading and storing apart loses nothing; readers
// without the lock may see the counter and the links at different moments.
void CountBy(void* counter, u32 change)
{
    if (counter != nullptr) {
        std::atomic_ref<u32> count(*static_cast<u32*>(counter));
        count.store(count.load(std::memory_order_relaxed) + change, std::memory_order_relaxed);
    }
}

void StartCount(u32* counter)
{
    if (counter != nullptr) {
        std::atomic_ref<u32>(*counter).store(0, std::memory_order_relaxed);
    }
}

bool NoteHead(XelDll* node, XelDll* head)
{
    const u64 address = AddressOf(node);
    Slab* slab = LiveUnitSlab(address);
    if (slab == nullptr) {
        return g_xelListIndex.Put(address, AddressOf(head));
    }
    HiddenWord(*slab, address).store(AddressOf(head), std::memory_order_relaxed);
    return true;
}

// Forgets the head of a node and returns it; null for a node that is in no list.
XelDll* ForgetHead(XelDll* node)
{
    const u64 address = AddressOf(node);
    Slab* slab = LiveUnitSlab(address);
    if (slab == nullptr) {
        return reinterpret_cast<XelDll*>(g_xelListIndex.Take(address));
    }
    std::atomic_ref<u64> word = HiddenWord(*slab, address);
    const u64 head = word.load(std::memory_order_relaxed);
    word.store(0, std::memory_order_relaxed);
    return reinterpret_cast<XelDll*>(head);
}

void LinkBetween(XelDll* head, XelDll* prev, XelDll* next, XelDll* node, void* data)
{
    if (!NoteHead(node, head)) {
        SetLink<XelDll>(node->next, nullptr);
        SetLink<XelDll>(node->prev, nullptr);
        return;
    }
    SetData(node->data, data);
    SetLink(node->next, next);
    SetLink(node->prev, prev);
    SetLink(prev->next, node);
    SetLink(next->prev, node);
    CountBy(head->data, 1);
}

} // namespace

void XelDllInit(XelDll* head, uint32_t* counter)
{
    if (head == nullptr) {
        return;
    }
    StartCount(counter);
    SetData(head->data, counter);
    SetLink(head->next, head);
    SetLink(head->prev, head);
}

void XelDllInitAndAddPrev(XelDll* head, XelDll* node, void* data)
{
    if (head != nullptr && node != nullptr) {
        LinkBetween(head, ReadLink(head->prev), head, node, data);
    }
}

void XelDllInitAndAddNext(XelDll* head, XelDll* node, void* data)
{
    if (head != nullptr && node != nullptr) {
        LinkBetween(head, head, ReadLink(head->next), node, data);
    }
}

void XelDllDel(XelDll* node)
{
    // Null links: never linked, or unlinked already.
    if (node == nullptr || ReadLink(node->next) == nullptr) {
        return;
    }
    const XelDll* head = ForgetHead(node);
    if (head == nullptr) {
        return;
    }
    XelDll* next = ReadLink(node->next);
    XelDll* prev = ReadLink(node->prev);
    SetLink(prev->next, next);
    SetLink(next->prev, prev);
    SetLink<XelDll>(node->next, nullptr);
    SetLink<XelDll>(node->prev, nullptr);
    CountBy(head->data, ~u32{0});
}

XelDll* XelDllNextGet(const XelDll* node)
{
    return node != nullptr ? ReadLink(node->next) : nullptr;
}

bool XelDllIsEmpty(const XelDll* head)
{
    if (head == nullptr) {
        return true;
    }
    const XelDll* first = ReadLink(head->next);
    return first == head || first == nullptr;
}

void XelSllInit(XelSll* head, uint32_t* counter)
{
    if (head == nullptr) {
        return;
    }
    StartCount(counter);
    SetData(head->data, counter);
    SetLink(head->next, head);
}

void XelSllInitAndAdd(XelSll* head, XelSll* node, void* data)
{
    if (head == nullptr || node == nullptr) {
        return;
    }
    SetData(node->data, data);
    SetLink(node->next, ReadLink(head->next));
    SetLink(head->next, node);
    CountBy(head->data, 1);
}

void XelSllDel(XelSll* head, XelSll* node)
{
    if (head == nullptr || node == nullptr || node == head) {
        return;
    }
    // Bounded by the length of the list; a list that was never initialised ends at once.
    XelSll* before = head;
    for (XelSll* at = ReadLink(head->next); at != head && at != nullptr; at = ReadLink(at->next)) {
        if (at == node) {
            SetLink(before->next, ReadLink(node->next));
            SetLink<XelSll>(node->next, nullptr);
            CountBy(head->data, ~u32{0});
            return;
        }
        before = at;
    }
}
