#include "dnnvad/bleep_detect.h"

#include <sys/stat.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

namespace tz_dnnvad {
namespace {

// A spectrogram that spans less than this is nearly flat: the margin shrinks with the span.
constexpr float kFullRange = 60.0F;

// fscanf takes as much memory as its longest number, and time for all white space.
constexpr long long kMaxFileBytes = 1 << 22;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// Marks the cells 0 .. last that lie within the margin of their maximum.
void binarise(const float* spectrogram, long long last, float margin, char* binary) {
    float max = -1000.0F;
    float min = 1000.0F;
    for (long long i = 0; i <= last; ++i) {
        const float value = spectrogram[i];
        max = value > max ? value : max;
        min = value < min ? value : min;
    }
    const float range = max - min;
    if (range < kFullRange) {
        margin = range * margin / kFullRange;
    }
    for (long long i = 0; i <= last; ++i) {
        binary[i] = (spectrogram[i] - max) - margin > 0.0F ? 1 : 0;
    }
}

// Number of cells that are on in both maps. The cells of `binary` are 0 or 1, so the bytes of eight
// cells ANDed together are counts that add up without carries, for up to 255 steps.
int overlap(const char* binary, const char* pattern, long long cells) {
    constexpr long long kWord = 8;
    constexpr long long kMaxSteps = 255;
    int count = 0;
    long long cell = 0;
    while (cells - cell >= kWord) {
        const long long left = (cells - cell) / kWord;
        const long long steps = left < kMaxSteps ? left : kMaxSteps;
        std::uint64_t lanes = 0;
        for (long long i = 0; i < steps; ++i, cell += kWord) {
            std::uint64_t on;
            std::uint64_t wanted;
            std::memcpy(&on, binary + cell, sizeof on);
            std::memcpy(&wanted, pattern + cell, sizeof wanted);
            lanes += on & wanted;
        }
        for (; lanes != 0; lanes >>= 8) {
            count += static_cast<int>(lanes & 0xFF);
        }
    }
    for (; cell < cells; ++cell) {
        count += (binary[cell] & pattern[cell]) != 0;
    }
    return count;
}

// The row at which the template overlaps the map most, the earliest of equals. The last row at which
// it would fit is not tried. Kept: the scores of existing models rest on it.
long long best_offset(const char* binary, const char* pattern, int frames, int rows, int bins) {
    if (rows <= 0 || bins <= 0) {
        return 0;
    }
    const long long cells = static_cast<long long>(rows) * bins;
    long long best = 0;
    int best_count = 0;
    for (long long offset = 0; offset < static_cast<long long>(frames) - rows; ++offset) {
        const int count = overlap(binary + offset * bins, pattern, cells);
        if (count > best_count) {
            best_count = count;
            best = offset;
        }
    }
    return best;
}

}  // namespace

int BleepDetector::load_dector_model(const char* path, int rows, int cols, char* pattern, int low,
                                     float* weights) {
    const std::unique_ptr<std::FILE, FileCloser> file(path != nullptr ? std::fopen(path, "rt")
                                                                      : nullptr);
    struct stat status;
    if (file == nullptr || fstat(fileno(file.get()), &status) != 0 ||
        (S_ISREG(status.st_mode) && status.st_size > kMaxFileBytes)) {
        return -1;
    }
    const long long cells = static_cast<long long>(rows) * cols;
    long long value = -1;  // wide, so that 32-bit and 64-bit machines read the same
    for (long long i = 0; i < cells; ++i) {
        if (std::fscanf(file.get(), "%lld", &value) == 0) {
            return -1;
        }
        pattern[i] = static_cast<char>(value);
    }
    const long long columns = static_cast<long long>(cols) - low;
    for (long long i = 0; i <= columns; ++i) {
        if (std::fscanf(file.get(), "%f", &weights[i]) == EOF) {
            return -1;
        }
    }
    return 0;
}

float BleepDetector::bleep_detect_score(int frames, int /*capacity*/, int bins, int low,
                                        int pattern_rows, float margin, const float* spectrogram,
                                        char* binary, const char* pattern, const float* weights,
                                        float* embedding) {
    const long long last = static_cast<long long>(frames) * bins;
    binarise(spectrogram, last, margin, binary);
    const long long best = best_offset(binary, pattern, frames, pattern_rows, bins);

    const long long columns = static_cast<long long>(bins) - low;
    float score = 0.0F;
    for (long long k = 0; k < columns; ++k) {
        int ones = 0;
        for (int row = 0; row < pattern_rows; ++row) {
            const long long cell = (best + row) * bins + (low - 1 + k);
            if (cell > last) {
                break;
            }
            ones += binary[cell];
        }
        embedding[k] = static_cast<float>(ones);
        score = std::fmaf(embedding[k], weights[k + 1], score);
    }
    score = score + weights[0];
    return 1.0F / (std::exp(-score) + 1.0F);
}

}  // namespace tz_dnnvad
