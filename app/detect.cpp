// dnnvad detect: the utterances of recordings, in the formats that people and other programs read.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iomanip>
#include <map>
#include <sstream>

#include "audio_input.h"
#include "cutter.h"
#include "json_text.h"
#include "listener.h"
#include "program.h"
#include "session_options.h"

namespace fs = std::filesystem;

namespace {

struct Options {
    std::vector<std::string> files;
    SessionOptions session;
    AudioOptions audio;
    std::string format = "table";
    std::string output;
    std::string cut;  // folder
};

// What was done with one recording.
struct Summary {
    std::string file, model;  // path
    double seconds;
    int rate;                          // Hz, as recorded
    long long clipped;                 // samples beyond 16 bits
    std::vector<Utterance> collected;  // by a format that prints them at the end
};

std::string display_name(const std::string& file) { return file == "-" ? "stdin" : file; }

std::string stem(const std::string& file) { return fs::path(display_name(file)).stem().string(); }

double speech_end(const Utterance& u) { return u.last_speech + kFrameSeconds; }

// ---- Formats: a line for an utterance of a file, and the WAV file that it was cut to, or "" ----

std::string table_line(const std::string&, const Utterance& u, const std::string& cut) {
    const char* const remark = u.under_minimum  ? ", under the minimum"
                               : u.over_maximum ? ", over the maximum"
                                                : "";
    return format("%8.2f %8.2f %8.2f %8.2f  %8.2f %6.1f  %s%s%s%s\n", u.start, u.end,
                  u.speech_start, u.last_speech, u.end - u.start, u.peak, u.reason, remark,
                  cut.empty() ? "" : "  ", cut.c_str());
}

std::string json_line(const std::string& file, const Utterance& u, const std::string& cut) {
    nlohmann::ordered_json line{{"type", "utterance"}, {"file", file}};
    line.update(utterance_json(u, cut));
    return json_text(line) + "\n";
}

std::string json_end(const Summary& s) {
    const nlohmann::ordered_json line{
        {"type", "recording"}, {"file", s.file},   {"seconds", hundredths(s.seconds)},
        {"rate", s.rate},      {"model", s.model}, {"clipped", s.clipped}};
    return json_text(line) + "\n";
}

std::string csv_field(const std::string& text) {
    std::ostringstream quoted;
    quoted << std::quoted(text, '"', '"');
    return text.find_first_of(",\"\n\r") == std::string::npos ? text : quoted.str();
}

std::string csv_line(const std::string& file, const Utterance& u, const std::string& cut) {
    return format("%s,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.1f,%s,%d,%d,%s\n", csv_field(file).c_str(),
                  u.start, u.end, u.speech_start, u.last_speech, u.end - u.start, u.decided, u.peak,
                  u.reason, u.under_minimum, u.over_maximum, csv_field(cut).c_str());
}

std::string rttm_line(const std::string& file, const Utterance& u, const std::string&) {
    std::string name = stem(file);
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isspace(c); }, '_');
    return format("SPEAKER %s 1 %.3f %.3f <NA> <NA> speech <NA> <NA>\n", name.c_str(),
                  u.speech_start, speech_end(u) - u.speech_start);
}

std::string audacity_line(const std::string&, const Utterance& u, const std::string&) {
    return format("%.6f\t%.6f\tspeech\n", u.speech_start, speech_end(u));
}

// Praat wants intervals that cover the whole recording and do not overlap.
struct TextGridTier {
    std::string intervals = "";
    int count = 0;
    double covered = 0;  // seconds

    void extend(double to, const char* text, bool always = false) {
        if (to > covered || always) {
            intervals += format(
                "        intervals [%d]:\n            xmin = %.4f\n            xmax = %.4f\n"
                "            text = \"%s\"\n",
                ++count, covered, to, text);
            covered = to;
        }
    }
};

