#include "dnnvad/vad_nn.h"

#include <sys/stat.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include "dnnvad/aligned.h"
#include "dnnvad/arch/float4.h"
#include "dnnvad/arch/fused.h"
#include "dnnvad/constants.h"
#include "dnnvad/saturate.h"
#include "dnnvad/vad_log.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "model files are read as little-endian words");

namespace tz_dnnvad {

namespace {

constexpr int kLineBytes = 1024;
constexpr long long kMaxInt = std::numeric_limits<int>::max();
// Features per frame, and layers, that a network may have; and parameters that its file may lack (they
// are 0). Far beyond any use, and few enough that what a file claims costs no more than what it holds.
constexpr int kMaxClaim = 1 << 16;

// A decimal integer at the start of `text`, saturating; `otherwise` when there is none.
int parse_int(const char* text, int otherwise) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return end == text ? otherwise : saturate_to_int(value);
}

// The parameters of layers of these sizes; 0 when there are no such layers.
long long parameters_of(const int* size, int layers) {
    long long total = 0;
    for (int k = 0; k + 1 < layers; ++k) {
        total += (size[k] + 1LL) * size[k + 1];
        if (size[k] < 0 || size[k + 1] < 0 || total > kMaxInt) {
            return 0;
        }
    }
    return total;
}

// ((lane0 + lane1) + (lane2 + lane3)) of each of four rows.
float32x4_t sum_lanes(float32x4_t row0, float32x4_t row1, float32x4_t row2, float32x4_t row3) {
    // From two vectors a and b: (a0 + a1, a2 + a3, b0 + b1, b2 + b3).
    const auto add_pairs = [](float32x4_t a, float32x4_t b) {
        const float32x4x2_t parted = vuzpq_f32(a, b);
        return vaddq_f32(parted.val[0], parted.val[1]);
    };
    return add_pairs(add_pairs(row0, row1), add_pairs(row2, row3));
}

// `Rows` rows of A at once against x, so that the additions of different rows overlap; the order
// within each row is the same for any number of rows. The loops over rows are unrolled so that the
// lane sums stay in registers.
template <int Rows>
void multiply_rows(const float* A, int stride, const float* x, int length, float* y) {
    static_assert(Rows % 4 == 0);
    const float* row[Rows];
    float32x4_t lanes[Rows] = {};
#pragma GCC unroll 8
    for (int r = 0; r < Rows; ++r) {
        row[r] = A + static_cast<std::ptrdiff_t>(r) * stride;
    }
    const int tail = std::max(length, 0) % 4;
    for (const float* const end = x + (std::max(length, 0) - tail); x < end; x += 4) {
        const float32x4_t values = vld1q_f32(x);
#pragma GCC unroll 8
        for (int r = 0; r < Rows; ++r) {
            lanes[r] = add_product(lanes[r], vld1q_f32(row[r]), values);
            row[r] += 4;
        }
    }
    float tails[Rows] = {};
    for (int k = 0; k < tail; ++k) {
#pragma GCC unroll 8
        for (int r = 0; r < Rows; ++r) {
            // Fused with 0 a product is just rounded; the sign of a zero vanishes in the sum below.
            tails[r] = k == 0 ? row[r][k] * x[k] : fused_multiply_add(row[r][k], x[k], tails[r]);
        }
    }
#pragma GCC unroll 8
    for (int r = 0; r < Rows; r += 4) {
        const float32x4_t sums = sum_lanes(lanes[r], lanes[r + 1], lanes[r + 2], lanes[r + 3]);
        vst1q_f32(y + r, vaddq_f32(sums, vld1q_f32(tails + r)));
    }
}

}  // namespace

// ---- Loading --------------------------------------------------------------------------------------

// The model file while it is read.
struct DNN::File {
    const char* path;
    std::unique_ptr<FILE, int (*)(FILE*)> stream;
    int parameter_count = 0;        // as the file claims
    long long used_parameters = 0;  // as its layers need; 0 when they cannot be
    std::unique_ptr<float[], FreeDeleter> parameters;
    char line[kLineBytes] = {};

    explicit File(const char* name)
        : path(name != nullptr ? name : "(null)"),
          stream(name != nullptr ? std::fopen(name, "rb") : nullptr, std::fclose) {}

    bool read_line() { return std::fgets(line, sizeof line, stream.get()) != nullptr; }

    // `value` stays as it is at the end of the file.
    bool read_word(int& value) {
        int word;
        if (std::fread(&word, sizeof word, 1, stream.get()) != 1) {
            return false;
        }
        value = word;
        return true;
    }

