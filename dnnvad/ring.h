// Ring buffers of samples addressed by absolute position (internal header).
//
// A ring of length R keeps position p at index p mod R:
//
//      positions   ... 497 498 499 | 500 501 502 ...      (R = 500)
//      indices         497 498 499 |   0   1   2
//
// The caller owns the storage and makes sure that R > 0.
#ifndef DNNVAD_RING_H
#define DNNVAD_RING_H

#include <algorithm>

namespace tz_dnnvad {
namespace ring {

// The index of `position`, also when it is negative: always in 0 .. length - 1.
inline int index(long long position, int length) {
    const long long remainder = position % length;
    return static_cast<int>(remainder < 0 ? remainder + length : remainder);
}

// Calls visit(offset, at, run) for each contiguous run of the `count` elements from `position` on:
// elements offset .. offset + run - 1 of the range lie at ring indices at .. at + run - 1. Nothing
// is visited when the count or the length is 0 or less.
template <typename Visit>
void for_each_run(long long position, int count, int length, Visit visit) {
    if (count <= 0 || length <= 0) {
        return;
    }
    int at = index(position, length);
    for (int offset = 0; offset < count; at = 0) {
        const int run = std::min(count - offset, length - at);
        visit(offset, at, run);
        offset += run;
    }
}

// Copies `count` elements out of the ring, converting to the type of `to`. A count beyond the ring's
// length goes round it again.
template <typename From, typename To>
void read(const From* ring, int length, long long position, int count, To* to) {
    for_each_run(position, count, length,
                 [&](int offset, int at, int run) { std::copy_n(ring + at, run, to + offset); });
}

// Copies `count` elements into the ring; of a count beyond the ring's length the newest stay.
template <typename From, typename To>
void write(const From* from, int count, To* ring, int length, long long position) {
    for_each_run(position, count, length,
                 [&](int offset, int at, int run) { std::copy_n(from + offset, run, ring + at); });
}

}  // namespace ring
}  // namespace tz_dnnvad

#endif