// Speech, and utterances with their margins. (The library's own report holds the utterances alone.)
std::string textgrid_end(const Summary& s) {
    TextGridTier tiers[2];
    for (const Utterance& u : s.collected) {
        tiers[0].extend(std::min(u.speech_start, s.seconds), "");
        tiers[0].extend(std::min(speech_end(u), s.seconds), "speech");
        tiers[1].extend(std::min(u.start, s.seconds), "");
        tiers[1].extend(std::min(u.end, s.seconds), u.reason);
    }
    std::string text = format(
        "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n\nxmin = 0\n"
        "xmax = %.4f\ntiers? <exists>\nsize = 2\nitem []:\n",
        s.seconds);
    for (const int k : {0, 1}) {
        tiers[k].extend(s.seconds, "", tiers[k].count == 0);
        text += format(
            "    item [%d]:\n        class = \"IntervalTier\"\n        name = \"%s\"\n"
            "        xmin = 0\n        xmax = %.4f\n        intervals: size = %d\n",
            k + 1, k == 0 ? "speech" : "utterance", s.seconds, tiers[k].count);
        text += tiers[k].intervals;
    }
    return text;
}

struct Format {
    const char* extension;  // of a file with one recording's utterances
    bool one_recording;     // a file can hold the utterances of one recording only
    const char* heading;
    // Null: the utterances are collected for the end.
    std::string (*line)(const std::string& file, const Utterance&, const std::string& cut);
    std::string (*end)(const Summary&);
};

constexpr char kTableHeading[] = "   start      end    first     last  duration   peak  ended by\n";
constexpr char kCsvHeading[] =
    "file,start,end,first_speech,last_speech,duration,decided,peak_dbfs,ended_by,"
    "under_minimum,over_maximum,cut\n";

const std::map<std::string, Format> kFormats{
    {"table", {".table", false, kTableHeading, table_line, nullptr}},
    {"json", {".json", false, "", json_line, json_end}},
    {"csv", {".csv", false, kCsvHeading, csv_line, nullptr}},
    {"rttm", {".rttm", false, "", rttm_line, nullptr}},
    {"audacity", {".txt", true, "", audacity_line, nullptr}},
    {"textgrid", {".TextGrid", true, "", nullptr, textgrid_end}},
};

// ---- Detection ----

// A file, or without a path standard output. What is written appears at once.
class Output {
public:
    explicit Output(const std::string& path)
        : file_(path.empty() ? nullptr : std::make_unique<OutputFile>(path)),
          stream_(path.empty() ? results() : file_->stream()) {}
    void write(const std::string& text) {
        std::fputs(text.c_str(), stream_);
        file_ != nullptr ? file_->flush() : finish_output();
        begun_ = true;
    }
    bool begun() const { return begun_; }
    bool failed() const { return std::ferror(stream_) != 0; }
    void commit() {
        if (file_ != nullptr) {
            file_->commit();
        }
    }

private:
    std::unique_ptr<OutputFile> file_;
    FILE* stream_;
    bool begun_ = false;
};

// Prints the utterances of one recording as they end.
class Reporter : public Cutter {
public:
    Reporter(const Options& options, const std::string& file, int rate, Output& output,
             Progress& progress)
        : Cutter(options.cut, stem(file), rate),
          file_(display_name(file)),
          format_(kFormats.at(options.format)),
          output_(output),
          progress_(progress) {}

    void ended(const Utterance& u) override {
        const std::string cut = keep();
        progress_.clear();
        if (format_.line != nullptr) {
            output_.write(format_.line(file_, u, cut));
        } else {
            collected_.push_back(u);
        }
        ++count_;
    }
    int count() const { return count_; }
    const std::vector<Utterance>& collected() const { return collected_; }

private:
    std::string file_;
    const Format& format_;
    Output& output_;
    Progress& progress_;
    std::vector<Utterance> collected_;
    int count_ = 0;
};

