// dnnvad record-bleep: a template of the device's own prompt, from a recording of it and of speech.
//
//     prompt --renderings--> session --map--> mean map --cut--> templates
//     speech --words-------> session --map--> counts under each template --> weights, judged unseen
//
// A session asks the bleep detector once, when its first utterance ends; what it then sees is a map of
// the cells (10 ms by 31.25 Hz) that are nearly as loud as the loudest one. All maps come from real
// sessions. Of every three renderings and every three words, two make the template and the
// third one judges it.
#include <CLI/CLI.hpp>
#include <cmath>
#include <numeric>
#include <random>

#include "audio_input.h"
#include "listener.h"
#include "program.h"
#include "session_options.h"

using tz_dnnvad::CMFE;

namespace {

constexpr int kRows = 15, kLow = 5;  // of a template; columns kLow - 1 .. bins - 2 have weights
constexpr int kLastAsked = 120;      // frames: speech that ends later is not questioned
constexpr int kBlip = 9;             // frames: a first utterance no longer than this is forgotten
constexpr std::size_t kRare = 20;    // one of so many renderings heard as speech may be let pass
constexpr double kNever = -50;       // bias with which no session sees the prompt
constexpr float kUnasked = -1.0F;    // no count of cells
constexpr double kOn = 0.6;          // share of the prompts in which a cell of the template is on
constexpr double kDecay = 5e-4;      // penalty on squared weights
constexpr int kIterations = 300;     // of a fit
constexpr int kTemplates = 12;       // tried at most
constexpr int kEnough = 4;           // maps of each kind in each third at least
constexpr double kAdvised = 120;     // seconds of speech
constexpr double kPoor = 5;          // per cent of failures
constexpr int kShortestWord = 20, kLongestWord = 90;  // frames
constexpr int kVariants = 4;                          // of a word at most

struct Options {
    std::string prompt, output;
    std::vector<std::string> speech;
    SessionOptions session;
    int renderings = 300;
};

using Signal = std::vector<double>;

class Random {
public:
    explicit Random(unsigned seed) : generator_(seed) {}
    double between(double low, double high) {
        return low + (high - low) * static_cast<double>(generator_()) / 4294967296.0;
    }

private:
    std::mt19937 generator_;
};

// ---- Streams ----------------------------------------------------------------------------------------

// Without the silence at both ends, which is what lies 50 dB below the loudest sample.
Signal trimmed(const std::vector<short>& samples) {
    int peak = 0;
    for (const short sample : samples) {
        peak = std::max(peak, std::abs(static_cast<int>(sample)));
    }
    const auto loud = [&](short sample) { return 316 * std::abs(static_cast<int>(sample)) > peak; };
    const auto first = std::find_if(samples.begin(), samples.end(), loud);
    const auto last =
        std::find_if(samples.rbegin(), std::make_reverse_iterator(first), loud).base();
    return {first, last};
}

struct Rendering {
    std::vector<short> samples;
    int begin;  // frame in which the clip begins
};

// The clip as it may reach the microphone: after up to `lead` seconds, through a filter, with an echo
// and noise, at any level, then `tail` seconds of silence.
Rendering render(const Signal& clip, Random& random, int rate, double lead, double tail) {
    const auto at = static_cast<std::size_t>(random.between(0.02, lead) * rate);
    Signal x(at + clip.size() + static_cast<std::size_t>(tail * rate));
    const double tilt = random.between(-0.4, 0.4), echo = std::max(0.0, random.between(-0.3, 0.3));
    const auto delay = static_cast<std::size_t>(random.between(0.005, 0.04) * rate);
    double power = 0;
    for (std::size_t i = 0; i < clip.size(); ++i) {
        const double value = clip[i] + (i > 0 ? tilt * clip[i - 1] : 0.0);
        x[at + i] += value;
        x[at + i + delay] += echo * value;
        power += value * value / static_cast<double>(clip.size());
    }
    const double level = std::sqrt(3 * power) * std::pow(10, -random.between(5, 40) / 20);
    const double colour = random.between(0, 0.9), whole = std::sqrt(1 - colour * colour);
    double noise = 0, peak = 1e-9;
    for (double& value : x) {
        noise = colour * noise + whole * random.between(-level, level);
        value += noise;
        peak = std::max(peak, std::fabs(value));
    }
    const double gain = 32767 * std::pow(10, random.between(-45, -3) / 20) / peak;
    Rendering out{std::vector<short>(x.size()),
                  static_cast<int>(100 * static_cast<double>(at) / rate)};
    std::transform(x.begin(), x.end(), out.samples.begin(),
                   [gain](double value) { return static_cast<short>(std::lround(gain * value)); });
    return out;
}

// ---- Sessions ---------------------------------------------------------------------------------------

struct Heard {
    bool spoke = false, again = false;  // speech at all; speech after the first utterance
    int length = 0, last = 0;           // of the first utterance, its last frame
    std::vector<char> map;              // last x bins cells and one more, if the detector was asked
};

Heard listen(CMFE& session, const std::vector<short>& samples) {
    Heard heard;
    session.mfeReset();
    session._m_p_embd_test[0] = kUnasked;
    const auto chunk = static_cast<std::size_t>(session.mfeGetParam(kSampleRate)) / 100;
    int status = 0;
    bool ended = false;
    for (std::size_t at = 0; at + chunk <= samples.size() && status != kTimedOut; at += chunk) {
        session.mfeSendData(&samples[at], static_cast<int>(chunk));
        status = session.mfeDNNDetect();
        heard.spoke = heard.spoke || status == kSpeaking;
        heard.again = heard.again || (ended && status == kSpeaking);
        if (ended || status != kEnded || session._m_v_segments.empty()) {
            continue;
        }
        ended = true;
        heard.last = session._m_v_segments[0].last_speech;
        heard.length = heard.last - session._m_v_segments[0].speech_start;
        if (session._m_p_embd_test[0] != kUnasked) {
            const char* const cells = session._m_p_spec_binary;
            heard.map.assign(cells, cells + heard.last * session._m_n_fft_size + 1);
        }
    }
    return heard;
}

// Frames that are speech.
class Marks : public Watcher {
public:
    void frame(const Frame& f) override {
        speech.resize(std::max(speech.size(), static_cast<std::size_t>(f.number) + 1));
        speech[static_cast<std::size_t>(f.number)] = is_speech(f.state);
    }
    std::vector<bool> speech;
};

// Pieces of what the detector takes for speech, as long as a short first word, and their seconds.
std::vector<Signal> words(CMFE& session, const std::vector<std::string>& files, double& seconds) {
    std::vector<Signal> found;
    Random random(1);
    const int rate = static_cast<int>(session.mfeGetParam(kSampleRate)), chunk = rate / 100;
    for (const std::string& file : files) {
        const std::vector<short> samples = read_recording(file, rate);
        Marks marks;
        session.mfeReset();
        Listener listener(session, marks);
        listener.push_all(samples);
        const auto& speech = marks.speech;
        for (auto from = speech.begin();
             (from = std::find(from, speech.end(), true)) != speech.end();) {
            const auto end = std::find(from, speech.end(), false);
            const auto length = std::min<std::ptrdiff_t>(
                end - from, std::lround(random.between(kShortestWord, kLongestWord)));
            const auto first = samples.begin() + (from - speech.begin()) * chunk;
            from += length;
            if (length < kShortestWord) {
                continue;
            }
            Signal& word = found.emplace_back(first, first + length * chunk);
            for (int i = 0; i < chunk; ++i) {  // no click where it was cut
                word[static_cast<std::size_t>(i)] *= static_cast<double>(i) / chunk;
                word[word.size() - 1 - static_cast<std::size_t>(i)] *=
                    static_cast<double>(i) / chunk;
            }
            seconds += static_cast<double>(length) / 100;
        }
    }
    return found;
}

// ---- Template and weights ---------------------------------------------------------------------------

struct Map {
    std::vector<char> cells;
    int rows, begin;  // frames; begin: of the prompt
    bool prompt;
    std::size_t group;  // renderings of one word have the same
};

struct Template {
    std::vector<char> cells;  // kRows x bins
    double bias = kNever;
    std::vector<double> weights;  // of a count
};

// The library's own counts: ones per used column where the template fits best. Cells of 0 and 1 make
// the same map again.
std::vector<double> counts(const Map& map, const std::vector<char>& pattern, int bins) {
    tz_dnnvad::BleepDetector detector;
    const auto columns = static_cast<std::size_t>(bins - kLow);
    std::vector<char> binary(map.cells.size());
    const std::vector<float> spectrogram(map.cells.begin(), map.cells.end());
    std::vector<float> weights(columns + 1), embedding(columns);
    detector.bleep_detect_score(map.rows, map.rows, bins, kLow, kRows, -15.0F, spectrogram.data(),
                                binary.data(), pattern.data(), weights.data(), embedding.data());
    return {embedding.begin(), embedding.end()};
}

double logit(const Template& model, const std::vector<double>& x) {
    return std::inner_product(x.begin(), x.end(), model.weights.begin(), model.bias);
}

// Logistic regression with both classes of equal weight: accelerated gradient descent, the step from the
// longest row. x: counts, y: +1 prompt, -1 other.
void fit(const std::vector<const std::vector<double>*>& x, const std::vector<int>& y,
         Template& model) {
    const std::size_t last = x[0]->size();  // there stands the bias, beside a column of kRows
    const auto prompts = static_cast<double>(std::count(y.begin(), y.end(), 1));
    double longest = 0;
    for (const auto* row : x) {
        longest =
            std::max(longest, std::inner_product(row->begin(), row->end(), row->begin(), 0.0));
    }
    const double step = 4 / (longest / (kRows * kRows) + 1);
    std::vector<double> w(last + 1), ahead(last + 1), slope(last + 1);
    for (int iteration = 0; iteration < kIterations; ++iteration) {
        std::transform(ahead.begin(), ahead.end(), slope.begin(),
                       [](double v) { return -kDecay * v; });
        slope[last] = 0;
        for (std::size_t k = 0; k < x.size(); ++k) {
            const double z =
                std::inner_product(x[k]->begin(), x[k]->end(), ahead.begin(), ahead[last] * kRows) /
                kRows;
            const double share =
                0.5 / (y[k] > 0 ? prompts : static_cast<double>(y.size()) - prompts);
            const double error = share * y[k] / (1 + std::exp(y[k] * z));
            for (std::size_t i = 0; i < last; ++i) {
                slope[i] += error / kRows * (*x[k])[i];
            }
            slope[last] += error;
        }
        const double momentum = static_cast<double>(iteration) / (iteration + 3);
        for (std::size_t i = 0; i <= last; ++i) {
            const double moved = ahead[i] + step * slope[i];
            ahead[i] = moved + momentum * (moved - w[i]);
            w[i] = moved;
        }
    }
    model.bias = w[last];
    w.pop_back();
    std::transform(w.begin(), w.end(), w.begin(), [](double v) { return v / kRows; });
    model.weights = w;
}

struct Logits {
    std::vector<double> prompts, others;
};

double quantile(std::vector<double> values, double share) {
    std::sort(values.begin(), values.end());
    return values[static_cast<std::size_t>(
        std::lround(share * static_cast<double>(values.size() - 1)))];
}

// Fits to the maps whose group modulo 3 is in `with` and adds the logits of those in `judged`.
Template fit_and_judge(const std::vector<Map>& maps, const std::vector<std::vector<double>>& x,
                       Template model, std::vector<std::size_t> with, std::size_t judged,
                       double bound, Logits& logits) {
    std::vector<const std::vector<double>*> rows;
    std::vector<int> y;
    for (std::size_t k = 0; k < maps.size(); ++k) {
        if (std::count(with.begin(), with.end(), maps[k].group % 3) != 0) {
            rows.push_back(&x[k]);
            y.push_back(maps[k].prompt ? 1 : -1);
        }
    }
    fit(rows, y, model);
    model.bias -= bound;
    for (std::size_t k = 0; k < maps.size(); ++k) {
        if (maps[k].group % 3 == judged) {
            (maps[k].prompt ? logits.prompts : logits.others).push_back(logit(model, x[k]));
        }
    }
    return model;
}

// Every stretch of the prompt is tried as the template; fits to one third of the maps say of another one
// how well it does. Then both thirds make the weights, and the last one fills `unseen`.
Template derive(const std::vector<Map>& maps, int bins, int span, Logits& unseen,
                Progress& progress) {
    Template best;
    std::pair<double, double> least{2, 0};
    std::vector<std::vector<double>> best_counts;
    double best_bound = 0;
    const auto width = static_cast<std::size_t>(bins);
    const int tried = std::max(1, span - kRows - 1), step = std::max(2, tried / kTemplates);
    for (int first = 1; first <= tried; first += step) {
        progress.show("templates", static_cast<double>(first) / (tried + 1));
        std::vector<double> on(kRows * width);
        double prompts = 0;
        for (const Map& map : maps) {
            prompts += map.prompt && map.group % 3 != 2;
            for (std::size_t i = 0; map.prompt && map.group % 3 != 2 && i < on.size(); ++i) {
                const std::size_t at = static_cast<std::size_t>(map.begin + first) * width + i;
                on[i] += at + 1 < map.cells.size() ? static_cast<double>(map.cells[at]) : 0.0;
            }
        }
        Template model;
        for (std::size_t i = 0; i < on.size(); ++i) {
            const bool weighted = i % width >= kLow - 1 && i % width < width - 1;
            model.cells.push_back(weighted && on[i] > kOn * prompts);
        }
        std::vector<std::vector<double>> x(maps.size());
        std::transform(maps.begin(), maps.end(), x.begin(),
                       [&](const Map& map) { return counts(map, model.cells, bins); });
        Logits logits;
        fit_and_judge(maps, x, model, {0}, 1, 0, logits);
        fit_and_judge(maps, x, model, {1}, 0, 0, logits);
        // In the middle between the two kinds, or where hardly any speech passes.
        const double others = quantile(logits.others, 0.999), low = quantile(logits.prompts, 0.01);
        const double bound = low > others ? (low + others) / 2 : others;
        std::pair<double, double> loss{0, 0};
        for (const double value : logits.prompts) {
            loss.first += value <= bound;
            loss.second += std::log1p(std::exp(std::min(bound - value, 500.0)));
        }
        loss.first /= static_cast<double>(logits.prompts.size());
        if (loss < least) {
            least = loss;
            best = model;
            best_counts = x;
            best_bound = bound;
        }
    }
    return fit_and_judge(maps, best_counts, best, {0, 1}, 2, best_bound, unseen);
}

void write_template(OutputFile& file, const Template& model, int bins) {
    for (std::size_t i = 0; i < model.cells.size(); ++i) {
        const bool ends = (i + 1) % static_cast<std::size_t>(bins) == 0;
        std::fprintf(file.stream(), "%d%c", model.cells[i], ends ? '\n' : ' ');
    }
    std::fprintf(file.stream(), "%.6g\n", model.bias);
    for (const double weight : model.weights) {
        std::fprintf(file.stream(), "%.6g\n", weight);
    }
    file.commit();
}

// ---- The command ------------------------------------------------------------------------------------

// Whether there are enough maps of a kind to make weights and to judge them.
bool enough(const std::vector<Map>& maps, bool prompt) {
    int thirds[3] = {};
    for (const Map& map : maps) {
        thirds[map.group % 3] += map.prompt == prompt;
    }
    return *std::min_element(thirds, thirds + 3) >= kEnough;
}

// Why the detector cannot be asked about the prompt, from what sessions heard of it.
[[noreturn]] void refuse(const std::string& file, const std::vector<Heard>& all,
                         const CMFE& session) {
    std::vector<double> lengths, lasts;
    for (const Heard& heard : all) {
        if (heard.spoke && (heard.last == 0 || heard.length > kBlip)) {
            lengths.push_back(heard.length);
            lasts.push_back(heard.last);
        }
    }
    if (lengths.size() <= all.size() / kRare) {
        throw Failure(file, format("the detector takes only %zu of %zu renderings for speech: "
                                   "no template is needed",
                                   lengths.size(), all.size()));
    }
    throw Failure(file,
                  format("a template cannot help: sessions hear %.0f ms of speech that ends %.0f "
                         "ms from their start; it takes more than 150 ms that end before 1200 ms, "
                         "and then a pause of more than %d ms",
                         10 * quantile(lengths, 0.5), 10 * quantile(lasts, 0.5),
                         10 * session._m_n_cfg_max_speech_pause));
}

int run(const Options& options) {
    const int recorded = AudioInput(options.prompt, {}).rate();
    const auto session = open_session(options.session, recorded);
    if (session->_m_p_embd == nullptr) {
        throw UsageError("bleep_detect=0 turns off what is to be learnt here");
    }
    // The session was made without a template: an empty one that never says yes lets it ask.
    session->mfeSetParam(kBleepDetect, 1);
    session->_m_p_embd[0] = static_cast<float>(kNever);
    const int rate = static_cast<int>(session->mfeGetParam(kSampleRate)),
              bins = session->_m_n_fft_size;
    const double tail = 0.01 * session->_m_n_cfg_max_speech_pause + 0.6;
    const Signal prompt = trimmed(read_recording(options.prompt, rate));
    const double length = static_cast<double>(prompt.size()) / rate;
    if (length < 0.1 || 100 * length > kLastAsked - 5) {
        throw Failure(options.prompt,
                      format("holds %.2f s of sound; a prompt has 0.1 to 1.15 s", length));
    }
    OutputFile output(options.output);
    Progress progress;
    std::vector<Map> maps;
    std::vector<Heard> prompts;
    Random random(2);
    int spoke = 0, again = 0, others = 0;
    for (std::size_t i = 0; static_cast<int>(i) < options.renderings; ++i) {
        progress.show("prompt", static_cast<double>(i) / options.renderings);
        const Rendering r =
            render(prompt, random, rate, std::clamp(1.17 - length, 0.03, 0.5), tail);
        prompts.push_back(listen(*session, r.samples));
        spoke += prompts[i].spoke;
        again += prompts[i].again;
        if (!prompts[i].map.empty()) {
            maps.push_back({std::move(prompts[i].map), prompts[i].last, r.begin, true, i});
        }
    }
    const int asked = static_cast<int>(maps.size());
    progress.clear();
    if (!enough(maps, true) || 2 * asked < spoke) {
        refuse(options.prompt, prompts, *session);
    }
    if (2 * again > spoke) {
        throw Failure(options.prompt,
                      format("has a pause of more than %d ms: what follows counts as an utterance",
                             10 * session->_m_n_cfg_max_speech_pause));
    }
    double seconds = 0;
    const std::vector<Signal> pieces = words(*session, options.speech, seconds);
    const int variants =
        std::clamp(options.renderings / std::max(1, static_cast<int>(pieces.size())), 1, kVariants);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        progress.show("speech", static_cast<double>(i) / static_cast<double>(pieces.size()));
        for (int k = 0; k < variants; ++k) {
            Heard heard = listen(*session, render(pieces[i], random, rate, 0.2, tail).samples);
            if (!heard.map.empty()) {
                maps.push_back({std::move(heard.map), heard.last, 0, false, i});
                ++others;
            }
        }
    }
    progress.clear();
    if (!enough(maps, false)) {
        throw Failure("--speech",
                      format("%.0f s of speech give too little: some minutes are needed", seconds));
    }
    Logits unseen;
    const Template model = derive(maps, bins, static_cast<int>(100 * length) + 2, unseen, progress);
    progress.clear();
    write_template(output, model, bins);

