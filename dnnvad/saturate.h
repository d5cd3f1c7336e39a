// Conversions to int that saturate instead of overflowing (internal header).
//
// ARM's own float-to-int conversion saturates and takes NaN to 0; these give the same answer on
// every processor.
#ifndef DNNVAD_SATURATE_H
#define DNNVAD_SATURATE_H

#include <limits>

namespace tz_dnnvad {

// The nearest int: wider integer results (sums, products of parameters) brought back to 32 bits.
inline int saturate_to_int(long long value) {
    constexpr long long kMin = std::numeric_limits<int>::min();
    constexpr long long kMax = std::numeric_limits<int>::max();
    return static_cast<int>(value < kMin ? kMin : value > kMax ? kMax : value);
}

// Truncation toward zero.
inline int truncate_to_int(double value) {
    constexpr double kLimit = 2147483648.0;  // 2^31
    if (value >= kLimit) {
        return std::numeric_limits<int>::max();
    }
    if (value < -kLimit) {
        return std::numeric_limits<int>::min();
    }
    return value == value ? static_cast<int>(value) : 0;
}

}  // namespace tz_dnnvad

#endif
