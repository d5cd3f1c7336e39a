// dnnvad plot: a recording and what the detector made of it, as a page to explore or as a picture.
#include <zlib.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <tuple>

#include "audio_input.h"
#include "json_text.h"
#include "listener.h"
#include "program.h"
#include "session_options.h"

extern const char plot_page[];  // plot.html, compiled in

namespace fs = std::filesystem;
using tz_dnnvad::CMFE;

namespace {

using Bytes = std::vector<unsigned char>;
using Json = nlohmann::ordered_json;

constexpr std::size_t kLargestPage = 10'000'000;   // bytes
constexpr std::size_t kLongestPage = 6 * 360'000;  // frames; one hour of much speech takes 9 MB
constexpr char kTooLong[] = "too long for a page of 10 MB; cut it, or draw an .svg";
constexpr double kFloor = 0.15,
                 kCeiling = 0.998;  // shares of the cells that are white, not yet dark
constexpr int kGated = 6,
              kUnscored = 7;  // states beyond the library's: the energy detector's, nobody's

struct Options {
    std::string file, output, title;
    SessionOptions session;
    AudioOptions audio;
};

// Where part k of `all` things in `count` parts begins.
std::size_t part(std::size_t k, std::size_t all, std::size_t count) {
    return static_cast<std::size_t>(std::uint64_t{k} * all / count);
}

// The power spectrum that the filter bank is given, as bytes: decibels, row 0 the lowest. Rows divide
// the mel axis from 0 to half the model's rate evenly; a column holds one frame or, in a long
// recording, the average of as many as keep the number of columns within bounds.
struct Spectrogram {
    static constexpr std::size_t kRows = 72, kMostColumns = 131072;
    double highest = 0;          // Hz
    std::size_t per_column = 1;  // frames
    Bytes cells;

    std::size_t columns() const { return cells.size() / kRows; }

    // Adds what the session holds for frame `number`, unless that is blank or no news: frames that are
    // scored again have the same spectrum.
    void add(CMFE& session, std::size_t number, bool blank) {
        for (; frames_ <= number; ++frames_) {
            if (!blank && frames_ == number) {
                measure(session);
            }
            if ((frames_ + 1) % per_column == 0) {
                for (int& sum : sums_) {
                    cells.push_back(static_cast<unsigned char>(sum / static_cast<int>(per_column)));
                    sum = 0;
                }
                if (columns() == kMostColumns) {
                    halve();
                }
            }
        }
    }

    // Averages columns in pairs.
    void halve() {
        cells = pooled((columns() + 1) / 2);
        per_column *= 2;
    }

    // The same in `count` columns, no more than there are.
    Bytes pooled(std::size_t count) const {
        Bytes out;
        for (std::size_t k = 0; k < count; ++k) {
            const std::size_t from = part(k, columns(), count), to = part(k + 1, columns(), count);
            for (std::size_t row = 0; row < kRows; ++row) {
                std::size_t sum = 0;
                for (std::size_t column = from; column < to; ++column) {
                    sum += cells[column * kRows + row];
                }
                out.push_back(
                    static_cast<unsigned char>(sum / std::max<std::size_t>(1, to - from)));
            }
        }
        return out;
    }

    // The level that this share of the cells stays below; cells of 0, without a spectrum, do not count.
    int quantile(double share) const {
        Bytes levels{0};
        std::copy_if(cells.begin(), cells.end(), std::back_inserter(levels),
                     [](int level) { return level > 0; });
        const double place = share * static_cast<double>(levels.size() - 1);
        const auto at = levels.begin() + static_cast<std::ptrdiff_t>(place);
        std::nth_element(levels.begin(), at, levels.end());
        return *at;
    }

private:
    // Adds the spectrum of the frame scored last to the column under way. mfeSaveFFT is told that it is
    // a first frame, which it averages with no other; its values are 10 log10 of the magnitude.
    void measure(CMFE& session) {
        const auto bins = static_cast<std::size_t>(session._m_n_fft_size);
        work_.resize(6 * bins);  // three rows, the spectrum, two rows
        float* const spectrum = &work_[3 * bins];
        session.mfeSaveFFT(0, 1, 2, work_.data(), spectrum, &work_[4 * bins],
                           static_cast<int>(bins));
        // Steps of equal mel, 1127 ln(1 + f / 700), are steps of equal ratio of 1 + f / 700.
        const auto bin = [&](std::size_t row) {
            const double share = static_cast<double>(row) / kRows;
            const double hertz = 700 * (std::pow(1 + highest / 700, share) - 1);
            const double at = hertz / highest * static_cast<double>(bins);
            return std::clamp<std::size_t>(static_cast<std::size_t>(at), 1,
                                           bins - 1);  // (never bin 0)
        };
        for (std::size_t row = 0; row < kRows; ++row) {
            const std::size_t from = bin(row), to = std::max(bin(row + 1), from + 1);
            double power = 1e-9;
            for (std::size_t k = from; k < to; ++k) {
                power += std::pow(10, spectrum[k] / 5) / static_cast<double>(to - from);
            }
            sums_[row] += static_cast<int>(std::clamp(10 * std::log10(power), 0.0, 255.0));
        }
    }