    const auto passing = [](const std::vector<double>& values) {
        const auto count =
            std::count_if(values.begin(), values.end(), [](double v) { return v > 0; });
        return 100.0 * static_cast<double>(count) / static_cast<double>(values.size());
    };
    const double missed = 100 - passing(unseen.prompts), taken = passing(unseen.others);
    const double lowest = quantile(unseen.prompts, 0), highest = quantile(unseen.others, 1);
    const int pause = 10 * session->_m_n_cfg_max_speech_pause;
    std::fprintf(
        results(),
        "template            %td cells, %s\n"
        "prompt              %d renderings, %d taken for speech, %d of them questioned\n"
        "speech              %.0f s in %zu words, %d renderings each, %d questioned\n"
        "unseen renderings   %5.1f %% of %zu prompts missed\n"
        "                    %5.1f %% of %zu words taken for the prompt\n"
        "margin              %.1f: worst prompt %+.1f, most alike word %+.1f (log odds)\n"
        "A command may begin %d ms after the prompt, up to %d ms after the session's begin.\n",
        std::count(model.cells.begin(), model.cells.end(), 1), options.output.c_str(),
        options.renderings, spoke, asked, seconds, pieces.size(), variants, others, missed,
        unseen.prompts.size(), taken, unseen.others.size(), lowest - highest, lowest, highest,
        pause, 10 * session->_m_n_head_sil);
    if (seconds < kAdvised) {
        print_warning(
            format("%.0f s of speech say little about other voices: give some minutes", seconds));
    }
    if (missed > kPoor || taken > kPoor) {
        print_warning("this prompt is hard to tell from speech");
    }
    return 0;
}

}  // namespace

void add_record_bleep(CLI::App& program, Action& action) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand(
        "record-bleep", "Make a template of the device's prompt, for --bleep");
    command.add_option("prompt", options->prompt, "Recording of the prompt alone")
        ->required()
        ->type_name("FILE");
    command
        .add_option("--speech", options->speech, "Recordings of speech: minutes, several voices")
        ->required()
        ->type_name("WAV");
    command.add_option("-o,--output", options->output, "The template")
        ->required()
        ->type_name("FILE");
    command
        .add_option(
            "--model", options->session.model,
            "Network model that the template is for (default: bundled, by the prompt's rate)")
        ->type_name("FILE");
    command.add_option("--set", options->session.set, "A session parameter, as the device sets it")
        ->type_name("NAME=VALUE")
        ->take_all()
        ->allow_extra_args(false);
    command.add_option("--renderings", options->renderings, "How often the prompt is rendered")
        ->check(CLI::Range(30, 10000))
        ->capture_default_str();
    command.callback([options, &action] { action = [options] { return run(*options); }; });
}
