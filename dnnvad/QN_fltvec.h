// Vector kernels of the network: activations, fast exponential, small utilities.
//
// Vectors are plain arrays of `n` elements; `out` may be the same array as an input. n = 0 does
// nothing. Results are reproducible to the bit: the order of operations and the width of each
// (float or double) are part of the behaviour.
#ifndef DNNVAD_QN_FLTVEC_H
#define DNNVAD_QN_FLTVEC_H

#include "dnnvad/vad_api.h"

namespace tz_dnnvad {

// Kernel switch, shared by all sessions, never written by the library: bit value 4 selects the
// fast-exponential softmax. Set it before sessions run.
extern DNNVAD_API int qn_math;

// Logistic sigmoid 1 / (1 + e^-x) with the exponential approximated through the exponent bits of a
// double (Schraudolph, "A Fast, Compact Approximation of the Exponential Function", 1999; relative
// error up to about 4 %). Inputs outside (-700, 700) use expf.
DNNVAD_API void qn_fe_sigmoid_vf_vf(unsigned n, const float* in, float* out);

// The same with expf, in single precision.
DNNVAD_API void qn_nv_sigmoid_vf_vf(unsigned n, const float* in, float* out);

// Softmax with the fast exponential.
DNNVAD_API void qn_fe_softmax_vf_vf(unsigned n, const float* in, float* out);

// Softmax with expf, the default output activation.
DNNVAD_API void qn_nv_softmax_vf_vf(unsigned n, const float* in, float* out);

// out[i] = a[i] * s + b[i], fused.
DNNVAD_API void qn_nv_muladd_vffvf_vf(unsigned n, const float* a, float s, const float* b,
                                      float* out);

// ceil(log2 |x|) from logf; saturates at the limits of int (x = 0, infinity), 0 for NaN.
DNNVAD_API int qn_findexp_f_i(float x);

// Reverses the byte order of each double.
DNNVAD_API void qn_swapb_vd_vd(unsigned n, const double* in, double* out);

}  // namespace tz_dnnvad

#endif