    std::array<int, kRows> sums_{};
    std::size_t frames_ = 0;
    std::vector<float> work_;
};

// What is kept of every 10 ms, 16 bits each: the samples' extremes + 32768; the score in thousandths;
// silence since speech or the session's begin and the limits that end an utterance or time out, in
// frames; state and status; posteriors in percent. plot.html reads them in this order.
enum Track { kLow, kHigh, kScore, kQuiet, kPause, kTimeOut, kState, kStatus, kPosterior };
constexpr std::size_t kTracks = kPosterior + kClasses;

// A recording as its session heard it.
class Story : public Watcher {
public:
    explicit Story(CMFE& session) : session_(session) {
        spectrogram.highest = session._m_b_16k_model ? 8000 : 4000;
    }

    // The next 10 ms of samples, before the session hears them.
    void hear(const short* samples, std::size_t count) {
        const auto [low, high] = std::minmax_element(samples, samples + count);
        for (auto& track : tracks) {
            track.push_back(0);
        }
        set(kLow, frames() - 1, *low + 32768);
        set(kHigh, frames() - 1, *high + 32768);
        set(kState, frames() - 1, kUnscored);
    }

    // Frames that are scored again replace what they were; but after a reset only from speech on, so
    // that the silence that brought an end or a time-out stays to be seen.
    void frame(const Frame& f) override {
        if (f.number < 0 || f.number >= static_cast<long long>(frames())) {
            return;
        }
        const auto n = static_cast<std::size_t>(f.number);
        if (timed_out_) {
            origin_ = f.number;  // the session has begun anew
        }
        timed_out_ = f.status == kTimedOut;
        const bool news = n >= scored_ || f.status != kNotStarted;
        scored_ = std::max(scored_, n + 1);
        const bool gated = gated_;  // the energy detector leaves the network's results as they are
        gated_ = session_._m_n_evad_active != 0;
        spectrogram.add(session_, n, gated);
        if (!news) {
            return;
        }
        const int last = session_._m_n_last_speech;  // 0: none yet
        set(kScore, n, 1000 * static_cast<double>(f.score));
        set(kQuiet, n, static_cast<double>(f.number - origin_ - last));
        set(kPause, n, f.pause_limit);
        set(kTimeOut, n, last != 0 ? session_._m_n_max_wait : session_._m_n_head_sil);
        set(kState, n, gated ? kGated : f.state);
        set(kStatus, n, f.status);
        const int classes = std::min<int>(kClasses, session_._m_n_nn_dim);
        for (int k = 0; k < classes; ++k) {
            set(kPosterior + k, n, gated ? 0 : 100 * static_cast<double>(f.posteriors[k]));
        }
    }
    // What was not scored, such as the last 15 ms, goes on as it was.
    void finish() {
        spectrogram.add(session_, frames() - 1, true);
        for (std::size_t n = 1; n < frames(); ++n) {
            for (const int track : {kScore, kQuiet, kPause, kTimeOut, kStatus}) {
                set(track, n, at(track, at(kState, n) == kUnscored ? n - 1 : n));
            }
        }
    }
    void ended(const Utterance& u) override { add("utterance", u); }
    void forgotten(const Utterance& u, bool prompt) override { add(prompt ? "prompt" : "blip", u); }
    void timed_out(double seconds) override { time_outs.push_back(seconds); }