// Detects in one recording; returns the number of utterances.
int detect_file(const Options& options, const std::string& file, Output& output) {
    AudioInput input(file, options.audio);
    if (file == "-") {
        stop_on_signals();  // what was found in a stream until then is kept, as at its end
    }
    const auto session = open_session(options.session, input.rate());
    const int rate = static_cast<int>(session->mfeGetParam(kSampleRate));
    const std::string name = display_name(file);
    const Format& form = kFormats.at(options.format);
    input.convert(rate);
    Progress progress;
    Reporter reporter(options, file, rate, output, progress);
    warn_of_doubts(*session, options.session);
    const bool table = options.format == "table";  // of which each recording has its own
    if (table && options.files.size() > 1) {
        output.write(name + "\n");
    }
    if (table || !output.begun()) {
        output.write(form.heading);
    }
    Listener listener(*session, reporter);
    std::vector<short> chunk(static_cast<std::size_t>(listener.chunk()));
    while (const std::size_t got = input.read(chunk.data(), chunk.size())) {
        listener.push(chunk.data(), static_cast<int>(got));
        progress.show(name, input.share());
    }
    listener.finish();
    if (form.end != nullptr) {
        output.write(form.end({name, model_path(options.session, input.rate()), listener.seconds(),
                               input.rate(), input.clipped(), reporter.collected()}));
    }
    progress.clear();
    if (input.clipped() > 0) {
        print_warning(format("%s: %lld samples beyond full scale were clipped", name.c_str(),
                             input.clipped()));
    }
    return reporter.count();
}

// Refuses to write over a recording, and two recordings whose results would have one name.
void check_names(const Options& options, bool to_folder) {
    std::map<std::string, std::string> stems;
    for (const std::string& file : options.files) {
        std::error_code error;
        if (fs::equivalent(file, options.output, error)) {
            throw UsageError("-o " + options.output + " would overwrite a recording");
        }
        if (fs::equivalent(fs::absolute(file).parent_path(), options.cut, error)) {
            throw UsageError("--cut " + options.cut + " holds recordings: name another folder");
        }
        const auto [other, fresh] = stems.emplace(stem(file), file);
        if (!fresh && (to_folder || !options.cut.empty())) {
            throw UsageError(other->second + " and " + file + " would give files of the same name");
        }
    }
}

int run(Options options) {
    options.output = options.output == "-" ? "" : options.output;
    if (!options.output.empty() && options.output.back() == '/') {
        std::error_code error;
        fs::create_directories(options.output, error);  // (opening files in it tells what is wrong)
    }
    const Format& form = kFormats.at(options.format);
    const bool to_folder = fs::is_directory(options.output), several = options.files.size() > 1;
    if (several && form.one_recording && !to_folder) {
        throw UsageError("format " + options.format +
                         " holds one recording: name a folder with -o, such as -o found/");
    }
    check_names(options, to_folder);
    auto output = to_folder ? nullptr : std::make_unique<Output>(options.output);
    int failed = 0, utterances = 0;
    for (const std::string& recording : options.files) {
        try {
            if (to_folder) {
                const fs::path folder = options.output;
                output = std::make_unique<Output>(folder / (stem(recording) + form.extension));
            }
            utterances += detect_file(options, recording, *output);
            if (to_folder) {
                output->commit();
            }
        } catch (const Failure& failure) {
            if (!to_folder && output->failed()) {
                throw;  // (nor could anything of the next recording be written)
            }
            std::fprintf(stderr, "dnnvad: %s\n", failure.what());
            ++failed;
        }
        if (stopping != 0) {
            break;
        }
    }
    // What was found in the other recordings is kept; of a single one that failed nothing is.
    if (!to_folder && (several || failed == 0)) {
        output->commit();
    }
    if (several) {
        std::fprintf(stderr, "%zu recordings, %d utterances, %d failed\n", options.files.size(),
                     utterances, failed);
    }
    return failed > 0 ? 1 : stopping != 0 ? 128 + stopping : 0;
}

}  // namespace

void add_detect(CLI::App& program, Action& action) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand("detect", "Find the utterances of recordings");
    command
        .add_option("files", options->files,
                    "Recordings in any format of libsndfile; - reads WAV\n"
                    "(or --raw) from standard input, with results as they are decided")
        ->required()
        ->type_name("FILE");
    add_audio_options(command, options->audio);
    command.add_option("-f,--format", options->format, "How utterances are written")
        ->check(CLI::IsMember(kFormats))
        ->capture_default_str();
    command
        .add_option("-o,--output", options->output,
                    "Write to this file instead of standard output, or into this folder a file\n"
                    "for each recording (NAME/ is made where there is none)")
        ->type_name("PATH");
    add_cut_option(command, options->cut);
    add_session_options(command, options->session);
    command.callback([options, &action] { action = [options] { return run(*options); }; });
}