    // Bytes from here to the end; -1 for what has no known size, such as a pipe.
    long long left() const {
        struct stat status;
        const bool known = fstat(fileno(stream.get()), &status) == 0 && S_ISREG(status.st_mode) &&
                           status.st_size > 0;
        return known ? static_cast<long long>(status.st_size) - ftello(stream.get()) : -1;
    }
};

DNN::DNN(VadConfiger* /*configer*/, const char* path)
    : _layer_number(0),
      _layer_size(nullptr),
      _weights(nullptr),
      _biases(nullptr),
      _max_layer_size(0),
      _out_buf(nullptr),
      _tmp_buf(nullptr),
      _feat_dim(0),
      _sample_rate(0),
      _low_freq(0),
      _high_freq(0),
      _header_flag(false),
      _mean_vec(nullptr),
      _rev_var_vec(nullptr),
      _state(kFailed) {
    File file(path);
    if (file.stream == nullptr) {
        VAD_ERROR("failed to open dnn model file[%s]\n", file.path);
        return;
    }
    _state = load(file) ? kUsable : kFailed;
}

bool DNN::load(File& file) {
    if (!read_header(file) || !read_vector(file, "meanvec", "meanVector", _mean_vec) ||
        !read_vector(file, "revvarvec", "revVarVector", _rev_var_vec) || !read_layers(file) ||
        !allocate_layers(file)) {
        return false;
    }
    set_network(file.parameters.get(), file.parameter_count);
    return true;
}

bool DNN::read_header(File& file) {
    for (int i = 0; i < 3; ++i) {
        if (!file.read_line()) {
            VAD_ERROR("failed to read header of model file[%s]\n", file.path);
            return false;
        }
    }
    // A file that ends inside these words fails at the line end that has to follow them.
    int flag = 0;
    for (int* word : {&_feat_dim, &_sample_rate, &_low_freq, &_high_freq, &flag}) {
        file.read_word(*word);
    }
    _header_flag = flag != 0;
    if (!file.read_line()) {
        VAD_ERROR("failed to skip tail of current line\n");
        return false;
    }
    if (!file.read_line()) {
        VAD_ERROR("failed to read data offeset of model file[%s]\n", file.path);
        return false;
    }
    const int flt_number = parse_int(file.line, 0);
    assert(flt_number > 0);
    file.parameter_count = flt_number;
    return true;
}

// One normalisation vector: its header line, then `_feat_dim` lines of one number each.
bool DNN::read_vector(File& file, const char* token, const char* name, float*& vector) {
    if (!file.read_line()) {
        VAD_ERROR("failed to read header of %s\n", name);
        return false;
    }
    char head[256] = "";
    int consumed = 0;
    std::sscanf(file.line, "%255s%n", head, &consumed);
    if (std::strcmp(head, token) != 0) {
        VAD_ERROR("failed to read %s head\n", name);
        return false;
    }
    const int dim = parse_int(file.line + consumed, -1);
    if (dim != _feat_dim) {
        VAD_ERROR("error:%s Dim:%d _feat_dim:%d not equal\n\n", name, dim, _feat_dim);
        return false;
    }
    if (_feat_dim >= 0 && _feat_dim <= kMaxClaim) {
        vector =
            static_cast<float*>(std::calloc(static_cast<std::size_t>(_feat_dim), sizeof(float)));
    }
    if (vector == nullptr) {
        VAD_ERROR("failed to read %s\n", name);
        return false;
    }
    for (int i = 0; i < _feat_dim; ++i) {
        if (!file.read_line()) {
            VAD_ERROR("failed to read %s\n", name);
            return false;
        }
        vector[i] = static_cast<float>(std::strtod(file.line, nullptr));
    }
    return true;
}

