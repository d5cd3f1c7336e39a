// The asserted expressions stand as they are: hosts see their text.
#include "dnnvad/feat/wav2feat.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "dnnvad/aligned.h"

namespace tz_dnnvad {

namespace {

constexpr float kPreEmphasis = 0.97F;

struct Geometry {
    int sample_rate;
    int frame_length;
    int frame_shift;
};

constexpr Geometry kNarrowBand{8000, 200, 80};
constexpr Geometry kWideBand{16000, 400, 160};

// Element 0, the length header, is summed and the last sample is not: hosts know these values.
float frame_energy(const float* s, int length) {
    float sum = 0.0F;
    for (int i = 0; i < length; ++i) {
        sum = fmaf(s[i], s[i], sum);
    }
    return sum / static_cast<float>(length);
}

// A header vector for one frame: on the stack up to Size elements, else from the heap. A negative
// length gives a vector without data.
template <int Size>
class ScratchVector {
public:
    explicit ScratchVector(int length) {
        float* block = inline_;
        if (length > Size) {
            heap_ = make_aligned_floats(static_cast<std::size_t>(length) + kHeaderVectorPad);
            assert(heap_);
            block = heap_.get();
        }
        vector_ = header_vector(block, length);
    }
    float* get() { return vector_; }

private:
    alignas(16) float inline_[Size + kHeaderVectorPad];
    AlignedFloats heap_;
    float* vector_;
};

// The steps that both forms share; a null fftFeature leaves the spectrum out.
void one_frame(const float* pcm, int nSamples, float* out, FeOption& options, float* fftFeature,
               int fftDim) {
    FBankInfo* fbinfo = options.fbinfo;
    assert(fbinfo);
    const int length = std::max<int>(options.frameLength, 0);
    const int channels = std::max<int>(options.numChans, 0);

    ScratchVector<kWideBand.frame_length> frame(options.frameLength);
    ScratchVector<64> bank(options.numChans);
    float* s = frame.get();
    float* fbank = bank.get();
    const int given = std::clamp(nSamples, 0, length);
    std::copy_n(pcm, given, s + 1);
    std::fill(s + 1 + given, s + 1 + length, 0.0F);

    const float energy = options.appendEnergy != 0 ? frame_energy(s, length) : 0.0F;
    if (options.narrowBand) {
        zero_mean_frame(s, options.frameLength);
        pre_emphasise(s, kPreEmphasis, options.frameLength);
    }
    ham(s, options.frameLength);
    fbinfo->takeLogs = 1;
    wave_2_fbank(s, fbank, fbinfo, fftFeature, fftDim);

    std::copy_n(fbank + 1, channels, out);
    if (options.appendEnergy != 0) {
        out[channels] = energy;
    }
}

}  // namespace

FeOption* init_fevad(int lowFreq, int highFreq, int numChans, bool narrowBand) {
    FeOption* fe_opt = static_cast<FeOption*>(malloc(sizeof(FeOption)));
    assert(fe_opt);
    const Geometry& geometry = narrowBand ? kNarrowBand : kWideBand;
    fe_opt->sampleRate = geometry.sample_rate;
    fe_opt->frameLength = geometry.frame_length;
    fe_opt->frameShift = geometry.frame_shift;
    fe_opt->lowFreq = lowFreq;
    fe_opt->highFreq = highFreq;
    fe_opt->numChans = numChans;
    fe_opt->spareSetting1 = 12;
    fe_opt->spareSetting2 = 22;
    fe_opt->spareSetting3 = 12;
    fe_opt->narrowBand = narrowBand;
    fe_opt->spareWord1 = 0;
    fe_opt->spareWord2 = 0;
    fe_opt->appendEnergy = 0;
    fe_opt->spareWord3 = 0;
    fe_opt->fbinfo = nullptr;
    fe_opt->spareSetting4 = 3;
    fe_opt->spareSetting5 = 1;
    fe_opt->fbinfo = init_fbank(geometry.frame_length, geometry.frame_shift, geometry.sample_rate,
                                numChans, static_cast<float>(lowFreq), static_cast<float>(highFreq),
                                1, 1, 0, 1.0F, 0.0F, 0.0F);
    assert(fe_opt->fbinfo);
    return fe_opt;
}

void kill_fevad(FeOption* fe_opt) {
    if (fe_opt->fbinfo != nullptr) {
        clear_fbank(fe_opt->fbinfo);
    }
    free(fe_opt);
}

int wav2cep_one_frame(float* pcm, int nSamples, float* out, int& /*outLen*/, FeOption* fe_opt) {
    if (fe_opt->fbinfo != nullptr && fe_opt->narrowBand) {
        puts("use pcm process");
    }
    one_frame(pcm, nSamples, out, *fe_opt, nullptr, 0);
    return 0;
}

int wav2cep_one_frame(float* pcm, int nSamples, float* out, int& /*outLen*/, FeOption* fe_opt,
                      float* fftFeature, int fftDim) {
    one_frame(pcm, nSamples, out, *fe_opt, fftFeature, fftDim);
    return 0;
}

}  // namespace tz_dnnvad
