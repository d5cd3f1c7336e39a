// Signal processing of one frame: pre-processing, windows, mel filter bank; and, for hosts of the
// module (detection uses none of it), a radix-2 FFT and cepstral and PLP utilities.
//
// Header vectors. Unless said otherwise a vector is an array of floats whose element 0 holds the
// element count n, as a float, and whose elements 1 .. n hold the data. Routines assert that the
// count is the one they are told. Any alignment will do; the library's own vectors have element 1
// on a 16-byte boundary.
//
// Preconditions are assertions in every build: a call that breaks one ends the process with the
// expression's text.
//
// Threads: all functions may run in several threads at once on different data. One FBankInfo serves
// one thread at a time, since its work buffer is used by every frame.
#ifndef DNNVAD_FEAT_SIGNAL_PROCESS_H
#define DNNVAD_FEAT_SIGNAL_PROCESS_H

#include <cstdint>

#include "dnnvad/vad_api.h"

namespace tz_dnnvad {

// 0 false, 1 true.
using Boolean = std::int32_t;

struct RealFft;

// ---- In frame_process.cpp: steps before the spectrum ---------------------------------------

// Subtracts the mean of vec[1 .. iLen] from each of them. The sum runs in four lanes (elements
// 1, 5, 9 .. in lane 0, and so on), in single precision.
DNNVAD_API void zero_mean_frame(float* vec, int iLen);

// First-order pre-emphasis in place: s[i] - k * s[i-1] (the earlier s[i-1]) for i >= 2, and
// (1 - k) * s[1]. k lies strictly between 0 and 1.
DNNVAD_API void pre_emphasise(float* s, float k, int frameSize);

// Writes the Hamming window 0.54 - 0.46 cos(2 pi i / (frameSize - 1)), i = 0 .. frameSize - 1, into
// hamWin[1 .. frameSize]. A window of one point is not a number.
DNNVAD_API void GenHamWindow(float* hamWin, int frameSize);

// Multiplies s[1 .. frameSize] by the Hamming window. The 200-point window is computed once per
// process and kept; any other is made anew on every call.
DNNVAD_API void ham(float* s, int frameSize);

// ---- In signal_process.cpp: mel filter bank ------------------------------------------------

// A bank of triangular filters whose centres are equally spaced in mel, 1127 ln(1 + f / 700)
// (O'Shaughnessy, "Speech Communication", 1987; triangles after Davis and Mermelstein, 1980).
//
//      weight
//        1 |     /\      /\      /\          channel c rises from cf[c-1] to 1 at cf[c]
//          |    /  \    /  \    /  \         and falls to 0 at cf[c+1]
//          |   /    \  /    \  /    \        (cf[0] read as the lower band edge)
//        0 +--/------\/------\/------\---- mel
//            lower  cf[1]  cf[2]  cf[3]
//            edge      (numChans + 1 is the upper band edge)
//
// FFT index k is 1-based: k stands for bin k - 1, frequency (k - 1) * sampleRate / fftN.
struct DNNVAD_API FBankInfo {
    std::int32_t frameSize;   // samples per frame
    std::int32_t frameShift;  // samples between frame starts; stored only
    std::int32_t numChans;    // number of channels
    std::int32_t sampleRate;  // Hz
    std::int32_t fftN;        // transform length, a power of two
    std::int32_t klo;         // first FFT index that feeds the bank, at least 2 (never bin 0)
    std::int32_t khi;         // last FFT index that feeds the bank, at most fftN / 2
    float fres;               // bin spacing in units of 700 Hz: sampleRate / (fftN * 700)
    float* cf;                // header vector of numChans + 1 centres, mel
    // Over the FFT indices 1 .. fftN / 2, element 0 = fftN / 2: the channel on whose upper slope the
    // index lies, 0 below the first centre, -1 outside the band.
    std::int16_t* loChan;
    // Over the same indices: the share of bin k - 1 that goes to channel loChan[k]; the rest goes to
    // channel loChan[k] + 1.
    float* loWt;
    // The FFT work vector, x[0] = fftN and x[1] 16-byte aligned: element 3 of fftBuffer. After a
    // frame, x[2j+1] and x[2j+2] are the real and imaginary part of bin j = 0 .. fftN / 2 - 1.
    float* x;
    Boolean usePower;  // 1: channels sum power |X|^2; 0: magnitude |X|
    Boolean takeLogs;  // 1: channels are natural logs; may be changed between frames

