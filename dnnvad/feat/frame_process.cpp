// Mean removal, pre-emphasis and Hamming windowing of one frame.
//
// The asserted expressions stand as they are, spacing included: hosts see their text.
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <memory>

#include "dnnvad/aligned.h"
#include "dnnvad/arch/float4.h"
#include "dnnvad/feat/signal_process.h"

namespace tz_dnnvad {

namespace {

constexpr double kTwoPi = 6.283185307179586;

// The narrow-band frame's window, as a header vector whose data is 16-byte aligned.
constexpr int kCachedWindowSize = 200;
alignas(16) float g_hamWinS_super[kHeaderVectorPad + kCachedWindowSize];

const float* cached_window() {
    // Filled by the first caller; others wait for it.
    static const bool g_hamWinSInited = [] {
        GenHamWindow(header_vector(g_hamWinS_super, kCachedWindowSize), kCachedWindowSize);
        return true;
    }();
    static_cast<void>(g_hamWinSInited);
    return g_hamWinS_super + kHeaderVectorPad - 1;
}

// data[0 .. n-1] *= window[0 .. n-1].
void multiply(float* data, const float* window, std::size_t n) {
    const std::size_t whole = n - n % 4;
    for (std::size_t i = 0; i < whole; i += 4) {
        vst1q_f32(data + i, vmulq_f32(vld1q_f32(data + i), vld1q_f32(window + i)));
    }
    for (std::size_t i = whole; i < n; ++i) {
        data[i] *= window[i];
    }
}

}  // namespace

void zero_mean_frame(float* vec, int iLen) {
    // clang-format off
    assert(vec != NULL && (int) vec[0] == iLen);
    // clang-format on
    if (iLen <= 0) {
        return;
    }
    float* data = vec + 1;
    const std::size_t n = static_cast<std::size_t>(iLen);
    const std::size_t whole = n - n % 4;
    float32x4_t sums = vdupq_n_f32(0.0F);
    for (std::size_t i = 0; i < whole; i += 4) {
        sums = vaddq_f32(sums, vld1q_f32(data + i));
    }
    float lane[4];
    vst1q_f32(lane, sums);
    for (std::size_t i = whole; i < n; ++i) {
        lane[i - whole] += data[i];
    }
    const float mean = (lane[0] + lane[1] + lane[2] + lane[3]) * (1.0F / static_cast<float>(iLen));

    const float32x4_t means = vdupq_n_f32(mean);
    for (std::size_t i = 0; i < whole; i += 4) {
        vst1q_f32(data + i, vsubq_f32(vld1q_f32(data + i), means));
    }
    for (std::size_t i = whole; i < n; ++i) {
        data[i] -= mean;
    }
}

void pre_emphasise(float* s, float k, int frameSize) {
    // clang-format off
    assert(k > 0.0 && k < 1.0);
    assert(s != NULL && (int) s[0] == frameSize);
    // clang-format on
    if (frameSize <= 0) {
        return;
    }
    // From the end of the frame backwards, so that predecessors are still unchanged.
    const float32x4_t ks = vdupq_n_f32(k);
    int i = frameSize;
    for (; i >= 5; i -= 4) {
        const float32x4_t previous = vld1q_f32(s + i - 4);
        vst1q_f32(s + i - 3, vsubq_f32(vld1q_f32(s + i - 3), vmulq_f32(ks, previous)));
    }
    for (; i >= 2; --i) {
        s[i] -= k * s[i - 1];
    }
    s[1] *= 1.0F - k;
}

void GenHamWindow(float* hamWin, int frameSize) {
    // clang-format off
    assert(hamWin != NULL && (int)(hamWin[0]) == frameSize);
    // clang-format on
    const float a = static_cast<float>(kTwoPi / (static_cast<double>(frameSize) - 1));
    for (int i = 0; i < frameSize; ++i) {
        const float cosine = cosf(static_cast<float>(i) * a);
        hamWin[i + 1] = static_cast<float>(0.54 - 0.46 * static_cast<double>(cosine));
    }
}

void ham(float* s, int frameSize) {
    // clang-format off
    assert(s != NULL && (int) s[0] == frameSize);
    // clang-format on
    if (frameSize == kCachedWindowSize) {
        multiply(s + 1, cached_window() + 1, kCachedWindowSize);
        return;
    }
    if (frameSize <= 0) {
        return;
    }
    const std::size_t n = static_cast<std::size_t>(frameSize);
    const std::unique_ptr<float[], FreeDeleter> hamWin(
        static_cast<float*>(malloc((n + 1) * sizeof(float))));
    assert(hamWin);
    hamWin[0] = static_cast<float>(frameSize);
    GenHamWindow(hamWin.get(), frameSize);
    multiply(s + 1, hamWin.get() + 1, n);
}

}  // namespace tz_dnnvad