bool DNN::read_layers(File& file) {
    // Room for what the file can hold; one that claims more is refused below.
    const long long left = file.left();
    const auto count = static_cast<std::size_t>(file.parameter_count);
    const long long room =
        left < 0 ? file.parameter_count : std::min<long long>(file.parameter_count, left / 4 + 1);
    file.parameters.reset(
        static_cast<float*>(std::calloc(static_cast<std::size_t>(room), sizeof(float))));
    if (file.parameters == nullptr) {
        VAD_ERROR("allocate memory[%d] for net_buf\n", file.parameter_count);
        return false;
    }
    file.read_word(_layer_number);
    assert(_layer_number > 0);
    const long long claimed = 4LL + 4LL * _layer_number + 4LL * file.parameter_count;
    if (left >= 0 && left < claimed) {
        VAD_ERROR("corrupted net model file[%s]\n", file.path);
        return false;
    }
    if (_layer_number > kMaxClaim) {
        VAD_ERROR("DNN init memory new failure _layer_number:%d!\n\n", _layer_number);
        return false;
    }
    _layer_size =
        static_cast<int*>(std::calloc(static_cast<std::size_t>(_layer_number), sizeof(int)));
    assert(_layer_size);
    // Sizes beyond the end of the file stay 0; the parameters then are missing too.
    for (int k = 0; k < _layer_number && file.read_word(_layer_size[k]); ++k) {
    }
    // Parameters that belong to no layer have to be there, but need not be read.
    file.used_parameters = parameters_of(_layer_size, _layer_number);
    const std::size_t wanted =
        left < 0 ? count : std::min(count, static_cast<std::size_t>(file.used_parameters));
    if (std::fread(file.parameters.get(), sizeof(float), wanted, file.stream.get()) != wanted) {
        VAD_ERROR("corrupted net model file[%s]\n", file.path);
        return false;
    }
    return true;
}

bool DNN::allocate_layers(const File& file) {
    const int transitions = _layer_number - 1;
    const long long limit =
        std::min<long long>(file.used_parameters, file.parameter_count) + kMaxClaim;
    // One entry more than there are blocks: the destructor walks to the first null.
    for (float*** const table : {&_weights, &_biases}) {
        *table = static_cast<float**>(
            std::calloc(static_cast<std::size_t>(_layer_number), sizeof(float*)));
    }
    if (_weights == nullptr || _biases == nullptr) {
        VAD_ERROR("DNN init memory new failure _layer_number:%d!\n\n", _layer_number);
        return false;
    }
    if (transitions == 0 && (_layer_size[0] < 0 || _layer_size[0] > limit)) {
        VAD_ERROR("DNN init memory new failure maxlayerSize:%d!\n\n", _layer_size[0]);
        return false;
    }
    long long total = 0;
    for (int k = 0; k < transitions; ++k) {
        const long long inputs = _layer_size[k];
        const long long outputs = _layer_size[k + 1];
        // Both factors are below 2^31, so the product fits; the sum is kept below 2^31 step by step.
        const bool sane = inputs >= 0 && inputs <= limit && outputs >= 0 &&
                          (total += (inputs + 1) * outputs) <= limit;
        if (sane) {
            _max_layer_size = std::max(_max_layer_size, _layer_size[k + 1]);
            _weights[k] = zeroed_aligned_floats(static_cast<std::size_t>(inputs * outputs));
            _biases[k] = zeroed_aligned_floats(static_cast<std::size_t>(outputs));
        }
        if (!sane || _weights[k] == nullptr || _biases[k] == nullptr) {
            VAD_ERROR("DNN init memory new failure curLayer:%d matrixSize:%d baseSize:%d!\n\n", k,
                      k, k);
            return false;
        }
    }
    _out_buf = zeroed_aligned_floats(static_cast<std::size_t>(_max_layer_size));
    _tmp_buf = zeroed_aligned_floats(static_cast<std::size_t>(_max_layer_size));
    if (_out_buf == nullptr || _tmp_buf == nullptr) {
        VAD_ERROR("DNN init memory new failure maxlayerSize:%d!\n\n", _max_layer_size);
        return false;
    }
    return true;
}

DNN::~DNN() {
    // The layer number says nothing of the tables: a load may have failed before they were there, and
    // set_topology may have changed it since.
    for (float** const table : {_weights, _biases}) {
        for (int k = 0; table != nullptr && table[k] != nullptr; ++k) {
            std::free(table[k]);
        }
    }
    std::free(_layer_size);
    std::free(_weights);
    std::free(_biases);
    std::free(_out_buf);
    std::free(_tmp_buf);
    std::free(_mean_vec);
    std::free(_rev_var_vec);
}

int DNN::getState() { return _state; }

int DNN::reset() { return 0; }

void DNN::set_network(const float* params, int param_num) {
    assert(_layer_size);
    assert(_layer_number > 0);
    const int read_param_num = copy_parameters(params, param_num);
    if (read_param_num != param_num) {
        VAD_ERROR("read_param_num[%d] != param_num[%d]\n", read_param_num, param_num);
    }
}