    // The record's own, not for hosts: transform plan (null for fftN below 8) and work space.
    RealFft* fftPlan;
    float* fftBuffer;
};

// Designs a bank for frames of frameSize samples at sampleRate Hz.
//   lopass, hipass  band edges in Hz; negative: 0 Hz, and half the sample rate
//   usePower, takeLogs  as in the record
//   doubleFFT  1 doubles the transform length (the smallest power of two >= frameSize, at least 2)
//   warpAlpha, warpLowCut, warpUpCut  WarpFreq's alpha, fcl and fcu for the centres; alpha 1: none
// A band without any bin, or no channels at all, is allowed. Asserts numChans <= 32766, a transform
// length of at most 2^24, and every allocation. The caller releases the record with clear_fbank.
DNNVAD_API FBankInfo* init_fbank(int frameSize, int frameShift, int sampleRate, int numChans,
                                 float lopass, float hipass, Boolean usePower, Boolean takeLogs,
                                 Boolean doubleFFT, float warpAlpha, float warpLowCut,
                                 float warpUpCut);

// Frees the record and everything in it; accepts null.
DNNVAD_API void clear_fbank(FBankInfo* fb);

// Piecewise-linear frequency warping for vocal-tract length normalisation: slope 1 / alpha between
// the (scaled) cut frequencies fcl and fcu, joined by straight lines to the fixed points minFreq and
// maxFreq. All in Hz.
DNNVAD_API float WarpFreq(float fcl, float fcu, float freq, float minFreq, float maxFreq,
                          float alpha);

// Channel energies of one windowed frame: s is a header vector of frameSize raw samples (16-bit
// range, not scaled to 1), fbank a header vector of numChans that receives the result. With takeLogs
// energies below 2^-23 count as 2^-23, so that silence reads -15.942385.
// Transform lengths other than 256 print "info->fftN %d" on every call (kept: hosts know the line).
DNNVAD_API void wave_2_fbank(float* s, float* fbank, FBankInfo* info);

// The same, and also the spectrum in decibels: fftFeature[j] = 10 log10(|X_j| + 1e-10) for
// j = 0 .. fftDim - 1 (0-based; ten times the log of the magnitude, kept so, hence half the usual
// dB value). Elements from fftN / 2 on read -100, an empty bin; a null fftFeature is left out.
DNNVAD_API void wave_2_fbank(float* s, float* fbank, FBankInfo* info, float* fftFeature,
                             int fftDim);

// ---- In radix2_fft.cpp: an FFT of the module's own -----------------------------------------

// Fills the table of n + n / 4 sines, sintbl[i] = sin(2 pi i / n), by recurrence in single
// precision; entry i + n / 4 is the cosine (from n = 4 on). n is a power of two.
DNNVAD_API void make_sintbl(int n, float* sintbl);

// Fills the table of n bit-reversed indices. n is a power of two.
DNNVAD_API void make_bitrev(int n, int* bitrev);

// In-place radix-2 transform (Cooley and Tukey, 1965) of the complex numbers x[i] + i y[i],
// i = 0 .. |n| - 1 (plain arrays, not header vectors): sum of z[m] e^(-2 pi i mk / n) for n > 0; the
// inverse, with its 1 / |n|, for n < 0. The tables of the last size are kept, for each thread its
// own; n = 0 releases them. Sizes that are not powers of two leave everything as it is.
DNNVAD_API void fft(int n, float* x, float* y);

// In-place real transform of the header vector s, n = s[0] samples. Afterwards s[2k+1] and s[2k+2]
// are the real and imaginary part of the sum of s[m+1] e^(+2 pi i mk / n), k = 1 .. n / 2 - 1. The
// first pair is the sum of the samples and 0; the value at half the sample rate is not kept. Lengths
// that are not powers of two from 2 on leave the vector as it is.
DNNVAD_API void realft(float* s);

// ---- In cepstral.cpp: cepstral and PLP utilities -------------------------------------------

// Regression (delta) coefficients of numFrames frames of dim floats (dim >= 26, else nothing is
// done): floats 0 .. 12 of a frame are its static coefficients x, floats 13 .. 25 receive
// ((x[t+1] - x[t-1]) + 2 (x[t+2] - x[t-2])) / 10. head frames lie before data and tail frames after
// the last; beyond them the outermost frame stands in.
DNNVAD_API void Regress(float* data, int head, int tail, int numFrames, int dim);

// Regression over a whole sequence of frames.
DNNVAD_API void add_regress(float* data, int numFrames, int dim);

// Sinusoidal lifter 1 + (cepLifter / 2) sin(pi i / cepLifter) in cepWin[1 .. cepSize], whose header
// is cepSize.
DNNVAD_API void GenCepLifterWindow(float* cepWin, int cepSize, int cepLifter);

// Multiplies cepFrame[1 .. cepSize] by the lifter. The header of cepFrame is cepSize + 1 (kept: one
// more than the coefficients weighted).
DNNVAD_API void WeightCepstrum(float* cepFrame, int cepSize, int cepLifter);

// Set-up of a perceptual linear prediction analysis (Hermansky, "Perceptual linear predictive (PLP)
// analysis of speech", 1990).
struct DNNVAD_API PLPInfo {
    std::int32_t lpcOrder;  // order of the prediction
    float* vecA;            // header vector of lpcOrder + 1, work space
    float* spareVec;        // null; freed by ClearPLPInfo when a host sets it (malloc)
    float* vecB;            // header vector of lpcOrder + 1, work space
    float* eql;             // header vector of numChans equal-loudness weights
    // 60 row pointers. Rows 0 .. numChans + 2 (never beyond the table) hold numChans + 5 doubles and
    // the cosines of the inverse transform in rows 0 .. lpcOrder; the other slots are null.
    double** cm;
    float compressFact;  // exponent of the loudness compression, one third
};

// Makes the record for the channels of a filter bank. lpcOrder should not exceed numChans + 2; rows
// that the table does not have are left out. The caller releases it with ClearPLPInfo and free.
DNNVAD_API PLPInfo* InitPLP(FBankInfo* fbinfo, int lpcOrder);

// Frees what the record holds and clears its pointers; the record itself stays the caller's.
DNNVAD_API void ClearPLPInfo(PLPInfo* info);

}  // namespace tz_dnnvad

#endif
