// Recognises the device's own two-tone prompt beep in a short spectrogram, so that it is not taken
// for the user's speech.
//
//      spectrogram --binarise--> map of cells near the maximum
//                  --align-----> the rows where the beep's template overlaps the map most
//                  --embed-----> ones per frequency column in these rows
//                  --score-----> logistic model over the counts: probability of the beep
//
// A spectrogram has one row per 10 ms frame and F columns per row, column 0 being DC; values are
// 10 log10(|X| + 1e-10) of each spectrum bin. All maps are row-major.
#ifndef DNNVAD_BLEEP_DETECT_H
#define DNNVAD_BLEEP_DETECT_H

#include "dnnvad/vad_api.h"

namespace tz_dnnvad {

// Holds no data: every buffer is the caller's, and one object may serve any number of them.
class DNNVAD_API BleepDetector {
public:
    // Reads a bleep model: a text file of rows * cols integers (the template, row 0 first; 0 and 1
    // are meant, other values are cut to 8 bits), then cols - low + 1 decimal numbers (the bias,
    // then the weights of columns low - 1 .. cols - 2), all separated by white space. What follows
    // is not read.
    //   pattern  room for rows * cols values
    //   low      first used column + 1; when it exceeds cols, no weights are read
    //   weights  room for cols - low + 1 values
    // Returns 0, or -1 when the path is null, the file cannot be opened or exceeds 4 MB, a template value
    // is no number or the file ends before the last weight; the buffers may then be partly written.
    // Kept from the format's first reader: a file that ends within the template repeats its last
    // value (-1 at first) over the remaining cells, which shows only when weights are read; and a
    // weight that is no number leaves that one and all later weights as they were, without an error
    // (of a lone sign or a beginning of "nan" or "inf" the next weight is read in its place).
    int load_dector_model(const char* path, int rows, int cols, char* pattern, int low,
                          float* weights);

    // Scores the first `frames` rows of a spectrogram. Nothing is checked; the caller makes sure that
    // frames > pattern_rows >= 0, 1 <= low, and that the buffers hold
    //   spectrogram, binary  frames * bins + 1 values (one cell after the rows counts, too)
    //   pattern              pattern_rows * bins values, as loaded
    //   weights              bins - low + 1 values, as loaded
    //   embedding            bins - low values
    // With frames <= pattern_rows the rows are not aligned and missing rows count as empty.
    //   capacity  rows that the spectrogram has room for, not used
    //   margin    how far below the maximum a cell may be to count, as a negative number; narrowed
    //             in proportion when the values span less than 60
    // Writes `binary` (1 or 0 per cell) and `embedding` (ones per column), and returns the
    // probability of the beep, 0 .. 1.
    float bleep_detect_score(int frames, int capacity, int bins, int low, int pattern_rows,
                             float margin, const float* spectrogram, char* binary,
                             const char* pattern, const float* weights, float* embedding);
};

}  // namespace tz_dnnvad

#endif
