// Runs a session with default parameters over each of many short streams; says what became of it.
//
//     bleep_maps MODEL TEMPLATE OUT [THRESHOLD] < STREAMS
//
// STREAMS: per stream a little-endian 32-bit count, then so many samples of 16-bit mono PCM at the
// model's rate, pushed 10 ms at a time until they end or the session times out. THRESHOLD: score
// that starts and ends speech (ids 23 and 24).
//
// OUT: a line of JSON per stream.
//     status    [[frame, status], ...] of every change, the frame being that of the push
//     segments  [[speech_start, last_speech], ...]
//     asked     rows that the bleep detector was asked about, -1 when it was not
//     score     its answer
//     map       its map of cells near the maximum, asked x F cells as hexadecimal digits, four a
//               digit, the first cell in the highest bit
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "dnnvad/dnn_vad.h"

using namespace tz_dnnvad;

namespace {

constexpr int kTimedOut = 3;
constexpr float kUnasked = -1.0F;  // no count of cells

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

void print_map(const char* cells, int count, std::FILE* out) {
    for (int i = 0; i < count; i += 4) {
        const int digit = cells[i] << 3 | cells[i + 1] << 2 | cells[i + 2] << 1 | cells[i + 3];
        std::fprintf(out, "%x", static_cast<unsigned>(digit));
    }
}

void listen(CMFE& session, const std::vector<std::int16_t>& samples, std::FILE* out) {
    const auto shift = static_cast<std::size_t>(session._m_n_frame_shift);
    int status = 0, asked = -1;
    float score = 0.0F;
    std::vector<char> map;
    session.mfeReset();
    session._m_p_embd_test[0] = kUnasked;
    std::fprintf(out, "{\"status\": [");
    const char* separator = "";
    for (std::size_t at = 0; at + shift <= samples.size() && status != kTimedOut; at += shift) {
        session.mfeSendData(samples.data() + at, static_cast<int>(shift));
        const int before = status;
        const int last_speech = session._m_n_last_speech;
        status = session.mfeDNNDetect();
        if (status != before) {
            std::fprintf(out, "%s[%zu, %d]", separator, at / shift, status);
            separator = ", ";
        }
        if (asked < 0 && session._m_p_embd_test[0] != kUnasked) {
            asked = last_speech;
            map.assign(session._m_p_spec_binary,
                       session._m_p_spec_binary + asked * session._m_n_fft_size);
            score = session._m_p_bleep_detector->bleep_detect_score(
                asked, session._m_n_spec_frames, session._m_n_fft_size, session._m_n_pattern_low,
                session._m_n_pattern_frames, session._m_f_bleep_margin,
                session._m_p_spec_log_smooth, session._m_p_spec_binary, session._m_p_spec_pattern,
                session._m_p_embd, session._m_p_embd_test);
        }
    }
    std::fprintf(out, "], \"segments\": [");
    separator = "";
    for (const _VADINFO_& segment : session._m_v_segments) {
        std::fprintf(out, "%s[%d, %d]", separator, segment.speech_start, segment.last_speech);
        separator = ", ";
    }
    std::fprintf(out, "], \"asked\": %d, \"score\": %.6g, \"map\": \"", asked,
                 static_cast<double>(score));
    print_map(map.data(), static_cast<int>(map.size()), out);
    std::fprintf(out, "\"}\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: %s MODEL TEMPLATE OUT [THRESHOLD] < STREAMS\n", argv[0]);
        return 2;
    }
    CMFE session;
    for (const int id : {23, 24}) {
        if (argc == 5) {
            session.mfeSetParam(id, std::strtof(argv[4], nullptr));
        }
    }
    if (session.mfeInit_load_model(argv[1], argv[2]) != 0 || session._m_n_bleep_detect == 0) {
        return 1;
    }
    const std::unique_ptr<std::FILE, CloseFile> out(std::fopen(argv[3], "w"));
    if (out == nullptr) {
        std::perror("bleep_maps");
        return 1;
    }
    std::int32_t count = 0;
    while (std::fread(&count, sizeof count, 1, stdin) == 1) {
        std::vector<std::int16_t> samples(static_cast<std::size_t>(std::max(count, 0)));
        if (std::fread(samples.data(), sizeof samples[0], samples.size(), stdin) !=
            samples.size()) {
            return 1;
        }
        listen(session, samples, out.get());
    }
    return std::ferror(out.get()) != 0 ? 1 : 0;
}