// Returns how many parameters the layers hold. Of a shorter block the missing ones are left as they
// are (0 after loading). Without complete buffers there is nothing to copy to.
int DNN::copy_parameters(const float* params, int param_num) {
    int position = 0;
    if (_out_buf == nullptr || _tmp_buf == nullptr) {
        return position;
    }
    const auto copy = [&](float* block, int size) {
        const int present = std::min(size, std::max(param_num - position, 0));
        std::copy_n(params + std::min(position, std::max(param_num, 0)), present, block);
        position += size;
    };
    for (int k = 0; k < _layer_number - 1; ++k) {
        copy(_weights[k], _layer_size[k] * _layer_size[k + 1]);
        copy(_biases[k], _layer_size[k + 1]);
    }
    return position;
}

void DNN::set_topology(int layer_num, int* layer_size) {
    assert(layer_num > 0);
    // clang-format off
    assert(layer_size != NULL);
    // clang-format on
    _layer_number = layer_num;
    if (_layer_size != nullptr) {
        std::copy_n(layer_size, layer_num, _layer_size);
    }
}

// ---- Evaluation -----------------------------------------------------------------------------------

int DNN::forward(const float* in, int /*in_dim*/, float* out) {
    const int last = _layer_number - 2;
    if (last < 0 || _weights == nullptr || _biases == nullptr || _out_buf == nullptr ||
        _tmp_buf == nullptr) {
        return 0;
    }
    for (int k = 0; k <= last; ++k) {
        const int inputs = _layer_size[k];
        const int outputs = _layer_size[k + 1];
        matrix_product(_weights[k], outputs, inputs, k == 0 ? in : _out_buf, inputs, 1, _tmp_buf);
        vector_add(_tmp_buf, _biases[k], _tmp_buf, outputs);
        if (k == last) {
            softmax(_tmp_buf, _out_buf, outputs);
        } else {
            sigmod(_tmp_buf, _out_buf, outputs);
        }
    }
    std::copy_n(_out_buf, _layer_size[last + 1], out);
    return 0;
}

int DNN::matrix_product(const float* A, int m, int n, const float* B, int p, int q, float* C) {
    return n == p ? native_matrix_product(A, m, n, B, p, q, C) : -1;
}

int DNN::vector_add(const float* x, const float* y, float* c, int n) {
    for (int i = 0; i < n; ++i) {
        c[i] = x[i] + y[i];
    }
    return 0;
}

int DNN::sigmod(const float* in, float* out, int n) {
    qn_fe_sigmoid_vf_vf(static_cast<unsigned>(std::max(n, 0)), in, out);
    return 0;
}

int DNN::softmax(const float* in, float* out, int n) {
    constexpr int kFastSoftmax = 4;
    const auto kernel = (qn_math & kFastSoftmax) != 0 ? qn_fe_softmax_vf_vf : qn_nv_softmax_vf_vf;
    kernel(static_cast<unsigned>(std::max(n, 0)), in, out);
    return 0;
}

float DNN::dot_product(const float* x, const float* y, int n) {
    float sum = 0.0F;
    for (int i = 0; i < n; ++i) {
        sum = fmaf(x[i], y[i], sum);
    }
    return sum;
}

int native_matrix_product(const float* A, int m, int n, const float* B, int p, int q, float* C) {
    if (n != p) {
        return -1;
    }
    if (q == 1) {
        matrix_product_neon(A, m, n, B, p, q, C);
        return 0;
    }
    for (std::ptrdiff_t i = 0; i < m; ++i) {
        for (std::ptrdiff_t j = 0; j < q; ++j) {
            float sum = 0.0F;
            for (std::ptrdiff_t k = 0; k < n; ++k) {
                sum = fmaf(A[i * n + k], B[k * q + j], sum);
            }
            C[i * q + j] = sum;
        }
    }
    return 0;
}

void matrix_product_neon(const float* A, int m, int n, const float* x, int p, int /*q*/, float* y) {
    const auto row = [&](int i) { return A + static_cast<std::ptrdiff_t>(i) * n; };
    int i = 0;
    for (; i + 8 <= m; i += 8) {
        multiply_rows<8>(row(i), n, x, p, y + i);
    }
    for (; i + 4 <= m; i += 4) {
        multiply_rows<4>(row(i), n, x, p, y + i);
    }
    for (; i < m; ++i) {
        float same[4];
        multiply_rows<4>(row(i), 0, x, p, same);
        y[i] = same[0];
    }
}

void native_sigmod(const float* in, float* out, int n) {
    for (int i = n - 1; i >= 0; --i) {
        out[i] = static_cast<float>(1.0 / (1.0 + static_cast<double>(expf(-in[i]))));
    }
}

float native_softmax(float /*x*/) { return 0.0F; }

}  // namespace tz_dnnvad
