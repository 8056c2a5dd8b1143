// What the attribute objects of all families share: a table of setters indexed by command, and the
// check of a name value.
#ifndef XEL_COMMON_ATTR_H
#define XEL_COMMON_ATTR_H

#include <cstring>

#include "common/xel_int.h"
#include "xel_types.h"

template <typename Attr>
using AttrSetter = u32 (*)(Attr* attr, const void* value, size_t size);

// One row of a command table; the label is for readers of a core dump, no code prints it.
template <typename Attr>
struct AttrRow {
    AttrSetter<Attr> set;
    const char* label;
};

// Reads the value of a command whose size was checked; it may stand at any address.
template <typename Value>
inline Value ReadAttrValue(const void* value)
{
    Value copy;
    memcpy(&copy, value, sizeof(copy));
    return copy;
}

enum class NameFit {
    Fits,
    SizeTooLarge, // the stated size does not leave room for the terminator; the string was not read
    Empty,
    Mismatch, // no terminator within the field, or the stated size is below the string's length
};

struct NameCheck {
    NameFit fit;
    size_t length; // bounded at XEL_NAME_SIZE; 0 when the string was not read
};

// Checks a name value and its stated size; reads at most XEL_NAME_SIZE characters.
inline NameCheck CheckName(const void* value, size_t size)
{
    if (size >= XEL_NAME_SIZE) {
        return {NameFit::SizeTooLarge, 0};
    }
    const size_t length = strnlen(static_cast<const char*>(value), XEL_NAME_SIZE);
    if (length == 0) {
        return {NameFit::Empty, 0};
    }
    if (length == XEL_NAME_SIZE || size < length) {
        return {NameFit::Mismatch, length};
    }
    return {NameFit::Fits, length};
}

#endif // XEL_COMMON_ATTR_H
