// Bounds-checked memory and strings. Own nothing, called from any thread. Every copy goes through
// memmove, so that regions that overlap are copied rightly.
#include "xel_secure.h"

#include <cerrno>
#include <cstring>

#include "common/xel_int.h"

namespace
{

// Copies the length characters of src that are known to be there, and a terminator; makes dest
// empty when they do not fit.
int CopyString(char* dest, size_t destSize, const char* src, size_t length)
{
    if (length >= destSize) {
        dest[0] = '\0';
        return ERANGE;
    }
    memmove(dest, src, length);
    dest[length] = '\0';
    return 0;
}

// 0 when both strings can be used; an unusable source empties a usable destination.
int CheckStrings(char* dest, size_t destSize, const char* src)
{
    if (dest == nullptr || destSize == 0) {
        return EINVAL;
    }
    if (src == nullptr) {
        dest[0] = '\0';
        return EINVAL;
    }
    return 0;
}

} // namespace

int memset_s(void* dest, size_t destSize, int value, size_t count)
{
    if (dest == nullptr || destSize == 0) {
        return EINVAL;
    }
    const bool fits = count <= destSize;
    memset(dest, value, fits ? count : destSize);
    return fits ? 0 : ERANGE;
}

int memcpy_s(void* dest, size_t destSize, const void* src, size_t count)
{
    if (dest == nullptr || destSize == 0) {
        return EINVAL;
    }
    if (src == nullptr || count > destSize) {
        memset(dest, 0, destSize);
        return src == nullptr ? EINVAL : ERANGE;
    }
    memmove(dest, src, count);
    return 0;
}

int strcpy_s(char* dest, size_t destSize, const char* src)
{
    const int refusal = CheckStrings(dest, destSize, src);
    return refusal != 0 ? refusal : CopyString(dest, destSize, src, strnlen(src, destSize));
}

int strncpy_s(char* dest, size_t destSize, const char* src, size_t count)
{
    const int refusal = CheckStrings(dest, destSize, src);
    if (refusal != 0) {
        return refusal;
    }
    const size_t limit = count < destSize ? count : destSize;
    return CopyString(dest, destSize, src, strnlen(src, limit));
}