    // Utterances, or what was taken for some and forgotten.
    std::ptrdiff_t count(bool kept) const {
        return std::count_if(segments.begin(), segments.end(),
                             [&](const Json& s) { return (s["kind"] == "utterance") == kept; });
    }
    std::size_t frames() const { return tracks[0].size(); }
    int at(int track, std::size_t n) const { return tracks[static_cast<std::size_t>(track)][n]; }

    std::array<std::vector<std::uint16_t>, kTracks> tracks;
    Json segments = Json::array(), time_outs = Json::array();
    Spectrogram spectrogram;

private:
    void set(int track, std::size_t n, double value) {
        const double whole =
            value > 0 ? std::min(std::round(value), 65535.0) : 0.0;  // (NaN is 0 too)
        tracks[static_cast<std::size_t>(track)][n] = static_cast<std::uint16_t>(whole);
    }
    void add(const char* kind, const Utterance& u) {
        segments.push_back({{"kind", kind}});
        segments.back().update(utterance_json(u, ""));
    }

    CMFE& session_;
    long long origin_ = 0;    // frame at which the session began
    std::size_t scored_ = 0;  // frames
    bool timed_out_ = false, gated_ = false;
};

Bytes deflated(const Bytes& bytes) {
    uLongf size = compressBound(static_cast<uLong>(bytes.size()));
    Bytes out(size);
    if (compress2(out.data(), &size, bytes.data(), static_cast<uLong>(bytes.size()), 6) != Z_OK) {
        throw Failure("plot", "out of memory");
    }
    out.resize(size);
    return out;
}

std::string base64(const Bytes& bytes) {
    const char* const digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t k = 0; k < bytes.size(); k += 3) {
        const auto byte = [&](std::size_t at) {
            return at < bytes.size() ? unsigned{bytes[at]} : 0U;
        };
        const unsigned group = byte(k) << 16 | byte(k + 1) << 8 | byte(k + 2);
        for (std::size_t digit = 0; digit < 4; ++digit) {
            text += k + digit > bytes.size() ? '=' : digits[group >> (18 - 6 * digit) & 63];
        }
    }
    return text;
}

// Valid UTF-8, whatever a file is called.
std::string clean(const std::string& text) { return Json::parse(json_text(text)); }

// ---- The page -------------------------------------------------------------------------------------

// The page's data: of every track the high bytes and then the low ones; then the spectrogram.
std::string packed(const Story& story) {
    Bytes out;
    for (const auto& track : story.tracks) {
        for (const int shift : {8, 0}) {
            for (const std::uint16_t value : track) {
                out.push_back(static_cast<unsigned char>(value >> shift));
            }
        }
    }
    out.insert(out.end(), story.spectrogram.cells.begin(), story.spectrogram.cells.end());
    return base64(deflated(out));
}

void write_page(FILE* stream, Story& story, Json facts) {
    Spectrogram& s = story.spectrogram;
    const std::string page = plot_page, mark = "<!-- data -->";
    const std::size_t at = page.find(mark);
    std::string data, text;
    const auto fits = [&] { return page.size() + text.size() + data.size() <= kLargestPage; };
    for (data = packed(story); !fits() && s.columns() > 2000; data = packed(story)) {
        s.halve();
    }
    facts.update({{"segments", story.segments},
                  {"timeOuts", story.time_outs},
                  {"frames", story.frames()},
                  {"rows", Spectrogram::kRows},
                  {"columns", s.columns()},
                  {"perColumn", s.per_column},
                  {"highest", s.highest},
                  {"floor", s.quantile(kFloor)},
                  {"ceiling", s.quantile(kCeiling)}});
    text = facts.dump(-1, ' ', true);
    for (std::size_t k = 0; (k = text.find('<', k)) != std::string::npos;) {
        text.replace(k, 1, "\\u003c");  // nothing in it ends the script
    }
    if (!fits()) {
        throw Failure(facts["file"], kTooLong);
    }
    std::fprintf(stream,
                 "%.*s<script type=\"application/json\" id=\"facts\">%s</script>\n"
                 "<script type=\"text/plain\" id=\"data\">%s</script>%s",
                 static_cast<int>(at), page.c_str(), text.c_str(), data.c_str(),
                 page.c_str() + at + mark.size());
}

