// Listens to 8 kHz 16-bit PCM on standard input until somebody has spoken and stopped.
#include <cstdio>

#include "dnnvad/dnn_vad.h"

int main(int argc, char** argv) {
    tz_dnnvad::CMFE session;
    if (argc != 2 || session.mfeInit(argv[1]) != 0) {
        return 2;
    }
    short chunk[80];  // 10 ms
    int status = 0;
    for (std::size_t got; status != 6 && (got = std::fread(chunk, sizeof *chunk, 80, stdin)) > 0;) {
        session.mfeSendData(chunk, static_cast<int>(got));
        const int before = status;
        status = session.mfeDNNDetect();
        if (status != before) {
            std::printf("%.2f s: status %d\n", 0.01 * session._m_n_cur_frame, status);
        }
    }
    return status == 6 ? 0 : 1;
}
