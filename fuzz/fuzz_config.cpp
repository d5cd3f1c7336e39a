// The configuration reader. Run: see harness.h, with -dict=fuzz/config.dict.
#include "dnnvad/dnn_vad.h"
#include "harness.h"

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    tz_dnnvad::cfg_vad_t config;
    std::memset(&config, 0x5a, sizeof config);
    const char* const path = size == 0 ? "" : size == 1 ? "/" : file.hold(data, size);
    if (tz_dnnvad::readcfg(path, &config) != (size < 2 ? -1 : 0)) {
        fault("a readable file is not read, or another one");
    } else if (size < 2) {
        return;
    }
    for (const char c : config.spare) {
        if (c != 0) {
            fault("the record is not cleared");
        }
    }
    // What a host does with it: every value that the session takes.
    static tz_dnnvad::CMFE session;
    session.mfeSetParam(1, static_cast<float>(config.max_wait));
    session.mfeSetParam(3, static_cast<float>(config.max_sp_pause));
    session.mfeSetParam(13, static_cast<float>(config.sample_rate));
    session.mfeSetParam(23, config.speech_threshold);
}
