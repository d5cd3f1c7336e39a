// dnnvad live: listens to an ALSA capture device, says what it hears and shows it as it goes.
//
// Everything runs on the time of the stream, the samples heard so far: it does not matter whether a
// device delivers them in real time.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cmath>
#include <ctime>
#include <limits>
#include <numeric>

#include "audio_input.h"
#include "capture.h"
#include "cutter.h"
#include "json_text.h"
#include "listener.h"
#include "program.h"
#include "session_options.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr int kUsualRate = 16000;               // Hz
constexpr int kMeterFrames = 10;                // between two pictures; time constant of the level
constexpr int kNoiseFrames = 100;               // time constant of the noise floor
constexpr int kShownFrames = 50;                // a time-out lasts one frame, but stays readable
constexpr int kBarCells = 12;                   // of the level meter
constexpr double kBarDb = -60, kFloorDb = -96;  // where the meter's bar begins; digital silence
constexpr char kClearLine[] = "\r\033[K";
constexpr const char* kStatusNames[] = {"not started", "speaking", "pause", "time-out",
                                        "too short",   "too long", "ended"};

struct Options {
    std::string device = "default", format = "text";
    int rate = 0;  // Hz; 0: not said
    double seconds = std::numeric_limits<double>::infinity();
    bool once = false, list = false;
    std::string cut;  // folder
    SessionOptions session;
};

// Files are named after the time when listening began, so that no recording replaces an earlier one.
std::string cut_name() {
    char text[32] = "";
    std::timespec now{};
    std::timespec_get(&now, TIME_UTC);
    std::strftime(text, sizeof text, "live-%Y%m%d-%H%M%S", std::localtime(&now.tv_sec));
    return format("%s-%03ld", text, now.tv_nsec / 1000000);
}

// Prints events, keeps audio, and draws the status line if standard error is a terminal.
class Monitor : public Cutter {
public:
    Monitor(const tz_dnnvad::CMFE& session, const Capture& capture, const Options& options,
            int rate)
        : Cutter(options.cut, cut_name(), rate),
          session_(session),
          capture_(capture),
          json_(options.format == "json"),
          keeps_first_(options.once && isatty(fileno(results())) == 0),
          rate_(rate) {}

    void frame(const Frame& frame) override { frame_ = frame; }
    void began(const Utterance& u) override {
        Cutter::began(u);
        idle_ = false;
        const long late = milliseconds(u.decided - u.speech_start);
        say("began", u.decided,
            {{"first_speech", hundredths(u.speech_start)}, {"latency_ms", late}},
            format("speech began at %.2f, %ld ms ago", u.speech_start, late));
    }
    void audio(const short* samples, int count) override {
        Cutter::audio(samples, count);
        if (keeps_first_ && utterances_ == 0) {
            first_.insert(first_.end(), samples, samples + count);
        }
    }
    void ended(const Utterance& u) override {
        ++utterances_;
        const std::string cut = keep();
        const long late = milliseconds(u.decided - u.last_speech);
        Json details{{"latency_ms", late}};
        details.update(utterance_json(u, cut));
        say("ended", u.decided, details,
            format("utterance from %.2f to %.2f, ended by %s, last speech %ld ms ago%s%s", u.start,
                   u.end, u.reason, late, cut.empty() ? "" : "  ", cut.c_str()));
    }
    void forgotten(const Utterance& u, bool prompt) override {
        Cutter::forgotten(u, prompt);
        first_.clear();
        const double start = hundredths(u.speech_start);
        say("forgotten", u.decided, {{"first_speech", start}, {"prompt", prompt}},
            format("forgotten: %s at %.2f", prompt ? "the prompt" : "a blip", start));
    }
    void timed_out(double seconds) override {
        if (!idle_) {
            say("time-out", seconds, Json::object(), "time-out");
        }
        idle_ = true;
    }
    void stream_ended(double seconds, int status) {
        set_status(status);
        if (terminal_) {
            draw();
            std::fputc('\n', stderr);
        }
        terminal_ = false;  // the last picture stays
        const int overruns = capture_.overruns();
        say("stream", seconds, {{"utterances", utterances_}, {"overruns", overruns}},
            format("stream ended, utterances: %d, overruns: %d", utterances_, overruns));
        if (keeps_first_ && utterances_ > 0) {
            write_wav(results(), first_, rate_);
        }
    }

    // Takes what the session has just heard, and its status since.
    void meter(const std::vector<short>& samples, int count, int status) {
        const double power =
            std::inner_product(samples.begin(), samples.begin() + count, samples.begin(), 0.0) /
            count;
        power_ += (power - power_) / kMeterFrames;
        if (frame_.state == kSilence) {
            quiet_ = std::min(quiet_ + 1, kNoiseFrames);
            noise_ += (decibels(power) - noise_) / quiet_;
        }
        ++status_frames_;
        if (status_ != kTimedOut || status == kSpeaking || status_frames_ > kShownFrames) {
            set_status(status);
        }
        if (++frames_ % kMeterFrames == 0 && terminal_) {
            draw();
        }
    }

