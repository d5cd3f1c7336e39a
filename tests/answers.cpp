// What a bundled model answers to hours of audio, for comparing builds: see answers.py.
//
//   answers MODEL < SAMPLES > OUT      16-bit PCM at the model's rate
//
// For every frame scored OUT gets its state and the status (a byte each) and the score (a float); after
// each utterance a record of state 255: its four frames and a digest of the audio handed out (64 bits).
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "dnnvad/dnn_vad.h"

namespace {

constexpr int kTimedOut = 3, kEnded = 6, kRateId = 13, kFirstSpeechClass = 3, kClasses = 9;
constexpr unsigned char kUtterance = 255;

template <class T>
void put(FILE* out, T value) {
    std::fwrite(&value, sizeof value, 1, out);
}

float score(const tz_dnnvad::CMFE& session) {
    double sum = 1;
    for (int k = kFirstSpeechClass; k < kClasses; ++k) {
        sum += std::log(static_cast<double>(
            session._m_p_windows_detector->_maxima[static_cast<std::size_t>(k)]));
    }
    return static_cast<float>(std::exp(sum / (kClasses - kFirstSpeechClass)));
}

}  // namespace

int main(int argc, char** argv) {
    // The library's lines go to standard output.
    FILE* const out = fdopen(dup(STDOUT_FILENO), "wb");
    tz_dnnvad::CMFE session;
    if (argc != 2 || out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr ||
        session.mfeInit(argv[1]) != 0) {
        return 2;
    }
    const auto chunk = static_cast<std::size_t>(session.mfeGetParam(kRateId)) / 100;
    std::vector<short> samples(chunk), handed(chunk * 2000);
    std::uint64_t digest = 0;
    int before = 0;
    while (std::fread(samples.data(), sizeof(short), chunk, stdin) == chunk) {
        session.mfeSendData(samples.data(), static_cast<int>(chunk));
        const int status = session.mfeDNNDetect();
        int bytes = 0;
        session.mfeGetCallbackData(reinterpret_cast<char*>(handed.data()), &bytes,
                                   static_cast<int>(handed.size() * sizeof(short)));
        for (int k = 0; k < bytes / 2; ++k) {
            digest = (digest ^ static_cast<std::uint16_t>(handed[static_cast<std::size_t>(k)])) *
                     1099511628211U;
        }
        for (int f = session._m_n_pass_first_frame; f < session._m_n_cur_frame; ++f) {
            put(out, session._m_p_frame_state[f % session._m_n_ring_frames]);
            put(out, static_cast<unsigned char>(status));
            put(out, score(session));
        }
        if (status != before && (status == kEnded || status == kTimedOut) &&
            !session._m_v_segments.empty()) {
            put(out, kUtterance);
            put(out, session._m_v_segments.back());
            put(out, digest);
        }
        if (status == kTimedOut) {
            session.mfeReset();
        }
        before = status;
    }
    return std::fclose(out) == 0 ? 0 : 1;
}
