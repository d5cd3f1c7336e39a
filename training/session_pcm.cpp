// Runs whole sessions over a raw recording, as a host with a microphone would.
//
//     session_pcm MODEL IN OUT [FRAMES]
//
// IN: 16-bit mono PCM at the model's rate, without header, pushed 10 ms at a time. Parameters are the
// defaults but for the limits on silence (ids 1, 5 and 14), raised as for continuous listening, so
// that no time-out ends a session. With FRAMES the session is reset every FRAMES pushes, as at the
// begin of another stream.
//
// OUT: 12 little-endian floats per push: the 9 posteriors, the smoother's score, the frame state and
// the session's status. Row f belongs to the frame of 25 ms that begins at push f; rows whose frame
// would reach beyond the stream repeat the last one.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "dnnvad/windows_detect.h"

using namespace tz_dnnvad;

namespace {

constexpr int kClasses = 9, kFirstSpeech = 3;
constexpr int kLead = 2;  // pushes before the one that completes the first frame
constexpr float kNoLimit = 1e9F;
using Row = std::array<float, kClasses + 3>;

// The smoother's score of the latest frame, from the maxima that it keeps.
float score(const WindowsDetector& smoother) {
    float sum = 1.0F;
    for (int i = kFirstSpeech; i < kClasses; ++i) {
        sum += std::log(smoother._maxima[static_cast<std::size_t>(i)]);
    }
    return std::exp(sum / (kClasses - kFirstSpeech));
}

// The rows of one stream of `pushes` times `shift` samples.
std::vector<Row> listen(CMFE& session, const std::int16_t* samples, long pushes, int shift) {
    std::vector<Row> rows;
    session.mfeReset();
    for (long push = 0; push < pushes; ++push) {
        session.mfeSendData(samples + push * shift, shift);
        const int status = session.mfeDNNDetect();
        const long frame = push - kLead;
        if (frame < 0) {
            continue;
        }
        Row row;
        std::copy(session._m_p_dst_nn, session._m_p_dst_nn + kClasses, row.begin());
        row[kClasses] = score(*session._m_p_windows_detector);
        row[kClasses + 1] = session._m_p_frame_state[frame % session._m_n_ring_frames];
        row[kClasses + 2] = static_cast<float>(status);
        rows.push_back(row);
    }
    rows.resize(static_cast<std::size_t>(pushes), rows.empty() ? Row{} : rows.back());
    return rows;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4 && argc != 5) {
        std::fprintf(stderr, "usage: %s MODEL IN OUT [FRAMES]\n", argv[0]);
        return 2;
    }
    CMFE session;
    for (const int id : {1, 5, 14}) {
        session.mfeSetParam(id, kNoLimit);
    }
    if (session.mfeInit(argv[1]) != 0) {
        return 1;
    }
    const int shift = session._m_n_frame_shift;

    std::ifstream in(argv[2], std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    const auto* samples = reinterpret_cast<const std::int16_t*>(bytes.data());
    const long pushes = static_cast<long>(bytes.size() / 2) / shift;
    const long stream = argc == 5 ? std::strtol(argv[4], nullptr, 10) : pushes;
    if (stream < 1) {
        std::fprintf(stderr, "session_pcm: no 10 ms of samples, or no FRAMES above 0\n");
        return 2;
    }
    std::ofstream out(argv[3], std::ios::binary);
    for (long push = 0; push < pushes; push += stream) {
        const auto rows =
            listen(session, samples + push * shift, std::min(stream, pushes - push), shift);
        out.write(reinterpret_cast<const char*>(rows.data()),
                  static_cast<std::streamsize>(rows.size() * sizeof(Row)));
    }
    return in.good() || in.eof() ? (out.good() ? 0 : 1) : 1;
}
