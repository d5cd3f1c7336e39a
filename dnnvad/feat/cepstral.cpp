// Cepstral and PLP utilities.
//
// The asserted expressions stand as they are, spacing included: hosts see their text.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <limits>

#include "dnnvad/feat/signal_process.h"

namespace tz_dnnvad {

namespace {

constexpr double kPi = 3.141592653589793;

// Static coefficients per frame, and as many regression coefficients after them.
constexpr int kStatics = 13;
constexpr int kCosineRows = 60;

template <typename T>
T* zeroed(std::size_t count) {
    return static_cast<T*>(calloc(count, sizeof(T)));
}

// A header vector of count elements; null when memory is short.
float* make_vector(int count) {
    float* vector = zeroed<float>(static_cast<std::size_t>(std::max(count, 0)) + 1);
    if (vector != nullptr) {
        vector[0] = static_cast<float>(count);
    }
    return vector;
}

void fill_lifter(float* cepWin, int cepSize, int cepLifter) {
    const float a = static_cast<float>(kPi / cepLifter);
    const float half = static_cast<float>(cepLifter) / 2.0F;
    for (int i = 1; i <= cepSize; ++i) {
        cepWin[i] = fmaf(half, sinf(static_cast<float>(i) * a), 1.0F);
    }
}

// Weight of a channel centre (mel) on the equal-loudness curve at 40 dB.
float equal_loudness(float mel) {
    const float hertz = (expf(mel / 1127.0F) - 1.0F) * 700.0F;
    const double squared = static_cast<double>(hertz * hertz);
    const float ratio = static_cast<float>(squared / (squared + 160000.0));
    const float ratio_squared = ratio * ratio;
    return static_cast<float>(((squared + 1.44e6) / (squared + 9.61e6)) *
                              static_cast<double>(ratio_squared));
}

// Rows of cosines for the inverse transform of the symmetric spectrum; element 0 of a row is unused.
void fill_cosines(double** cm, int rows, int channels) {
    const double step = kPi / (channels + 1);
    for (int k = 0; k < rows; ++k) {
        cm[k][1] = 1.0;
        for (int j = 1; j <= channels; ++j) {
            cm[k][j + 1] = 2.0 * cos(static_cast<double>(j) * k * step);
        }
        cm[k][channels + 2] = cos(static_cast<double>(channels + 1) * k * step);
    }
}

}  // namespace

void Regress(float* data, int head, int tail, int numFrames, int dim) {
    if (dim < 2 * kStatics) {
        return;
    }
    for (int t = 0; t < numFrames; ++t) {
        float* frame = data + static_cast<std::ptrdiff_t>(t) * dim;
        // Frames there are on either side, as far as they matter.
        const std::ptrdiff_t before = std::clamp(head, 0, 2) + std::min(t, 2);
        const std::ptrdiff_t after = std::clamp(tail, 0, 2) + std::min(numFrames - 1 - t, 2);
        const float* back1 = frame - std::min<std::ptrdiff_t>(before, 1) * dim;
        const float* back2 = frame - std::min<std::ptrdiff_t>(before, 2) * dim;
        const float* ahead1 = frame + std::min<std::ptrdiff_t>(after, 1) * dim;
        const float* ahead2 = frame + std::min<std::ptrdiff_t>(after, 2) * dim;
        for (int i = 0; i < kStatics; ++i) {
            const float sum = fmaf(ahead2[i] - back2[i], 2.0F, (ahead1[i] - back1[i]) + 0.0F);
            frame[kStatics + i] = sum / 10.0F;
        }
    }
}

void add_regress(float* data, int numFrames, int dim) {
    if (numFrames < 4) {
        // Too short for the three passes, whose neighbours would lie outside the sequence.
        Regress(data, 0, 0, numFrames, dim);
        return;
    }
    Regress(data, 0, 2, 2, dim);
    Regress(data + 2 * static_cast<std::ptrdiff_t>(dim), 2, 2, numFrames - 4, dim);
    Regress(data + (static_cast<std::ptrdiff_t>(numFrames) - 2) * dim, 2, 0, 2, dim);
}

void GenCepLifterWindow(float* cepWin, int cepSize, int cepLifter) {
    // clang-format off
    assert(cepWin != NULL && (int)(*cepWin) == cepSize);
    // clang-format on
    fill_lifter(cepWin, cepSize, cepLifter);
}

void WeightCepstrum(float* cepFrame, int cepSize, int cepLifter) {
    // clang-format off
    assert(cepFrame != NULL && cepSize + 1 == (int)(*cepFrame));
    // clang-format on
    float* cepWin = make_vector(cepSize);
    assert(cepWin);
    fill_lifter(cepWin, cepSize, cepLifter);
    for (int i = 1; i <= cepSize; ++i) {
        cepFrame[i] *= cepWin[i];
    }
    free(cepWin);
}

PLPInfo* InitPLP(FBankInfo* fbinfo, int lpcOrder) {
    assert(fbinfo);
    PLPInfo* plpinfo = zeroed<PLPInfo>(1);
    assert(plpinfo);
    plpinfo->lpcOrder = lpcOrder;
    plpinfo->compressFact = 0.33333334F;
    const int order = std::clamp(lpcOrder, -1, std::numeric_limits<int>::max() - 1);
    plpinfo->vecA = make_vector(order + 1);
    plpinfo->vecB = make_vector(order + 1);

    const int channels = std::max<int>(fbinfo->numChans, 0);
    plpinfo->eql = make_vector(channels);
    assert(plpinfo->eql);
    for (int i = 1; i <= channels; ++i) {
        plpinfo->eql[i] = equal_loudness(fbinfo->cf[i]);
    }

    plpinfo->cm = zeroed<double*>(kCosineRows);
    assert(plpinfo->cm);
    const int rows = std::min(channels + 3, kCosineRows);
    for (int i = 0; i < rows; ++i) {
        plpinfo->cm[i] = zeroed<double>(static_cast<std::size_t>(channels) + 5);
        assert(plpinfo->cm[i]);
    }
    fill_cosines(plpinfo->cm, std::min(order + 1, rows), channels);
    return plpinfo;
}

void ClearPLPInfo(PLPInfo* info) {
    assert(info);
    for (float** vector : {&info->spareVec, &info->vecA, &info->vecB, &info->eql}) {
        free(*vector);
        *vector = nullptr;
    }
    if (info->cm == nullptr) {
        return;
    }
    for (int i = kCosineRows - 1; i >= 0; --i) {
        free(info->cm[i]);
    }
    free(info->cm);
    info->cm = nullptr;
}

}  // namespace tz_dnnvad
