// The program's account of a model or template beside the library's loaders: neither may take what the
// other refuses. Run: see harness.h, with -dict=fuzz/network.dict.
#include "app/model_file.h"
#include "app/program.h"
#include "dnnvad/dnn_vad.h"
#include "harness.h"

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    const char* const path = file.hold(data, size);
    const auto is_template = [path](int bins) {
        std::vector<char> pattern(static_cast<std::size_t>(15 * bins));
        std::vector<float> weights(static_cast<std::size_t>(bins - 4));
        return tz_dnnvad::BleepDetector().load_dector_model(path, 15, bins, pattern.data(), 5,
                                                            weights.data()) == 0;
    };
    nlohmann::ordered_json about = nlohmann::ordered_json::object();
    try {
        about = describe_file(path);
    } catch (const Failure& failure) {
        // (a template for wide models that is damaged may still do for narrow ones)
        if (is_template(std::strstr(failure.what(), " for 16 kHz") != nullptr ? 256 : 128)) {
            fault("the library takes the template, the program refuses it");
        }
    }
    if (about.contains("bins")) {
        return is_template(about["bins"]) ? void() : fault("only the program takes the template");
    }
    const bool whole = about.value("whole", false);
    tz_dnnvad::CMFE session;
    session.mfeSetParam(9, 8000);
    int error = 0;
    try {
        error = session.mfeInit(path);
    } catch (const KnownAssertion&) {
        about.empty() ? throw : fault("the program takes the network, the library ends");
    }
    // (whether there is memory for more than the file holds is the machine's to say)
    if (error == 0 ? about.empty() : whole) {
        fault("one takes the network, one refuses it");
    }
    if (whole) {
        const std::vector<short> samples = sound(0, 4 * session._m_n_frame_shift);
        session.mfeSendData(samples.data(), static_cast<int>(samples.size()));
        session.mfeDNNDetect();
    }
}