// ---- The picture ----------------------------------------------------------------------------------

// A grey PNG image of the spectrogram, at most `widest` columns: the louder, the darker.
Bytes png(const Spectrogram& s, std::size_t widest) {
    const std::size_t width = std::min(widest, s.columns());
    const Bytes cells = s.pooled(width);
    Bytes out{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'}, header, pixels;
    const auto number = [](Bytes& to, std::size_t value) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            to.push_back(static_cast<unsigned char>(value >> shift));
        }
    };
    const auto chunk = [&](const char* name, const Bytes& content) {
        Bytes body(name, name + 4);
        body.insert(body.end(), content.begin(), content.end());
        number(out, content.size());
        out.insert(out.end(), body.begin(), body.end());
        number(out, crc32(0, body.data(), static_cast<uInt>(body.size())));
    };
    number(header, width);
    number(header, Spectrogram::kRows);
    header.insert(header.end(), {8, 0, 0, 0, 0});  // bits, grey, and the only methods there are
    const int floor = s.quantile(kFloor), range = std::max(1, s.quantile(kCeiling) - floor);
    for (std::size_t row = Spectrogram::kRows; row-- > 0;) {
        pixels.push_back(0);  // no filter
        for (std::size_t x = 0; x < width; ++x) {
            const int level = (cells[x * Spectrogram::kRows + row] - floor) * 255 / range;
            pixels.push_back(static_cast<unsigned char>(255 - std::clamp(level, 0, 255)));
        }
    }
    chunk("IHDR", header);
    chunk("IDAT", deflated(pixels));
    chunk("IEND", {});
    return out;
}

