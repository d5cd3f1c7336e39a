#include "dnnvad/feat/feature_translate.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "dnnvad/constants.h"
#include "dnnvad/vad_log.h"

namespace tz_dnnvad {

namespace {

// Zeroed storage for `count` floats; null for a negative count or when memory is short.
float* allocate_floats(int count) {
    if (count < 0) {
        return nullptr;
    }
    return static_cast<float*>(calloc(static_cast<std::size_t>(std::max(count, 1)), sizeof(float)));
}

}  // namespace

FeatureTranslator::FeatureTranslator(int srcDim_, int dstDim_)
    : srcDim(srcDim_), dstDim(dstDim_), fftFeature(nullptr), fftDim(0), state(0), next(nullptr) {}

FeatureTranslator::~FeatureTranslator() = default;

int FeatureTranslator::getState() {
    if (next == nullptr) {
        return state;
    }
    if (next->getState() == kFailed) {
        return kFailed;
    }
    return state == kFailed ? kFailed : kUsable;
}

int FeatureTranslator::translate(float* feat, int dim, int frameFlag) {
    return next == nullptr ? 0 : next->translate(feat, dim, frameFlag);
}

int FeatureTranslator::read(float* out, int dim) {
    return next == nullptr ? -1 : next->read(out, dim);
}

int FeatureTranslator::read_fft(float* out, int dim) {
    if (dim != fftDim || (fftFeature == nullptr && fftDim > 0)) {
        return -1;
    }
    std::copy_n(fftFeature, fftDim, out);
    return fftDim;
}

int FeatureTranslator::get_fft_dim() { return fftDim; }

float* FeatureTranslator::get_fft_feature() { return fftFeature; }

void FeatureTranslator::reset() {
    if (next != nullptr) {
        next->reset();
    }
}

PCM2FeatureTranslator::PCM2FeatureTranslator(int srcDim_, int dstDim_, int lowFreq, int highFreq,
                                             int numChans, int fftDim_, bool narrowBand)
    : FeatureTranslator(srcDim_, dstDim_), fe_opt(nullptr), dstFeature(nullptr) {
    // The front end writes numChans values, and one more when a host sets appendEnergy; the buffer
    // holds them whatever dstDim says.
    if (dstDim >= 0 && numChans < std::numeric_limits<int>::max()) {
        dstFeature = allocate_floats(std::max(dstDim, numChans + 1));
    }
    fftDim = fftDim_;
    fftFeature = allocate_floats(fftDim);
    if (dstFeature == nullptr) {
        VAD_ERROR("init pcm2featuretranslator malloc failure! dstDim:%d\n", dstDim);
        state = kFailed;
        return;
    }
    if (fftFeature == nullptr) {
        // Reported, but the stage stays usable without its spectrum (kept: hosts depend on it).
        VAD_ERROR("init pcm2featuretranslator malloc fft feature fftDim:%d\n", fftDim);
    }
    fe_opt = init_fevad(lowFreq, highFreq, numChans, narrowBand);
    state = kUsable;
}

PCM2FeatureTranslator::~PCM2FeatureTranslator() {
    free(dstFeature);
    free(fftFeature);
    if (fe_opt != nullptr) {
        kill_fevad(fe_opt);
    }
}

int PCM2FeatureTranslator::getState() { return FeatureTranslator::getState(); }

int PCM2FeatureTranslator::translate(float* feat, int /*dim*/, int frameFlag) {
    if (fe_opt == nullptr) {
        return -1;
    }
    wav2cep_one_frame(feat, srcDim, dstFeature, dstDim, fe_opt, fftFeature, fftDim);
    return FeatureTranslator::translate(dstFeature, dstDim, frameFlag);
}

void PCM2FeatureTranslator::reset() { FeatureTranslator::reset(); }

CMVNFeatureTranslator::CMVNFeatureTranslator(int srcDim_, int dstDim_, float* meanVector_,
                                             float* revVarVector_)
    : FeatureTranslator(srcDim_, dstDim_),
      meanVector(nullptr),
      revVarVector(nullptr),
      dstFeature(nullptr) {
    if (srcDim != dstDim) {
        VAD_ERROR("CMVNFeatureTranslator init srcDim:%d dstDim:%d not equal!\n\n", srcDim, dstDim);
        state = kFailed;
        return;
    }
    meanVector = allocate_floats(srcDim);
    revVarVector = allocate_floats(srcDim);
    dstFeature = allocate_floats(srcDim);
    if (meanVector == nullptr || revVarVector == nullptr || dstFeature == nullptr) {
        VAD_ERROR("CMVNFeatureTranslator init srcDim:%d. memory new error!\n\n", srcDim);
        state = kFailed;
        return;
    }
    std::copy_n(meanVector_, srcDim, meanVector);
    std::copy_n(revVarVector_, srcDim, revVarVector);
    state = kUsable;
}

CMVNFeatureTranslator::~CMVNFeatureTranslator() {
    free(meanVector);
    free(revVarVector);
    free(dstFeature);
}

int CMVNFeatureTranslator::getState() { return FeatureTranslator::getState(); }

int CMVNFeatureTranslator::translate(float* feat, int dim, int frameFlag) {
    if (dim != srcDim || srcDim != dstDim || state == kFailed) {
        return -1;
    }
    for (int i = 0; i < srcDim; ++i) {
        dstFeature[i] = (feat[i] - meanVector[i]) * revVarVector[i];
    }
    return FeatureTranslator::translate(dstFeature, srcDim, frameFlag);
}

void CMVNFeatureTranslator::reset() { FeatureTranslator::reset(); }

ConcatFeatureTranslator::ConcatFeatureTranslator(int srcDim_, int dstDim_)
    : FeatureTranslator(srcDim_, dstDim_),
      feature(nullptr),
      contextFrames(0),
      contextFramesCopy(0),
      spareCount(0),
      framesSeen(0) {
    // In 64 bits, where no quotient of two ints overflows.
    const std::int64_t frames = srcDim == 0 ? 0 : std::int64_t{dstDim} / srcDim;
    contextFrames = static_cast<std::int32_t>(
        std::min<std::int64_t>(frames, std::numeric_limits<std::int32_t>::max()));
    if (dstDim - srcDim * frames != 0) {
        VAD_ERROR("ConcatFeatureTranslator init dstDim:%d srcDim:%d not exact division\n\n", dstDim,
                  srcDim);
        state = kFailed;
        return;
    }
    feature = allocate_floats(dstDim);
    if (feature == nullptr) {
        // Prints dstDim under the label srcDim (kept: hosts know the line).
        VAD_ERROR("ConcatFeatureTranslator init srcDim:%d feature memory new failure\n\n", dstDim);
        state = kFailed;
        return;
    }
    contextFramesCopy = contextFrames;
    state = kUsable;
}

ConcatFeatureTranslator::~ConcatFeatureTranslator() { free(feature); }

int ConcatFeatureTranslator::getState() { return FeatureTranslator::getState(); }

int ConcatFeatureTranslator::translate(float* feat, int dim, int frameFlag) {
    if (state == kFailed || dim != srcDim) {
        return -1;
    }
    if (srcDim > 0 && contextFrames > 0) {
        float* last = feature + (dstDim - srcDim);
        if (framesSeen == 0) {
            for (int slot = 0; slot < contextFrames - 1; ++slot) {
                std::copy_n(feat, srcDim, feature + slot * srcDim);
            }
        } else {
            std::copy(feature + srcDim, feature + dstDim, feature);
        }
        std::copy_n(feat, srcDim, last);
    }
    if (framesSeen < std::numeric_limits<std::int32_t>::max()) {
        ++framesSeen;  // only whether it is 0 matters
    }
    return FeatureTranslator::translate(feature, dstDim, frameFlag);
}

int ConcatFeatureTranslator::read(float* out, int dim) {
    if (state == kFailed || dim != dstDim) {
        return -1;
    }
    std::copy_n(feature, dstDim, out);
    return dstDim;
}

void ConcatFeatureTranslator::reset() {
    if (state != kFailed) {
        std::fill_n(feature, dstDim, 0.0F);
        spareCount = 0;
        framesSeen = 0;
    }
    FeatureTranslator::reset();
}

}  // namespace tz_dnnvad
