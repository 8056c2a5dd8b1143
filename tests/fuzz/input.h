// The bytes of one input, taken from the front. When they are used up every answer is 0.
#ifndef XEL_TESTS_FUZZ_INPUT_H
#define XEL_TESTS_FUZZ_INPUT_H

#include <cstring>

#include "common/xel_int.h"

namespace xelfuzz
{

class Input
{
public:
    Input(const u8* bytes, size_t size) : bytes_(bytes), left_(size) {}

    bool IsEmpty() const { return left_ == 0; }

    u8 Byte()
    {
        if (left_ == 0) {
            return 0;
        }
        left_ -= 1;
        return *bytes_++;
    }

    u32 Below(u32 limit) { return Byte() % limit; }
    bool Flag() { return (Byte() & 1) != 0; }

    u32 Word()
    {
        u32 word = 0;
        for (u32 i = 0; i < sizeof(word); ++i) {
            word = word << 8 | Byte();
        }
        return word;
    }

    // Small numbers mostly, the ends of the range now and then.
    u32 Number()
    {
        const u8 first = Byte();
        return first < 0xF0 ? first : Word();
    }

    // Fills a buffer; what the input does not reach becomes 0.
    void Fill(void* buffer, size_t size)
    {
        const size_t taken = size < left_ ? size : left_;
        memset(buffer, 0, size);
        memcpy(buffer, bytes_, taken);
        bytes_ += taken;
        left_ -= taken;
    }

private:
    const u8* bytes_;
    size_t left_;
};

} // namespace xelfuzz

#endif // XEL_TESTS_FUZZ_INPUT_H