// From top to bottom: heading, utterances, waveform, spectrogram, score, states, time.
void write_svg(FILE* stream, const Story& story, const Json& facts) {
    constexpr int kLeft = 92, kWidth = 1084;
    const double length = std::max(0.01, facts["seconds"].get<double>());
    const auto x = [&](double t) { return kLeft + std::clamp(t / length, 0.0, 1.0) * kWidth; };
    const auto rect = [&](double from, double to, int y, int height, const char* look) {
        std::fprintf(stream, "<rect x=\"%.2f\" y=\"%d\" width=\"%.2f\" height=\"%d\" %s/>\n",
                     x(from), y, std::max(0.6, x(to) - x(from)), height, look);
    };
    const auto text = [&](double at, int y, const char* look, const std::string& words) {
        std::fprintf(stream, "<text x=\"%.1f\" y=\"%d\" %s>", at, y, look);
        for (const char c : words) {
            const bool control = static_cast<unsigned char>(c) < ' ';
            const char plain[] = {control ? ' ' : c, '\0'};
            std::fputs(c == '&' ? "&amp;" : c == '<' ? "&lt;" : plain, stream);
        }
        std::fputs("</text>\n", stream);
    };
    // A line through the extremes of what one or two tracks hold, at most a column a pixel.
    const auto line = [&](Track low, Track high, const char* colour, const auto& y) {
        const std::size_t all = story.frames(), columns = std::min<std::size_t>(all, kWidth);
        for (std::size_t k = 0; k < columns; ++k) {
            int least = 65535, most = 0;
            for (std::size_t n = part(k, all, columns); n < part(k + 1, all, columns); ++n) {
                least = std::min(least, story.at(low, n));
                most = std::max(most, story.at(high, n));
            }
            const double at = (static_cast<double>(k) + 0.5) / static_cast<double>(columns);
            std::fprintf(stream, "%s%.1f %.1fV%.1f", k == 0 ? "<path d=\"M" : "L",
                         kLeft + at * kWidth, y(most), y(least));
        }
        std::fprintf(stream, "\" fill=\"none\" stroke=\"%s\" stroke-width=\"1.2\"/>\n", colour);
    };
    std::fputs(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 1200 470\" width=\"1200\" "
        "height=\"470\" font-family=\"system-ui, sans-serif\" font-size=\"12\" "
        "fill=\"#566273\">\n"
        "<filter id=\"blue\" color-interpolation-filters=\"sRGB\"><feComponentTransfer>"
        "<feFuncR type=\"table\" tableValues=\".04 .18 .62 1\"/><feFuncG type=\"table\" "
        "tableValues=\".1 .38 .75 1\"/><feFuncB type=\"table\" tableValues=\".26 .64 .89 1\"/>"
        "</feComponentTransfer></filter>\n"
        "<rect width=\"1200\" height=\"470\" rx=\"8\" fill=\"#fff\"/>\n",
        stream);
    const char* const right = "text-anchor=\"end\"";
    text(24, 30, "font-size=\"17\" font-weight=\"600\" fill=\"#18212d\"", facts["title"]);
    text(24, 50, "",
         format("%.1f s, %d Hz, %s, %td utterances, %td forgotten", length,
                facts["recordedRate"].get<int>(), facts["model"].get<std::string>().c_str(),
                story.count(true), story.count(false)));
    for (const auto& [y, name] : {std::pair{81, "utterances"},
                                  {135, "waveform"},
                                  {235, "spectrum"},
                                  {355, "score"},
                                  {427, "states"}}) {
        text(kLeft - 10, y, right, name);
    }
    for (const Json& s : story.segments) {
        const bool kept = s["kind"] == "utterance";
        const double speech = s["first_speech"],
                     last = s["last_speech"].get<double>() + kFrameSeconds;
        rect(s["start"], s["end"], 66, 346, "fill=\"#0d9488\" fill-opacity=\".09\"");
        rect(s["start"], s["end"], 66, 22, kept ? "fill=\"#99d8d0\"" : "fill=\"#dfe3e8\"");
        rect(speech, last, 66, 22, kept ? "fill=\"#0f766e\"" : "fill=\"#9aa5b1\"");
        const std::string why = s[kept ? "ended_by" : "kind"],
                          words = (kept ? "ended by " : "") + why;
        if (x(last) - x(speech) > 7.0 * static_cast<double>(words.size())) {
            text((x(speech) + x(last)) / 2, 81, "text-anchor=\"middle\" fill=\"#fff\"", words);
        }
    }
    int loudest = 1;
    for (std::size_t n = 0; n < story.frames(); ++n) {
        loudest = std::max({loudest, 32768 - story.at(kLow, n), story.at(kHigh, n) - 32768});
    }
    line(kLow, kHigh, "#334155", [&](int value) { return 131 - 36.0 * (value - 32768) / loudest; });
    std::fprintf(stream,
                 "<image x=\"%d\" y=\"176\" width=\"%d\" height=\"110\" "
                 "preserveAspectRatio=\"none\" filter=\"url(#blue)\" "
                 "href=\"data:image/png;base64,%s\"/>\n",
                 kLeft, kWidth, base64(png(story.spectrogram, kWidth)).c_str());
    const double start = facts["start"], stop = facts["stop"];
    const auto highest =
        *std::max_element(story.tracks[kScore].begin(), story.tracks[kScore].end());
    const double top = std::max({1.1 * highest / 1000, 2 * start, 2 * stop, 0.1});
    const auto level = [&](double score) { return 404 - 106 * std::min(score / top, 1.0); };
    line(kScore, kScore, "#4f46e5", [&](int value) { return level(value / 1000.0); });
    for (const auto& [value, up, name, colour] :
         {std::tuple{start, 4, "starts", "#15803d"}, {stop, -14, "ends", "#c2410c"}}) {
        const int y = static_cast<int>(level(value)) + (up < 0 && start == stop ? 1 : 0);
        rect(0, length, y, 1, format("fill=\"%s\"", colour).c_str());
        text(kLeft + kWidth, y - up,
             format("%s stroke=\"#fff\" stroke-width=\"3\" paint-order=\"stroke\" fill=\"%s\"",
                    right, colour)
                 .c_str(),
             format("%s at %.2f", name, value));
    }
    // Runs of speech; of what is shorter than a pixel only as much as can be seen.
    double drawn = -1;
    for (std::size_t n = 0, end; n < story.frames(); n = end) {
        const auto speech = [&](std::size_t f) { return is_speech(story.at(kState, f)); };
        for (end = n + 1; end < story.frames() && speech(end) == speech(n);) {
            ++end;
        }
        const double to = 0.01 * static_cast<double>(end);
        if (speech(n) && x(to) > drawn) {
            rect(0.01 * static_cast<double>(n), to, 416, 14, "fill=\"#0f766e\"");
            drawn = x(to) + 0.5;
        }
    }
    double step = 0.001;
    for (const double longer : {0.002, 0.005, 0.01, 0.02, 0.05, 0.1,  0.2,  0.5,  1.0,   2.0,
                                5.0,   10.0,  15.0, 30.0, 60.0, 120., 300., 600., 1800., 3600.}) {
        step = length / step > 15 ? longer : step;
    }
    for (int k = 0; k * step <= length; ++k) {
        rect(k * step, k * step, 434, 5, "fill=\"#566273\"");
        const int whole = static_cast<int>(k * step);
        text(x(k * step), 454, "text-anchor=\"middle\"",
             length < 120 ? format("%g s", k * step) : format("%d:%02d", whole / 60, whole % 60));
    }
    std::fputs("</svg>\n", stream);
}

