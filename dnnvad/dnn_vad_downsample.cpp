#include <algorithm>

#include "dnnvad/arch/float4.h"
#include "dnnvad/dnn_vad.h"
#include "dnnvad/ring.h"
#include "dnnvad/saturate.h"

namespace tz_dnnvad {

// A low-pass of order 19 with its edge at 4 kHz for 16 kHz input. All of its zeros lie at 8 kHz:
// b[k] is b[0] times the binomial coefficient C(19, k). The poles reach a radius of 0.9967 (a narrow
// peak of 8 dB at 3985 Hz), so the values and the direct form are part of the filter: rounded or
// arranged otherwise it is another one.
const float a[20] = {
    -6.96098661F, 28.1608067F,  -82.042717F,  188.662918F,   -358.490631F,
    578.435364F,  -805.987427F, 980.086304F,  -1046.40552F,  983.479431F,
    -813.296936F, 589.63562F,   -372.082031F, 201.954926F,   -92.5384674F,
    34.7469597F,  -10.1656761F, 2.1012125F,   -0.239341781F, 0.0F,
};

const float b[20] = {
    1.02615722e-07F, 1.9496988e-06F,  1.75472887e-05F, 9.94346337e-05F, 0.000397738535F,
    0.0011932156F,   0.00278416974F,  0.00517060095F,  0.00775590166F,  0.00947943516F,
    0.00947943516F,  0.00775590166F,  0.00517060095F,  0.00278416974F,  0.0011932156F,
    0.000397738535F, 9.94346337e-05F, 1.75472887e-05F, 1.9496988e-06F,  1.02615722e-07F,
};

namespace {

constexpr int kBlock = 80;         // input samples per block
constexpr int kHalf = kBlock / 2;  // output samples per block
constexpr int kFeedforward = 20;   // terms of the sum over inputs
constexpr int kFeedback = 19;      // terms of the sum over earlier outputs
constexpr int kStartUp = 19;       // samples that pass unfiltered at the start of the source

// The low 16 bits of the truncated value: an overshoot wraps around. Kept: hosts depend on it.
short cut_to_sample(float value) {
    return static_cast<short>(static_cast<unsigned short>(truncate_to_int(value)));
}

// Samples work[from .. 79] through the filter. Each sum adds its products in the order of k. Both
// signals are laid out with their history before them, oldest first.
void filter(short (&work)[kBlock], int from, float (&x_hist)[kFeedforward],
            float (&y_hist)[kFeedback]) {
    const int count = kBlock - from;
    float x[kFeedback + kBlock];
    float y[kFeedback + kBlock];
    std::reverse_copy(x_hist + 1, x_hist + kFeedforward, x);
    std::reverse_copy(y_hist, y_hist + kFeedback, y);
    std::copy(work + from, work + kBlock, x + kFeedback);
    std::fill_n(x + kFeedback + count, from, 0.0F);

    // The first sums do not depend on each other: four at a time, a few too many.
    float forward[kBlock];
    for (int j = 0; j < count; j += 4) {
        float32x4_t sum = vdupq_n_f32(0.0F);
        for (int k = 0; k < kFeedforward; ++k) {
            sum = add_product(sum, vdupq_n_f32(b[k]), vld1q_f32(x + kFeedback + j - k));
        }
        vst1q_f32(forward + j, sum);
    }
    for (int j = 0; j < count; ++j) {
        float* const now = y + kFeedback + j;
        float backward = 0.0F;
#pragma GCC unroll 19
        for (int k = 0; k < kFeedback; ++k) {
            backward += a[k] * now[-1 - k];
        }
        *now = forward[j] - backward;
        work[from + j] = cut_to_sample(*now);
    }

    x_hist[0] = x[kFeedback + count - 1];
    std::reverse_copy(x + count, x + count + kFeedback, x_hist + 1);
    std::reverse_copy(y + count, y + count + kFeedback, y_hist);
}

// Stores a block's outputs work[0 .. 39]. Where they reach the end of the ring, the rest is taken
// from work index q instead of the outputs that follow. Kept: hosts that place their blocks at
// multiples of 40 in a ring of a multiple of 40 never see it. The rest of a block ends at work index
// 79; zeros stand for what lies beyond.
void store_block(const short (&work)[kBlock], short* out, int length, long long position) {
    const int q = ring::index(position, length);
    const int before_end = std::min(kHalf, length - q);
    std::copy_n(work, before_end, out + q);

    const int rest = kHalf - before_end;
    short tail[kHalf] = {};
    const int from = std::min(q, kBlock);
    std::copy_n(work + from, std::min(rest, kBlock - from), tail);
    ring::write(tail, rest, out, length, 0);
}

}  // namespace

int CMFE::down_sample(const short* source, int source_pos, int count, short* destination,
                      int destination_pos, int* out_count, int capacity) {
    if (out_count == nullptr) {
        return 0;
    }
    *out_count = 0;
    if (count <= 0 || source == nullptr || destination == nullptr || capacity < 2) {
        return 0;
    }
    const int out_capacity = capacity / 2;
    const int blocks = count / kBlock + (count % kBlock != 0 ? 1 : 0);
    for (int i = 0; i < blocks; ++i) {
        const long long offset = static_cast<long long>(kBlock) * i;
        const int present = static_cast<int>(std::min<long long>(kBlock, count - offset));
        short work[kBlock] = {};
        ring::read(source, capacity, source_pos + offset, present, work);

        // Position 0 counts as the start of a stream, in every call: its first samples bypass the
        // filter and its history. Kept: hosts depend on it.
        const bool start_up = i == 0 && source_pos == 0;
        filter(work, start_up ? kStartUp : 0, ds_x_hist, ds_y_hist);
        for (int k = 0; k < kHalf; ++k) {
            work[k] = work[2 * k];
        }

        const long long position = static_cast<long long>(destination_pos) + offset / 2;
        if (start_up) {
            ring::write(work, kHalf, destination, out_capacity, position);
        } else {
            store_block(work, destination, out_capacity, position);
        }
    }
    *out_count = count >> 1;
    return 0;
}

}  // namespace tz_dnnvad
