// dnnvad bench: what the detector costs on this device.
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

#include "audio_input.h"
#include "json_text.h"
#include "listener.h"
#include "memory_count.h"
#include "program.h"
#include "session_options.h"

using nlohmann::ordered_json;

namespace {

constexpr int kLoads = 5;    // of a model, the median of which is told
constexpr int kWarmUp = 50;  // frames that are not measured

struct Options {
    std::string recording, format = "table";
    std::vector<std::string> models;
    double seconds = 10;
};

double microseconds() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration<double, std::micro>(now).count();
}

// The same on every device: words of eight harmonics at 110 to 150 Hz, 0.6 s in each second, in noise.
std::vector<short> synthetic(double seconds, int rate) {
    std::vector<short> samples(static_cast<std::size_t>(seconds * rate));
    unsigned noise = 1;
    double phase = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double t = static_cast<double>(i) / rate, word = std::fmod(t, 1.0);
        phase += 2 * M_PI * (130 + 20 * std::sin(9 * t)) / rate;
        double voice = 0;
        for (int h = 1; h <= 8; ++h) {
            voice += std::sin(h * phase) / h;
        }
        voice *= word < 0.6 ? std::pow(std::sin(M_PI * word / 0.6 * 3), 2) : 0;
        noise = noise * 1664525U + 1013904223U;
        samples[i] = static_cast<short>(5000 * voice + 100.0 * (noise >> 8) / (1 << 23) - 100);
    }
    return samples;
}

double at_share(const std::vector<double>& sorted, double share) {
    return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
}

ordered_json measure(const Options& options, const std::string& model) {
    SessionOptions session_options;
    session_options.model = model;
    auto session = open_session(session_options, 0);  // complains of what is no model
    std::vector<double> loads, frames;
    MemoryCount before{}, after{};
    for (int i = 0; i < kLoads; ++i) {
        session.reset();
        before = memory_count();
        const double begin = microseconds();
        session = std::make_unique<tz_dnnvad::CMFE>();
        session->mfeInit(model.c_str());
        loads.push_back(microseconds() - begin);
        after = memory_count();
    }
    std::sort(loads.begin(), loads.end());
    const int rate = static_cast<int>(session->mfeGetParam(kSampleRate)), chunk = rate / 100;
    const std::vector<short> samples = options.recording.empty()
                                           ? synthetic(options.seconds, rate)
                                           : read_recording(options.recording, rate);
    const auto count = static_cast<std::size_t>(options.seconds * 100);
    const std::size_t whole = samples.size() / static_cast<std::size_t>(chunk);
    if (whole == 0) {
        throw Failure(options.recording, "is shorter than 10 ms");
    }
    frames.reserve(count);
    const long long bytes = after.bytes - before.bytes;
    for (std::size_t i = 0; i < kWarmUp + count; ++i) {  // a recording starts again at its end
        before = i == kWarmUp ? memory_count() : before;
        const short* const at = &samples[i % whole * static_cast<std::size_t>(chunk)];
        const double begin = microseconds();
        session->mfeSendData(at, chunk);
        const int status = session->mfeDNNDetect();
        if (i >= kWarmUp) {
            frames.push_back(microseconds() - begin);
        }
        if (status == kTimedOut) {
            session->mfeReset();
        }
    }
    const auto calls = static_cast<double>(memory_count().calls - before.calls);
    double sum = 0;
    for (const double time : frames) {
        sum += time;
    }
    std::sort(frames.begin(), frames.end());
    const double median = at_share(frames, 0.5);  // the figure to use: others share the processor
    return {{"model", model},
            {"rate_hz", rate},
            {"frames", count},
            {"real_time_factor", median / 1e4},
            {"median_us", median},
            {"mean_us", sum / static_cast<double>(count)},
            {"p99_us", at_share(frames, 0.99)},
            {"allocations_per_frame", calls / static_cast<double>(count)},
            {"session_bytes", bytes},
            {"load_ms", at_share(loads, 0.5) / 1000}};
}

int run(const Options& options) {
    std::vector<std::string> models = options.models;
    if (models.empty()) {
        models = {bundled_file("vad8k.bin"), bundled_file("vad16k.bin")};
    }
    ordered_json all = ordered_json::array();
    for (const std::string& model : models) {
        all.push_back(measure(options, model));
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    if (options.format == "json") {
        const ordered_json out{{"models", all}, {"peak_resident_kb", usage.ru_maxrss}};
        std::fprintf(results(), "%s\n", json_text(out, 2).c_str());
        return 0;
    }
    std::fprintf(results(),
                 "of real time   us a frame: median   mean     99 %%   allocations"
                 "   session KB   load ms  model\n");
    for (const ordered_json& m : all) {
        const auto number = [&m](const char* key) { return m[key].get<double>(); };
        std::fprintf(results(), "%10.3f %% %17.2f %8.2f %8.2f %13.2f %12.0f %9.2f  %s\n",
                     100 * number("real_time_factor"), number("median_us"), number("mean_us"),
                     number("p99_us"), number("allocations_per_frame"),
                     number("session_bytes") / 1000, number("load_ms"),
                     m["model"].get<std::string>().c_str());
    }
    std::fprintf(results(), "peak resident memory of the program: %ld KB\n", usage.ru_maxrss);
    return 0;
}

}  // namespace

void add_bench(CLI::App& program, Action& action) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand("bench", "Measure speed and memory on this device");
    command
        .add_option("recording", options->recording, "Recording to listen to (default: synthetic)")
        ->type_name("FILE");
    command
        .add_option("--model", options->models, "Network model, repeatable (default: the bundled)")
        ->type_name("FILE")
        ->allow_extra_args(false);
    command.add_option("--seconds", options->seconds, "How much of it; a recording is repeated")
        ->check(CLI::Range(0.1, 36000.0))
        ->capture_default_str();
    command.add_option("-f,--format", options->format, "How it is written")
        ->check(CLI::IsMember({"table", "json"}))
        ->capture_default_str();
    command.callback([options, &action] { action = [options] { return run(*options); }; });
}
