// From one frame of PCM to its log mel filter-bank energies.
//
//      samples -> [mean removal -> pre-emphasis 0.97] -> Hamming window -> FFT -> mel bank -> ln
//                  8 kHz layout only
//
// Preconditions are assertions in every build.
#ifndef DNNVAD_FEAT_WAV2FEAT_H
#define DNNVAD_FEAT_WAV2FEAT_H

#include <cstdint>

#include "dnnvad/feat/signal_process.h"
#include "dnnvad/vad_api.h"

namespace tz_dnnvad {

// Front-end options of one feature extractor. Made by init_fevad; 1092 bytes on 32-bit processors.
struct DNNVAD_API FeOption {
    std::int32_t sampleRate;     // Hz: 8000 narrow band, 16000 wide band
    std::int32_t frameLength;    // samples per frame (25 ms): 200, 400
    std::int32_t frameShift;     // samples between frame starts (10 ms): 80, 160
    std::int32_t lowFreq;        // lower band edge, Hz; negative: none
    std::int32_t highFreq;       // upper band edge, Hz; negative: half the sample rate
    std::int32_t numChans;       // mel channels, the length of the output vector
    std::int32_t spareSetting1;  // 12, not read
    std::int32_t spareSetting2;  // 22, not read
    std::int32_t spareSetting3;  // 12, not read
    bool narrowBand;             // 8 kHz layout, with mean removal and pre-emphasis
    std::int32_t spareWord1;     // not read
    std::int32_t spareWord2;     // not read
    std::int32_t appendEnergy;   // non-zero: the frame's energy follows the channels
    std::int32_t spareWord3;     // not read
    FBankInfo* fbinfo;           // owned filter bank
    std::int32_t spareSetting4;  // 3, not read
    std::int32_t spareSetting5;  // 1, not read
    char spareBlock[1024];       // not initialised, not used; part of the record's size
};

static_assert(sizeof(void*) != 4 || sizeof(FeOption) == 1092, "hosts rely on the record's size");

// Makes the options for the 8 kHz (narrowBand) or 16 kHz layout and designs their filter bank: power
// spectrum, natural logs, no warping. Band edges in Hz. Released with kill_fevad.
DNNVAD_API FeOption* init_fevad(int lowFreq, int highFreq, int numChans, bool narrowBand);

// Releases the filter bank and the record, which must not be null.
DNNVAD_API void kill_fevad(FeOption* fe_opt);

// One frame: pcm holds nSamples raw samples in the 16-bit range, of which the first frameLength are
// used; missing ones count as zeros. out receives numChans floats, and with appendEnergy one more:
// the mean square of the vector (frameLength, s[1], .. s[frameLength - 1]) before processing (kept:
// the header takes part and the last sample does not). outLen is not touched. Returns 0.
// This form prints the line "use pcm process" on every narrow-band frame.
DNNVAD_API int wav2cep_one_frame(float* pcm, int nSamples, float* out, int& outLen,
                                 FeOption* fe_opt);

// The same without that line, and fftFeature also receives fftDim values of the frame's decibel
// spectrum (see wave_2_fbank).
DNNVAD_API int wav2cep_one_frame(float* pcm, int nSamples, float* out, int& outLen,
                                 FeOption* fe_opt, float* fftFeature, int fftDim);

}  // namespace tz_dnnvad

#endif
