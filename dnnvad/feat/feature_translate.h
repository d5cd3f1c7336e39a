// The feature chain: from one frame of PCM to the network's input vector in three linked stages.
//
//      PCM2FeatureTranslator -> CMVNFeatureTranslator -> ConcatFeatureTranslator
//      samples -> log mel energies    normalised            last n frames, oldest first
//
//      PCM2FeatureTranslator head(200, 26, 40, 3800, 26, 128, true);
//      CMVNFeatureTranslator cmvn(26, 26, mean, revVar);
//      ConcatFeatureTranslator concat(26, 286);
//      head.next = &cmvn;
//      cmvn.next = &concat;
//      if (head.getState() == 1) ...                // a stage failed; it has printed why
//      head.translate(samples, 200, 0);             // once per frame
//      head.read(input, 286);                       // the stacked vector
//
// The chain adds no delay: the first frame already gives a full vector, padded with copies of it.
// Stages do not own the next one. All buffers are made at construction. A chain belongs to one
// thread at a time; different chains share nothing that changes.
#ifndef DNNVAD_FEAT_FEATURE_TRANSLATE_H
#define DNNVAD_FEAT_FEATURE_TRANSLATE_H

#include <cstdint>

#include "dnnvad/feat/wav2feat.h"
#include "dnnvad/vad_api.h"

namespace tz_dnnvad {

// A stage of the chain. Hosts may call the virtual functions through a table, so their order stays.
class DNNVAD_API FeatureTranslator {
public:
    FeatureTranslator(int srcDim, int dstDim);
    virtual ~FeatureTranslator();
    FeatureTranslator(const FeatureTranslator&) = delete;
    FeatureTranslator& operator=(const FeatureTranslator&) = delete;

    // 2 when this stage and all that follow are usable, 1 when one of them failed.
    virtual int getState();
    // Takes a vector and hands this stage's result to the next one. Returns what the next stage
    // returns, 0 at the end of the chain, -1 from a failed stage or for a wrong length. frameFlag
    // travels along and is not read.
    virtual int translate(float* feat, int dim, int frameFlag);
    // Copies the result of the chain's end to out and returns its length; -1 unless dim is that
    // length.
    virtual int read(float* out, int dim);
    // Copies this stage's spectrum of the last frame to out and returns fftDim (0: the stage has
    // none); -1 unless dim is fftDim. Not forwarded: ask the head.
    virtual int read_fft(float* out, int dim);
    virtual int get_fft_dim();
    // The stage's own buffer, overwritten by the next translate.
    virtual float* get_fft_feature();
    // Forgets the frames seen, in this and all following stages.
    virtual void reset();

    std::int32_t srcDim;      // length of the vector that translate takes
    std::int32_t dstDim;      // length of the vector that the stage makes
    float* fftFeature;        // spectrum buffer of PCM2FeatureTranslator, else null
    std::int32_t fftDim;      // its length, else 0
    std::int32_t state;       // 2 usable, 1 failed
    FeatureTranslator* next;  // following stage, null for the last; set by the owner
};

// The head: srcDim samples -> dstDim log mel energies, and fftDim values of the decibel spectrum.
class DNNVAD_API PCM2FeatureTranslator : public FeatureTranslator {
public:
    // dstDim must equal numChans; lowFreq and highFreq in Hz; narrowBand selects the 8 kHz layout
    // (see init_fevad).
    PCM2FeatureTranslator(int srcDim, int dstDim, int lowFreq, int highFreq, int numChans,
                          int fftDim, bool narrowBand);
    ~PCM2FeatureTranslator() override;

    int getState() override;
    // feat holds srcDim samples in the 16-bit range; dim is ignored.
    int translate(float* feat, int dim, int frameFlag) override;
    void reset() override;

    FeOption* fe_opt;   // owned front-end options with filter bank
    float* dstFeature;  // dstDim floats: the energies of the last frame
};

// Normalisation: (x - mean) * revVar, per dimension.
class DNNVAD_API CMVNFeatureTranslator : public FeatureTranslator {
public:
    // srcDim must equal dstDim; both vectors have srcDim floats and are copied.
    CMVNFeatureTranslator(int srcDim, int dstDim, float* meanVector, float* revVarVector);
    ~CMVNFeatureTranslator() override;

    int getState() override;
    int translate(float* feat, int dim, int frameFlag) override;
    void reset() override;

    float* meanVector;    // srcDim floats
    float* revVarVector;  // srcDim floats
    float* dstFeature;    // srcDim floats: the last result
};

// The context window: the last dstDim / srcDim frames in one vector.
class DNNVAD_API ConcatFeatureTranslator : public FeatureTranslator {
public:
    // dstDim must be a whole multiple of srcDim.
    ConcatFeatureTranslator(int srcDim, int dstDim);
    ~ConcatFeatureTranslator() override;

    int getState() override;
    int translate(float* feat, int dim, int frameFlag) override;
    int read(float* out, int dim) override;
    void reset() override;

    float* feature;                  // dstDim floats, oldest frame first
    std::int32_t contextFrames;      // dstDim / srcDim
    std::int32_t contextFramesCopy;  // the same, not read
    std::int32_t spareCount;         // 0, not read
    std::int32_t framesSeen;         // frames since construction or reset
};

}  // namespace tz_dnnvad

#endif
