// The bounds-checked functions at all their boundaries, with guard bytes around the destination.
#include "xel_secure.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

namespace
{

constexpr size_t kMax = 16;
constexpr char kGuard = 0x5A;

// A destination of a given size between guard bytes.
class Guarded
{
public:
    explicit Guarded(size_t size) : size_(size)
    {
        bytes_.fill(kGuard);
        memset(Dest(), 'x', size);
    }

    char* Dest() { return bytes_.data() + kMax; }
    std::string Content() { return std::string(Dest(), size_); }

    bool GuardsIntact() const
    {
        for (size_t i = 0; i < bytes_.size(); i++) {
            if ((i < kMax || i >= kMax + size_) && bytes_[i] != kGuard) {
                return false;
            }
        }
        return true;
    }

private:
    size_t size_;
    std::array<char, 3 * kMax> bytes_;
};

TEST(Secure, MemsetFillsCountBytesAndNeverMoreThanTheDestination)
{
    for (size_t size = 1; size <= kMax; size++) {
        for (size_t count = 0; count <= kMax + 2; count++) {
            Guarded guarded(size);
            const int result = memset_s(guarded.Dest(), size, 'v', count);
            const size_t filled = count < size ? count : size;
            ASSERT_EQ(result, count <= size ? 0 : ERANGE) << size << ' ' << count;
            ASSERT_EQ(guarded.Content(),
                      std::string(filled, 'v') + std::string(size - filled, 'x'));
            ASSERT_TRUE(guarded.GuardsIntact());
        }
    }
}

TEST(Secure, MemsetTakesTheLowByteOfTheValue)
{
    char dest[2] = {'x', 'x'};
    EXPECT_EQ(memset_s(dest, 2, 0x141, 1), 0);
    EXPECT_EQ(std::string(dest, 2), "Ax");
}

TEST(Secure, MemcpyCopiesOrClears)
{
    const std::string source = "0123456789abcdefghij";
    for (size_t size = 1; size <= kMax; size++) {
        for (size_t count = 0; count <= kMax + 2; count++) {
            Guarded guarded(size);
            const int result = memcpy_s(guarded.Dest(), size, source.data(), count);
            const bool fits = count <= size;
            ASSERT_EQ(result, fits ? 0 : ERANGE) << size << ' ' << count;
            ASSERT_EQ(guarded.Content(),
                      fits ? source.substr(0, count) + std::string(size - count, 'x')
                           : std::string(size, '\0'));
            ASSERT_TRUE(guarded.GuardsIntact());
        }
    }
}

TEST(Secure, StrcpyCopiesWithTerminatorOrEmpties)
{
    for (size_t size = 1; size <= kMax; size++) {
        for (size_t length = 0; length <= kMax + 2; length++) {
            Guarded guarded(size);
            const std::string source(length, 's');
            const int result = strcpy_s(guarded.Dest(), size, source.c_str());
            const bool fits = length < size;
            ASSERT_EQ(result, fits ? 0 : ERANGE) << size << ' ' << length;
            ASSERT_EQ(std::string(guarded.Dest()), fits ? source : "");
            ASSERT_TRUE(guarded.GuardsIntact());
        }
    }
}

TEST(Secure, StrncpyCopiesAtMostCountCharactersOrEmpties)
{
    for (size_t size = 1; size <= kMax; size++) {
        for (size_t length = 0; length <= kMax + 2; length++) {
            for (size_t count = 0; count <= kMax + 4; count++) {
                Guarded guarded(size);
                const std::string source(length, 's');
                const int result = strncpy_s(guarded.Dest(), size, source.c_str(), count);
                const std::string wanted = source.substr(0, count);
                const bool fits = wanted.size() < size;
                ASSERT_EQ(result, fits ? 0 : ERANGE) << size << ' ' << length << ' ' << count;
                ASSERT_EQ(std::string(guarded.Dest()), fits ? wanted : "");
                ASSERT_TRUE(guarded.GuardsIntact());
            }
        }
    }
}

TEST(Secure, StrncpyReadsNoMoreThanCountCharacters)
{
    const char unterminated[3] = {'a', 'b', 'c'};
    char dest[8];
    EXPECT_EQ(strncpy_s(dest, sizeof(dest), unterminated, 3), 0);
    EXPECT_STREQ(dest, "abc");
}

TEST(Secure, NullAndSizeZeroAreInvalid)
{
    char dest[4] = "abc";
    EXPECT_EQ(memset_s(nullptr, 4, 0, 1), EINVAL);
    EXPECT_EQ(memset_s(dest, 0, 0, 1), EINVAL);
    EXPECT_EQ(memcpy_s(nullptr, 4, "x", 1), EINVAL);
    EXPECT_EQ(memcpy_s(dest, 0, "x", 1), EINVAL);
    EXPECT_EQ(strcpy_s(nullptr, 4, "x"), EINVAL);
    EXPECT_EQ(strcpy_s(dest, 0, "x"), EINVAL);
    EXPECT_EQ(strncpy_s(nullptr, 4, "x", 1), EINVAL);
    EXPECT_EQ(strncpy_s(dest, 0, "x", 1), EINVAL);
    EXPECT_STREQ(dest, "abc") << "a destination of size 0 is not usable";
}

TEST(Secure, NullSourceClearsTheDestination)
{
    char block[4] = "abc";
    EXPECT_EQ(memcpy_s(block, sizeof(block), nullptr, 1), EINVAL);
    EXPECT_EQ(std::string(block, 4), std::string(4, '\0'));
    char text[4] = "abc";
    EXPECT_EQ(strcpy_s(text, sizeof(text), nullptr), EINVAL);
    EXPECT_STREQ(text, "");
    strcpy(text, "abc");
    EXPECT_EQ(strncpy_s(text, sizeof(text), nullptr, 1), EINVAL);
    EXPECT_STREQ(text, "");
}

TEST(Secure, OverlappingRegionsAreCopiedRightly)
{
    char up[9] = "01234567";
    EXPECT_EQ(memcpy_s(up + 2, 6, up, 6), 0);
    EXPECT_STREQ(up, "01012345");
    char down[9] = "01234567";
    EXPECT_EQ(memcpy_s(down, 8, down + 2, 6), 0);
    EXPECT_STREQ(down, "23456767");
    char text[9] = "0123";
    EXPECT_EQ(strcpy_s(text + 2, 7, text), 0);
    EXPECT_STREQ(text, "010123");
    EXPECT_EQ(strncpy_s(text, sizeof(text), text + 1, 4), 0);
    EXPECT_STREQ(text, "1012");
}

} // namespace