    int utterances() const { return utterances_; }

private:
    static long milliseconds(double seconds) { return std::lround(1000 * seconds); }
    static double decibels(double power) {
        return std::max(kFloorDb, 10 * std::log10(power / (32768.0 * 32768.0)));
    }

    void set_status(int status) {
        status_frames_ = status == status_ ? status_frames_ : 0;
        status_ = status;
    }
    void say(const char* type, double seconds, const Json& details, const std::string& text) const {
        if (terminal_) {
            std::fputs(kClearLine, stderr);
        }
        Json event{{"type", type}, {"time", hundredths(seconds)}};
        event.update(details);
        FILE* const stream = keeps_first_ ? stderr : results();
        std::fprintf(stream, "%s\n",
                     json_ ? json_text(event).c_str()
                           : format("%8.2f  %s", hundredths(seconds), text.c_str()).c_str());
        keeps_first_ ? static_cast<void>(std::fflush(stream)) : finish_output();
    }

    // (what goes beyond the end of the terminal's line is not wrapped: it could not be taken back)
    void draw() const {
        const double level = decibels(power_), share = std::clamp(1 - level / kBarDb, 0.0, 1.0);
        const std::string bar(static_cast<std::size_t>(std::lround(kBarCells * share)), '#');
        std::fprintf(stderr,
                     "%s\033[?7l[%-*s] %3.0f dB, noise %.0f, score %.2f (%.2f/%.2f), %s %.1f s, "
                     "%d overruns\033[?7h",
                     kClearLine, kBarCells, bar.c_str(), level, noise_, frame_.score,
                     session_._m_f_speech_threshold, session_._m_f_sil_threshold,
                     kStatusNames[status_], 0.01 * status_frames_, capture_.overruns());
        std::fflush(stderr);
    }

    const tz_dnnvad::CMFE& session_;
    const Capture& capture_;
    bool json_, keeps_first_;  // the first utterance goes to standard output, events do not
    int rate_, utterances_ = 0;
    bool idle_ = false;         // of the time-outs since the last speech only the first one is told
    std::vector<short> first_;  // audio of the first utterance
    bool terminal_ = isatty(STDERR_FILENO) != 0;
    Frame frame_{0, kSilence, 0, 0, nullptr, 0};
    double power_ = 0;         // mean of the latest frames
    double noise_ = kFloorDb;  // dB full scale, of the latest frames without speech
    int frames_ = 0, quiet_ = 0, status_ = 0, status_frames_ = 0;
};

int run(const Options& options) {
    if (options.list) {
        list_capture_devices(results());
        return 0;
    }
    SessionOptions wanted = options.session;
    const auto session = open_session(wanted, options.rate > 0 ? options.rate : kUsualRate);
    const int rate = static_cast<int>(session->mfeGetParam(kSampleRate));
    Capture capture(options.device, rate);
    Monitor monitor(*session, capture, options, rate);
    if (options.rate > 0) {
        wanted.set.push_back(format("sample_rate=%d", options.rate));
    }
    warn_of_doubts(*session, wanted);
    Listener listener(*session, monitor);
    stop_on_signals();
    std::vector<short> chunk(static_cast<std::size_t>(listener.chunk()));
    int status = 0;
    bool heard = false;  // what --once waits for, or that it does not come
    while (!heard && stopping == 0 && capture.failure().empty() &&
           listener.seconds() < options.seconds) {
        if (const int count = capture.read(chunk.data(), listener.chunk()); count > 0) {
            status = listener.push(chunk.data(), count);
            monitor.meter(chunk, count, status);
        }
        // (as the head silence runs out speech may just begin: then it is awaited)
        heard = options.once &&
                (monitor.utterances() > 0 || (status == kTimedOut && !listener.speaking()));
    }
    status = heard ? status : listener.finish();
    monitor.stream_ended(listener.seconds(), status);
    if (!capture.failure().empty()) {
        throw Failure(options.device, capture.failure());
    }
    return options.once && monitor.utterances() == 0 ? 1 : 0;
}

}  // namespace

void add_live(CLI::App& program, Action& action) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand("live", "Listen to a capture device until Ctrl-C");
    command.add_option("-D,--device", options->device, "ALSA capture device")
        ->capture_default_str();
    command
        .add_option("--rate", options->rate,
                    "Sample rate in Hz, as far as the model leaves it open")
        ->check(CLI::IsMember({8000, 16000}))
        ->default_str("16000");
    command
        .add_option(
            "-f,--format", options->format,
            "Events, a line each: text, or json objects of \"type\" began, ended, forgotten\n"
            "(a blip, the prompt), time-out (the first of a silence), stream (its end); times in "
            "seconds of stream")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();
    command.add_option("--seconds", options->seconds, "End after this much of the stream")
        ->check(CLI::Range(0.01, 1e9))
        ->type_name("N");
    command.add_flag(
        "--once", options->once,
        "End after the first utterance; status 1 if there was no speech in time or at all.\n"
        "If standard output is no terminal it gets the utterance as a WAV file, and\n"
        "standard error the events");
    command.add_flag("--list", options->list, "List the capture devices");
    add_cut_option(command, options->cut);
    add_session_options(command, options->session);
    command.callback([options, &action] { action = [options] { return run(*options); }; });
}
