// Microseconds counted in buckets that are at most a sixteenth wide of their value, so that
// percentiles of millions of samples need no list of them. Fixed size, never allocates; not locked.
#ifndef SERVICE_PLATFORM_HISTOGRAM_H
#define SERVICE_PLATFORM_HISTOGRAM_H

#include <algorithm>
#include <array>
#include <bit>

#include "common/xel_int.h"

class Histogram
{
public:
    void Count(u64 us)
    {
        ++buckets_[BucketOf(std::min(us, kLargest))];
        ++samples_;
        total_ += us;
        max_ = std::max(max_, us);
    }
    void Merge(const Histogram& other)
    {
        for (size_t i = 0; i < kBuckets; ++i) {
            buckets_[i] += other.buckets_[i];
        }
        samples_ += other.samples_;
        total_ += other.total_;
        max_ = std::max(max_, other.max_);
    }

    u64 Samples() const { return samples_; }
    u64 Total() const { return total_; }
    u64 Max() const { return max_; }
    // The largest value of the bucket that holds that percentile; 0 without samples.
    u64 Percentile(u64 percent) const
    {
        const u64 wanted = (samples_ * percent + 99) / 100;
        u64 seen = 0;
        for (size_t i = 0; i < kBuckets; ++i) {
            seen += buckets_[i];
            if (seen >= wanted && seen != 0) {
                return std::min(LargestIn(i), max_);
            }
        }
        return max_;
    }

private:
    static constexpr u32 kStepBits = 4; // 16 buckets for each power of two
    static constexpr u64 kSteps = 1U << kStepBits;
    static constexpr u64 kLargest = 0xFFFFFFFF;
    static constexpr size_t kBuckets = (32 - kStepBits + 1) * kSteps;

    // Values below 16 have a bucket each; above, the highest bit picks the row and the four bits
    // behind it the bucket.
    static size_t BucketOf(u64 us)
    {
        if (us < kSteps) {
            return us;
        }
        const auto row = static_cast<u32>(std::bit_width(us)) - kStepBits;
        return row * kSteps + ((us >> (row - 1)) & (kSteps - 1));
    }
    static u64 LargestIn(size_t bucket)
    {
        const u64 row = bucket / kSteps;
        const u64 step = bucket % kSteps;
        return row == 0 ? step : ((kSteps + step + 1) << (row - 1)) - 1;
    }

    std::array<u64, kBuckets> buckets_ = {};
    u64 samples_ = 0;
    u64 total_ = 0;
    u64 max_ = 0;
};

#endif // SERVICE_PLATFORM_HISTOGRAM_H