int run(const Options& options) {
    const std::string extension = fs::path(options.output).extension().string();
    if (extension != ".html" && extension != ".svg") {
        throw UsageError("-o takes a name that ends in .html or .svg, not '" + options.output +
                         "'");
    }
    const std::string name =
        options.file == "-" ? "stdin" : fs::path(options.file).filename().string();
    AudioInput input(options.file, options.audio);
    const auto session = open_session(options.session, input.rate());
    warn_of_doubts(*session, options.session);
    input.convert(static_cast<int>(session->mfeGetParam(kSampleRate)));
    OutputFile output(options.output);
    Story story(*session);
    Listener listener(*session, story);
    Progress progress;
    std::vector<short> chunk(static_cast<std::size_t>(listener.chunk()));
    while (const std::size_t got = input.read(chunk.data(), chunk.size())) {
        if (extension == ".html" && story.frames() > kLongestPage) {
            throw Failure(name, kTooLong);
        }
        story.hear(chunk.data(), got);
        listener.push(chunk.data(), static_cast<int>(got));
        progress.show(options.file, input.share());
    }
    if (story.frames() == 0) {
        throw Failure(options.file, "there is nothing to draw");
    }
    listener.finish();
    story.finish();
    progress.clear();
    // (never NaN)
    const auto threshold = [](double value) { return std::min(99.0, std::max(0.0, value)); };
    const Json facts{
        {"title", clean(options.title.empty() ? name : options.title)},
        {"file", clean(name)},
        {"model", clean(fs::path(model_path(options.session, input.rate())).filename().string())},
        {"recordedRate", input.rate()},
        {"rate", session->mfeGetParam(kSampleRate)},
        {"seconds", listener.seconds()},
        {"clipped", input.clipped()},
        {"parameters", changed_parameters(*session)},
        {"start", threshold(session->_m_f_speech_threshold)},
        {"stop", threshold(session->_m_f_sil_threshold)},
        {"pause", session->_m_n_cfg_max_speech_pause},
        {"wait", session->_m_n_cfg_max_wait},
        {"bandLow", session->_m_n_fbank_low},
        {"bandHigh", session->_m_n_fbank_high},
        {"bands", session->_m_n_fbank_dim}};
    if (extension == ".html") {
        write_page(output.stream(), story, facts);
    } else {
        write_svg(output.stream(), story, facts);
    }
    output.commit();
    return 0;
}

}  // namespace

void add_plot(CLI::App& program, Action& action) {
    const auto options = std::make_shared<Options>();
    CLI::App& command =
        *program.add_subcommand("plot", "Show what the detector made of a recording");
    command
        .add_option("file", options->file,
                    "Recording in any format of libsndfile; - reads standard input")
        ->required()
        ->type_name("FILE");
    command
        .add_option("-o,--output", options->output,
                    "A page to explore in a browser (.html) or a picture (.svg)")
        ->required()
        ->type_name("FILE");
    command.add_option("--title", options->title, "Heading (default: the file's name)")
        ->type_name("TEXT");
    add_audio_options(command, options->audio);
    add_session_options(command, options->session);
    command.callback([options, &action] { action = [options] { return run(*options); }; });
}
