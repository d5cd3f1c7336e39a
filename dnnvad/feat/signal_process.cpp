// The mel filter bank: design, and one frame through transform, spectrum and channels.
//
// The asserted expressions stand as they are: hosts see their text.
#include "dnnvad/feat/signal_process.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "dnnvad/aligned.h"
#include "dnnvad/arch/float4.h"
#include "dnnvad/arch/real_fft.h"
#include "dnnvad/feat/log_spectrum.h"
#include "dnnvad/saturate.h"

namespace tz_dnnvad {

namespace {

// Channel numbers must fit the 16-bit table, one past the last included.
constexpr int kMaxChannels = std::numeric_limits<std::int16_t>::max() - 1;
constexpr int kMaxFftLength = 1 << 24;
// Shortest transform of the platform's FFT; the lengths 2 and 4 are written out here.
constexpr int kMinFftLength = 8;

// Single-precision machine epsilon: the least channel energy.
constexpr float kEnergyFloor = 1.1920929e-7F;

double mel_from_hertz(double frequency) { return 1127.0 * log(frequency / 700.0 + 1.0); }

double hertz_from_mel(double mel) { return 700.0 * (exp(mel / 1127.0) - 1.0); }

// Mel value of FFT index k; the single-precision reading that the tables are made with.
float mel_of_index(const FBankInfo& fb, int k) {
    return 1127.0F * logf(1.0F + static_cast<float>(k - 1) * fb.fres);
}

bool in_band(const FBankInfo& fb, int k) { return k >= fb.klo && k <= fb.khi; }

// Fractional FFT position of a frequency, in single precision and this order.
double fft_position(const FBankInfo& fb, float frequency) {
    const float position =
        1.0F / static_cast<float>(fb.sampleRate) * frequency * static_cast<float>(fb.fftN);
    return static_cast<double>(position);
}

struct MelEdges {
    float low;
    float high;
};

// Sets klo and khi from the band edges in Hz and returns the edges in mel.
MelEdges set_band(FBankInfo& fb, float lopass, float hipass) {
    const int half = fb.fftN / 2;
    MelEdges edges{};
    fb.klo = 2;
    fb.khi = half;
    if (lopass >= 0.0F) {
        edges.low = static_cast<float>(mel_from_hertz(static_cast<double>(lopass)));
        fb.klo = std::max(2, truncate_to_int(fft_position(fb, lopass) + 2.5));
    }
    if (hipass >= 0.0F) {
        edges.high = static_cast<float>(mel_from_hertz(static_cast<double>(hipass)));
        fb.khi = std::min(half, truncate_to_int(fft_position(fb, hipass) + 0.5));
    } else {
        edges.high = 1127.0F * logf(1.0F + fb.fres * static_cast<float>(half));
    }
    return edges;
}

struct Warp {
    float alpha;
    float low_cut;
    float high_cut;
};

// Fills cf[0 .. numChans + 1].
void set_centres(FBankInfo& fb, const MelEdges& edges, const Warp& warp) {
    const int last = fb.numChans + 1;
    fb.cf[0] = static_cast<float>(last);
    const float low_hertz = static_cast<float>(hertz_from_mel(static_cast<double>(edges.low)));
    const float high_hertz = static_cast<float>(hertz_from_mel(static_cast<double>(edges.high)));
    for (int chan = 1; chan <= last; ++chan) {
        const float share = static_cast<float>(chan) / static_cast<float>(last);
        const float mel = fmaf(edges.high - edges.low, share, edges.low);
        if (warp.alpha == 1.0F) {
            fb.cf[chan] = mel;
        } else {
            const float hertz = static_cast<float>(hertz_from_mel(static_cast<double>(mel)));
            const float warped =
                WarpFreq(warp.low_cut, warp.high_cut, hertz, low_hertz, high_hertz, warp.alpha);
            fb.cf[chan] = static_cast<float>(mel_from_hertz(static_cast<double>(warped)));
        }
    }
}

// Fills loChan and loWt.
void set_slopes(FBankInfo& fb, float low_edge) {
    const int half = fb.fftN / 2;
    fb.loChan[0] = static_cast<std::int16_t>(std::min(half, kMaxChannels + 1));
    fb.loWt[0] = static_cast<float>(half);
    int chan = 1;
    for (int k = 1; k <= half; ++k) {
        fb.loChan[k] = -1;
        fb.loWt[k] = 0.0F;
        if (!in_band(fb, k)) {
            continue;
        }
        const float mel = mel_of_index(fb, k);
        while (chan <= fb.numChans + 1 && fb.cf[chan] < mel) {
            ++chan;
        }
        const int below = chan - 1;
        fb.loChan[k] = static_cast<std::int16_t>(below);
        // An index beyond the upper edge (only warping leads there) feeds no channel.
        if (below <= fb.numChans) {
            const float foot = below > 0 ? fb.cf[below] : low_edge;
            fb.loWt[k] = (fb.cf[below + 1] - mel) / (fb.cf[below + 1] - foot);
        }
    }
}

// Layout of fftBuffer, in floats (n = fftN, at least 8):
//
//      0 .. 3            length header of x in element 3
//      4 .. n + 3        x[1 .. n], the spectrum's bins 0 .. n / 2 - 1
//      n + 4 .. n + 7    the last bin, which the transform writes and nobody reads
//      n + 8 .. 2n + 7   the zero-padded frame, then the powers of the n / 2 bins
int padded_length(const FBankInfo& fb) { return std::max<int>(fb.fftN, kMinFftLength); }

float* frame_space(const FBankInfo& fb) { return fb.fftBuffer + 8 + padded_length(fb); }

void make_transform(FBankInfo& fb) {
    const std::size_t total = 2 * static_cast<std::size_t>(padded_length(fb)) + 8;
    fb.fftBuffer = aligned_floats(total);
    assert(fb.fftBuffer);
    std::fill_n(fb.fftBuffer, total, 0.0F);
    fb.x = header_vector(fb.fftBuffer, fb.fftN);
    if (fb.fftN >= kMinFftLength) {
        fb.fftPlan = real_fft_create(fb.fftN);
        assert(fb.fftPlan);
    }
}

// The first fftN / 2 bins of `in`, as (re, im) pairs.
void transform(const FBankInfo& fb, const float* in, float* bins) {
    if (fb.fftN == 2) {
        bins[0] = in[0] + in[1];
        bins[1] = 0.0F;
    } else if (fb.fftN == 4) {
        bins[0] = (in[0] + in[2]) + (in[1] + in[3]);
        bins[1] = 0.0F;
        bins[2] = in[0] - in[2];
        bins[3] = in[3] - in[1];
    } else {
        real_fft_forward(fb.fftPlan, in, bins);
    }
}

// Steps common to both forms: from the windowed frame through the spectrum in x to the power
// re^2 + im^2 of each bin.
float* analyse(const float* s, const FBankInfo& fb) {
    const int samples = std::max<int>(fb.frameSize, 0);
    float* frame = frame_space(fb);
    std::copy_n(s + 1, samples, frame);
    std::fill(frame + samples, frame + fb.fftN, 0.0F);
    if (fb.fftN != 256) {
        std::printf("info->fftN %d\n", fb.fftN);
    }
    float* bins = fb.x + 1;
    transform(fb, frame, bins);

    float* power = frame;
    const int half = fb.fftN / 2;
    for (int j = 0; j < half; j += 4) {  // the shortest spectra are padded with zeros
        const float32x4x2_t pair = vld2q_f32(bins + 2 * static_cast<std::ptrdiff_t>(j));
        vst1q_f32(power + j, vaddq_f32(vmulq_f32(pair.val[0], pair.val[0]),
                                       vmulq_f32(pair.val[1], pair.val[1])));
    }
    return power;
}

// Sums energy[klo - 1 .. khi - 1] into the channels, which are zero before.
void sum_channels(const FBankInfo& fb, const float* energy, float* fbank) {
    const int channels = fb.numChans;
    const int end = fb.khi;
    const std::int16_t* channel = fb.loChan;
    const float* weight = fb.loWt;
    // c is the channel on whose upper slope the bins lie, c + 1 the one on its lower slope.
    int c = 0;
    float falling = 0.0F;
    float rising = 0.0F;
    for (int k = fb.klo;;) {
        for (; k <= end && channel[k] == c; ++k) {
            const float lower = weight[k] * energy[k - 1];
            falling += lower;
            rising += energy[k - 1] - lower;
        }
        if (c >= 1 && c <= channels) {
            fbank[c] = falling;
        }
        if (c > channels) {
            return;
        }
        ++c;
        falling = rising;
        rising = 0.0F;
    }
}

}  // namespace

FBankInfo* init_fbank(int frameSize, int frameShift, int sampleRate, int numChans, float lopass,
                      float hipass, Boolean usePower, Boolean takeLogs, Boolean doubleFFT,
                      float warpAlpha, float warpLowCut, float warpUpCut) {
    FBankInfo* fb = static_cast<FBankInfo*>(calloc(1, sizeof(FBankInfo)));
    assert(fb);
    assert(numChans <= kMaxChannels);
    fb->frameSize = frameSize;
    fb->frameShift = frameShift;
    fb->numChans = numChans;
    fb->sampleRate = sampleRate;
    fb->usePower = usePower;
    fb->takeLogs = takeLogs;

    int length = 2;
    while (length < frameSize && length <= kMaxFftLength) {
        length *= 2;
    }
    fb->fftN = doubleFFT ? length * 2 : length;
    assert(fb->fftN <= kMaxFftLength);
    fb->fres = static_cast<float>(static_cast<double>(sampleRate) /
                                  (static_cast<double>(fb->fftN) * 700.0));

    const MelEdges edges = set_band(*fb, lopass, hipass);
    // Two spare cells at least, so that a bank without channels has its edges all the same.
    const std::size_t centres = static_cast<std::size_t>(std::max(numChans, 0)) + 2;
    fb->cf = static_cast<float*>(calloc(centres, sizeof(float)));
    assert(fb->cf);
    set_centres(*fb, edges, Warp{warpAlpha, warpLowCut, warpUpCut});

    const std::size_t indices = static_cast<std::size_t>(fb->fftN / 2) + 1;
    fb->loChan = static_cast<std::int16_t*>(malloc(indices * sizeof(std::int16_t)));
    assert(fb->loChan);
    fb->loWt = static_cast<float*>(malloc(indices * sizeof(float)));
    assert(fb->loWt);
    set_slopes(*fb, edges.low);

    make_transform(*fb);
    return fb;
}

void clear_fbank(FBankInfo* fb) {
    if (fb == nullptr) {
        return;
    }
    free(fb->cf);
    free(fb->loChan);
    free(fb->loWt);
    free(fb->fftBuffer);
    real_fft_destroy(fb->fftPlan);
    free(fb);
}

float WarpFreq(float fcl, float fcu, float freq, float minFreq, float maxFreq, float alpha) {
    if (std::fabs(static_cast<double>(alpha) - 1.0) < 1e-9) {
        return freq;
    }
    const float scale = 1.0F / alpha;
    const float upper = 2.0F * fcu / (1.0F + scale);
    const float lower = 2.0F * fcl / (1.0F + scale);
    if (freq > upper) {
        const float slope = (maxFreq - scale * upper) / (maxFreq - upper);
        return scale * upper + slope * (freq - upper);
    }
    if (freq < lower) {
        const float slope = (scale * lower - minFreq) / (lower - minFreq);
        return minFreq + slope * (freq - minFreq);
    }
    return scale * freq;
}

void wave_2_fbank(float* s, float* fbank, FBankInfo* info) {
    wave_2_fbank(s, fbank, info, nullptr, 0);
}

void wave_2_fbank(float* s, float* fbank, FBankInfo* info, float* fftFeature, int fftDim) {
    // clang-format off
    assert(s && fbank && info);
    assert(info->frameSize == (int)(*s));
    assert(info->numChans == (int)(*fbank));
    // clang-format on
    std::fill_n(fbank + 1, std::max<int>(info->numChans, 0), 0.0F);
    float* energy = analyse(s, *info);
    const int half = info->fftN / 2;
    if (fftFeature != nullptr && fftDim > 0) {
        write_log_spectrum(energy, half, fftFeature, fftDim);
    }
    if (!info->usePower) {
        std::transform(energy, energy + half, energy, sqrtf);
    }
    sum_channels(*info, energy, fbank);
    if (info->takeLogs) {
        for (int i = 1; i <= info->numChans; ++i) {
            fbank[i] = logf(fbank[i] < kEnergyFloor ? kEnergyFloor : fbank[i]);
        }
    }
}

}  // namespace tz_dnnvad
