// The network: model file, parameters, evaluation.
#ifndef DNNVAD_VAD_NN_H
#define DNNVAD_VAD_NN_H

#include "dnnvad/QN_fltvec.h"
#include "dnnvad/vad_api.h"
#include "dnnvad/vad_config.h"

namespace tz_dnnvad {

// A fully connected feed-forward network with sigmoid hidden layers and a softmax output, together
// with the normalisation vectors and the front-end settings it was trained with.
//
// The model file carries all of it; binary numbers are little-endian and 32 bits wide:
//
//     three lines of any text (a line is its first 1023 bytes here: what is longer counts as the next)
//     20 bytes: int32 feature dimension, sample rate, lower band edge, upper band edge, flag;
//         then the rest of that line up to "\n"
//     a line with the number of parameters, > 0
//     a line "meanvec D" and D lines of one number each (D = feature dimension)
//     a line "revvarvec D" and D lines of one number each
//     int32 number of layers N, > 0; N int32 layer sizes, input first
//     float32 parameters: for each pair of layers the weights (rows = outputs, row-major), then the
//         biases
class DNNVAD_API DNN {
public:
    // Loads a model file; `configer` is not used. Never throws; getState() tells the outcome and a
    // line on standard output the reason of a failure. Three malformations end the process with an
    // assertion: a parameter count or a layer count that is not positive, and a layer table that
    // cannot be allocated. A parameter count that disagrees with the layers is only a warning, and
    // parameters that are missing for that reason are 0, up to 65536 of them. More features or layers
    // than 65536 are refused as if there were no memory for them.
    DNN(VadConfiger* configer, const char* path);
    ~DNN();
    DNN(const DNN&) = delete;
    DNN& operator=(const DNN&) = delete;

    int getState();  // 1 = not loaded, 2 = loaded
    int reset();     // a network has no state between frames: returns 0

    // Copies a flat parameter block of `param_num` floats (file order) into the matrices and biases.
    void set_network(const float* params, int param_num);

    // Overwrites the layer sizes in place. `_layer_size` must hold `layer_num` entries already, and
    // every buffer must be large enough for the new sizes: nothing is reallocated.
    void set_topology(int layer_num, int* layer_size);

    // Evaluates one input vector of `_layer_size[0]` floats (16-byte aligned for speed) into
    // `_layer_size[last]` posteriors. `in_dim` is not used. Returns 0; a network that is not loaded, or
    // has one layer only, writes nothing.
    int forward(const float* in, int in_dim, float* out);

    // C (m x q) = A (m x n) B (p x q), row-major. Returns 0, or -1 when n != p.
    int matrix_product(const float* A, int m, int n, const float* B, int p, int q, float* C);

    // c[i] = x[i] + y[i]; c may be either input. Returns 0.
    int vector_add(const float* x, const float* y, float* c, int n);

    // The hidden and the output activation. Both return 0.
    int sigmod(const float* in, float* out, int n);
    int softmax(const float* in, float* out, int n);

    // Sum of x[i] y[i] in index order with fused multiply-adds.
    float dot_product(const float* x, const float* y, int n);

    int _layer_number;    // layers, input included
    int* _layer_size;     // _layer_number sizes, input first
    float** _weights;     // _layer_number - 1 matrices, _layer_size[k+1] x _layer_size[k], aligned
    float** _biases;      // _layer_number - 1 vectors of _layer_size[k+1], aligned
    int _max_layer_size;  // largest layer but the input
    float* _out_buf;      // _max_layer_size activations of the latest layer
    float* _tmp_buf;      // _max_layer_size sums before activation
    int _feat_dim;        // features per frame
    int _sample_rate;     // Hz
    int _low_freq;        // lower filter-bank edge, Hz
    int _high_freq;       // upper filter-bank edge, Hz
    bool _header_flag;    // read and kept, not used
    float* _mean_vec;     // _feat_dim means
    float* _rev_var_vec;  // _feat_dim multipliers
    int _state;           // 1 = not loaded, 2 = loaded

private:
    struct File;
    DNNVAD_LOCAL bool load(File& file);
    DNNVAD_LOCAL bool read_header(File& file);
    DNNVAD_LOCAL bool read_vector(File& file, const char* token, const char* name, float*& vector);
    DNNVAD_LOCAL bool read_layers(File& file);
    DNNVAD_LOCAL bool allocate_layers(const File& file);
    DNNVAD_LOCAL int copy_parameters(const float* params, int param_num);
};

// C (m x q) = A (m x n) B (p x q) in plain order, or matrix_product_neon when q = 1. Returns 0, or
// -1 when n != p.
DNNVAD_API int native_matrix_product(const float* A, int m, int n, const float* B, int p, int q,
                                     float* C);

// y[i] = row i of A (m rows, stride n) times x over p elements; `q` is ignored. Per row: four lanes
// over whole groups of four with separate multiply and add, a fused tail, then
// ((lane0 + lane1) + (lane2 + lane3)) + tail.
DNNVAD_API void matrix_product_neon(const float* A, int m, int n, const float* x, int p, int q,
                                    float* y);

// Sigmoid with expf, combined in double precision, from the last element down.
DNNVAD_API void native_sigmod(const float* in, float* out, int n);

// An inert placeholder: 0.
DNNVAD_API float native_softmax(float x);

}  // namespace tz_dnnvad

#endif
