#include "bench/workloads.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>

#include "bench/allocations.h"
#include "bench/fft_library.h"
#include "dnnvad/aligned.h"
#include "dnnvad/arch/real_fft.h"
#include "dnnvad/dnn_vad.h"
#include "dnnvad/feat/signal_process.h"
#include "dnnvad/feat/wav2feat.h"
#include "tests/model_writer.h"
#include "tests/temp_file.h"

namespace bench {

namespace {

using namespace tz_dnnvad;

// Networks of two hidden layers whose input, frames of 26 channels at 8 kHz and of 40 at 16 kHz, is
// normalised to about -1 .. 1.
struct Shape {
    const char* name;
    int frames, first, second;
};
constexpr Shape kSmall = {"11 frames-64-64-9", 11, 64, 64};
constexpr Shape kBundled = {"17 frames-96-64-9", 17, 96, 64};  // that of the bundled models

std::string model_bytes(int rate, const Shape& shape = kSmall) {
    const int channels = rate == 8000 ? 26 : 40;
    test::Model model = test::random_model({shape.frames * channels, shape.first, shape.second, 9});
    model.header = {channels, rate, 40, rate == 8000 ? 3800 : 7600, 0};
    model.means.assign(static_cast<std::size_t>(channels), 14.0F);
    model.rev_vars.assign(static_cast<std::size_t>(channels), 0.3F);
    return model.bytes();
}

// An empty template of 15 rows, and a bias and weights of 0.
std::string bleep_template(int rate) {
    const int bins = rate == 8000 ? 128 : 256;
    std::string text;
    for (int i = 0; i < 15 * bins + bins - 4; ++i) {
        text += "0 ";
    }
    return text;
}

// Ten seconds of voiced sound in noise, a syllable every 300 ms.
const std::vector<short>& recording(int rate) {
    static std::vector<short> kept[2];
    std::vector<short>& samples = kept[rate == 8000 ? 0 : 1];
    std::mt19937 generator(1);
    std::normal_distribution<double> noise(0.0, 100.0);
    for (int i = 0; samples.size() < 10 * static_cast<std::size_t>(rate); ++i) {
        const double t = static_cast<double>(i) / rate;
        double voice = 0.0;
        for (int harmonic = 1; harmonic < 20; ++harmonic) {
            voice += std::sin(2.0 * M_PI * 140.0 * harmonic * t) / harmonic;
        }
        const double loudness = 3000.0 * std::max(0.0, std::sin(2.0 * M_PI * t / 0.3));
        samples.push_back(static_cast<short>(loudness * voice + noise(generator)));
    }
    return samples;
}

// 16-byte aligned, as the session keeps its vectors.
std::shared_ptr<float[]> random_vector(int count) {
    std::mt19937 generator(2);
    std::uniform_real_distribution<float> value(-1.0F, 1.0F);
    std::shared_ptr<float[]> values(aligned_floats(static_cast<std::size_t>(count)), FreeDeleter());
    for (int i = 0; i < count; ++i) {
        values[i] = value(generator);
    }
    return values;
}

// A session that is fed the recording round and round.
class Stream {
public:
    explicit Stream(int rate, const Shape& shape = kSmall)
        : rate_(rate), samples_(recording(rate)) {
        const test::TempFile model(model_bytes(rate, shape));
        const test::TempFile bleep(bleep_template(rate));
        for (const int limit : {1, 2, 3, 5}) {
            session.mfeSetParam(limit, 1e9F);  // no pause or time-out ends a pass early
        }
        session.mfeSetParam(13, static_cast<float>(rate));
        if (session.mfeInit_load_model(model.path(), bleep.path()) != 0) {
            std::abort();
        }
        push(rate_ / 50);  // so that each shift of samples completes one frame
    }

    // Sends and scores the samples of so many frames.
    void run(int frames) {
        if (session._m_n_samples_in > 1 << 30) {
            session.mfeReset();
            push(rate_ / 50);
        }
        const int before = session._m_n_cur_frame;
        push(frames * rate_ / 100);
        if (session._m_n_cur_frame != before + frames) {
            std::abort();
        }
    }

    CMFE session;

private:
    void push(int count) {
        if (position_ + static_cast<std::size_t>(count) > samples_.size()) {
            position_ = 0;
        }
        session.mfeSendData(samples_.data() + position_, count);
        session.mfeDNNDetect();
        position_ += static_cast<std::size_t>(count);
    }

