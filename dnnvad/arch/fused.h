// Fused multiply-adds over four rows (internal header).
#ifndef DNNVAD_ARCH_FUSED_H
#define DNNVAD_ARCH_FUSED_H

#include <cmath>

#include "dnnvad/arch/float4.h"
#if defined(__SSE2__) && !defined(__FMA__)
#include <emmintrin.h>
#endif

namespace tz_dnnvad {

// fused_products: the dot products of four rows with x over `count` elements, from 0 in index order,
// each step rounded once as by fmaf. The sign of a zero is not defined.

#if defined(__SSE2__) && !defined(__FMA__)

// Four library calls; seldom needed, and so kept out of line.
[[gnu::noinline, gnu::cold]] inline __m128 fused_multiply_add_slowly(__m128 a, __m128 b, __m128 c) {
    float factor[4], other[4], sum[4];
    _mm_storeu_ps(factor, a);
    _mm_storeu_ps(other, b);
    _mm_storeu_ps(sum, c);
    for (int r = 0; r < 4; ++r) {
        sum[r] = fmaf(factor[r], other[r], sum[r]);
    }
    return _mm_loadu_ps(sum);
}

// fma(a, b, c) in double precision. x86-64 need not have the instruction: fmaf is a library call
// there, and one that takes a hundred times as long where the processor lacks it.
//
// The product of two floats is exact as a double, so only the addition rounds, and rounding its
// result again to float gives the fused result - unless the first rounding landed on the middle
// between two floats, from where the second no longer knows the way. Such sums, one in 2^28, are left
// to fmaf, and so are those below the normal floats (0 among them), where the middles lie elsewhere.
inline __m128 fused_multiply_add(__m128 a, __m128 b, __m128 c) {
    const auto exact_product_sum = [](__m128 p, __m128 q, __m128 r) {
        return _mm_add_pd(_mm_mul_pd(_mm_cvtps_pd(p), _mm_cvtps_pd(q)), _mm_cvtps_pd(r));
    };
    const __m128d sum01 = exact_product_sum(a, b, c);
    const __m128d sum23 =
        exact_product_sum(_mm_movehl_ps(a, a), _mm_movehl_ps(b, b), _mm_movehl_ps(c, c));

    // In the low halves of the doubles: of the 29 bits that a float lacks, a middle has only the first.
    // In the high halves: the least normal float, 2^-126, has 0x38100000 there.
    const __m128 first = _mm_castpd_ps(sum01);
    const __m128 last = _mm_castpd_ps(sum23);
    const __m128i low = _mm_castps_si128(_mm_shuffle_ps(first, last, _MM_SHUFFLE(2, 0, 2, 0)));
    const __m128i high = _mm_castps_si128(_mm_shuffle_ps(first, last, _MM_SHUFFLE(3, 1, 3, 1)));
    const __m128i middle =
        _mm_cmpeq_epi32(_mm_and_si128(low, _mm_set1_epi32(0x1FFFFFFF)), _mm_set1_epi32(0x10000000));
    const __m128i denormal = _mm_cmplt_epi32(_mm_and_si128(high, _mm_set1_epi32(0x7FFFFFFF)),
                                             _mm_set1_epi32(0x38100000));
    if (_mm_movemask_epi8(_mm_or_si128(middle, denormal)) != 0) {
        return fused_multiply_add_slowly(a, b, c);
    }
    return _mm_movelh_ps(_mm_cvtpd_ps(sum01), _mm_cvtpd_ps(sum23));
}

inline float32x4_t fused_products(const float* row0, const float* row1, const float* row2,
                                  const float* row3, const float* x, int count) {
    __m128 sums = _mm_setzero_ps();
    for (int k = 0; k < count; ++k) {
        const __m128 column = _mm_setr_ps(row0[k], row1[k], row2[k], row3[k]);
        const __m128 factor = _mm_set1_ps(x[k]);
        // fma(a, b, 0) is the rounded product.
        sums = k == 0 ? _mm_mul_ps(column, factor) : fused_multiply_add(column, factor, sums);
    }
    return sums;
}

#else

inline float32x4_t fused_products(const float* row0, const float* row1, const float* row2,
                                  const float* row3, const float* x, int count) {
    float sum0 = 0.0F, sum1 = 0.0F, sum2 = 0.0F, sum3 = 0.0F;
    for (int k = 0; k < count; ++k) {
        sum0 = fmaf(row0[k], x[k], sum0);
        sum1 = fmaf(row1[k], x[k], sum1);
        sum2 = fmaf(row2[k], x[k], sum2);
        sum3 = fmaf(row3[k], x[k], sum3);
    }
    const float sums[4] = {sum0, sum1, sum2, sum3};
    return vld1q_f32(sums);
}

#endif

}  // namespace tz_dnnvad

#endif