    int rate_;
    const std::vector<short>& samples_;
    std::size_t position_ = 0;
};

using Run = std::function<void()>;

Run plan_transform(int points) {
    const std::shared_ptr<RealFft> plan(real_fft_create(points), real_fft_destroy);
    return [plan, in = random_vector(points), out = random_vector(points + 2)] {
        real_fft_forward(plan.get(), in.get(), out.get());
    };
}

Run filter_bank() {
    const std::shared_ptr<FeOption> options(init_fevad(40, 3800, 26, true), kill_fevad);
    const auto samples = random_vector(kHeaderVectorPad + 200);
    const auto channels = random_vector(kHeaderVectorPad + 26);
    return [options, samples, channels, spectrum = random_vector(128)] {
        wave_2_fbank(header_vector(samples.get(), 200), header_vector(channels.get(), 26),
                     options->fbinfo, spectrum.get(), 128);
    };
}

// The chain of stages, from a frame of samples to the network's input.
Run features(int rate) {
    const auto stream = std::make_shared<Stream>(rate);
    const std::vector<short>& samples = recording(rate);
    const int length = rate / 40;
    return [=, &samples, frame = random_vector(length), position = std::size_t{0}]() mutable {
        std::copy_n(samples.begin() + static_cast<std::ptrdiff_t>(position), length, frame.get());
        position = (position + static_cast<std::size_t>(rate) / 100) % (samples.size() / 2);
        CMFE& session = stream->session;
        session._m_p_feat_translator->translate(frame.get(), length, 0);
        session._m_p_feat_translator->read(session._m_p_dst_feature, session._m_n_feat_dim);
    };
}

Run matrix(int inputs, int outputs) {
    return [=, a = random_vector(inputs * outputs), x = random_vector(inputs),
            y = random_vector(outputs)] {
        matrix_product_neon(a.get(), outputs, inputs, x.get(), inputs, 1, y.get());
    };
}

Run network() {
    const test::TempFile file(model_bytes(8000));
    const auto net = std::make_shared<DNN>(nullptr, file.path());
    return [net, in = random_vector(286), out = random_vector(9)] {
        net->forward(in.get(), 286, out.get());
    };
}

Run smoother() {
    const VadConfiger settings;
    const auto detector = std::make_shared<WindowsDetector>(&settings);
    const auto posteriors = random_vector(9);
    for (int k = 0; k < 9; ++k) {
        posteriors[k] = 1.0F / 9.0F;
    }
    return [=] { detector->smooth_detector_one_frame(posteriors.get(), 9, 0); };
}

Run session(int rate, int frames_at_once, const Shape& shape = kSmall) {
    return [stream = std::make_shared<Stream>(rate, shape), frames_at_once] {
        stream->run(frames_at_once);
    };
}

Run down_sampler() {
    const auto state = std::make_shared<CMFE>();
    const auto half = std::make_shared<std::vector<short>>(80000);
    return [=, position = 0]() mutable {
        int count = 0;
        state->down_sample(recording(16000).data(), position, 160, half->data(), position / 2,
                           &count, 160000);
        position = (position + 160) % 160000;
    };
}

Run energy_detector() {
    const auto detector = std::make_shared<tz_evad::Vad>();
    detector->init(1024);
    detector->free();
    return [=, position = 0, waiting = std::vector<short>(80)]() mutable {
        detector->evad_process_one_frame(recording(8000).data() + position, 80);
        while (detector->vad_get_data(waiting.data(), 80) > 0) {
        }
        position = (position + 80) % 80000;
    };
}

Run model_load() {
    return [file = std::make_shared<test::TempFile>(model_bytes(8000))] {
        DNN(nullptr, file->path());
    };
}

// Chunks of half a second make the sending of samples a small part of a session's frame.
constexpr int kManyFrames = 50;

}  // namespace

const std::vector<Workload>& workloads() {
    static const std::vector<Workload> all = {
        {kYardstick, 1, [] { return library_transform(256); }},
        {"FFT library, 512 points", 1, [] { return library_transform(512); }},
        {"real FFT, 256 points", 1, [] { return plan_transform(256); }},
        {"real FFT, 512 points", 1, [] { return plan_transform(512); }},
        {"filter bank, 8 kHz", 1, filter_bank},
        {"features, 8 kHz", 1, [] { return features(8000); }},
        {"features, 16 kHz", 1, [] { return features(16000); }},
        {"matrix times vector, 286 to 64", 1, [] { return matrix(286, 64); }},
        {"matrix times vector, 512 to 128", 1, [] { return matrix(512, 128); }},
        {"network, 286-64-64-9", 1, network},
        {"smoother", 1, smoother},
        {"session frame, 8 kHz", kManyFrames, [] { return session(8000, kManyFrames); }},
        {"session frame, 16 kHz", kManyFrames, [] { return session(16000, kManyFrames); }},
        {kBundledSession, kManyFrames, [] { return session(8000, kManyFrames, kBundled); }},
        {"session frame, 16 kHz, 680-96-64-9", kManyFrames,
         [] { return session(16000, kManyFrames, kBundled); }},
        {"10 ms chunk, 8 kHz", 1, [] { return session(8000, 1); }},
        {"10 ms chunk, 16 kHz", 1, [] { return session(16000, 1); }},
        {"down-sampler, 10 ms", 1, down_sampler},
        {"energy detector, 10 ms", 1, energy_detector},
        {"model load, 286-64-64-9", 1, model_load},
    };
    return all;
}

std::vector<std::string> memory_report() {
    std::vector<std::string> lines;
    const auto report = [&lines](int rate, const Shape& shape) {
        const std::string name =
            "session, " + std::to_string(rate / 1000) + " kHz, " + shape.name + ": ";
        recording(rate);
        // What the process keeps, such as its output buffer, does not count.
        Stream(rate, shape).run(1);
        const std::size_t before = heap().bytes;
        Stream stream(rate, shape);
        lines.push_back(name + std::to_string((heap().bytes - before) / 1000) + " kB");
        constexpr int kFrames = 1000;
        const std::size_t calls = heap().calls;
        for (int i = 0; i < kFrames; ++i) {
            stream.run(1);
        }
        char number[32];
        std::snprintf(number, sizeof number, "%.2f",
                      static_cast<double>(heap().calls - calls) / kFrames);
        lines.push_back(name + number + " allocations per frame");
    };
    for (const int rate : {8000, 16000}) {
        report(rate, kSmall);
        report(rate, kBundled);
    }
    return lines;
}

}  // namespace bench
