// dnnvad detect: the utterances of recordings.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>

#include "audio_input.h"
#include "cutter.h"
#include "listener.h"
#include "program.h"
#include "segment_writer.h"
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

std::string display_name(const std::string& file) { return file == "-" ? "stdin" : file; }

std::string stem(const std::string& file) { return fs::path(display_name(file)).stem().string(); }

// Hands what the listener hears to the writer and, if wanted, the audio to files.
class Reporter : public Watcher {
public:
    Reporter(std::string file, SegmentWriter& writer, OutputFile* output, Cutter& cutter,
             Progress& progress)
        : file_(std::move(file)),
          writer_(writer),
          output_(output),
          cutter_(cutter),
          progress_(progress) {}

    void began(const Utterance&) override { cutter_.begin(); }
    void audio(const short* samples, int count) override { cutter_.write(samples, count); }
    void ended(const Utterance& u) override {
        const std::string cut = cutter_.keep();
        progress_.clear();
        writer_.utterance(file_, u, cut);
        // Results appear as they are decided.
        output_ != nullptr ? output_->flush() : finish_output();
        ++count_;
    }
    void forgotten(const Utterance&, bool) override { cutter_.drop(); }
    int count() const { return count_; }

private:
    std::string file_;
    SegmentWriter& writer_;
    OutputFile* output_;  // null: standard output
    Cutter& cutter_;
    Progress& progress_;
    int count_ = 0;
};

// Detects in one recording; returns the number of utterances.
int detect_file(const Options& options, const std::string& file, SegmentWriter& writer,
                OutputFile* output, Progress& progress) {
    AudioInput input(file, options.audio);
    if (file == "-") {
        stop_on_signals();  // what was found in a stream until then is kept, as at its end
    }
    const auto session = open_session(options.session, input.rate());
    const int rate = static_cast<int>(session->mfeGetParam(kSampleRate));
    input.convert(rate);
    Cutter cutter(options.cut, stem(file), rate);
    warn_of_doubts(*session, options.session);
    writer.begin(display_name(file), options.files.size() > 1);
    Reporter reporter(display_name(file), writer, output, cutter, progress);
    Listener listener(*session, reporter);
    std::vector<short> chunk(static_cast<std::size_t>(listener.chunk()));
    while (const std::size_t got = input.read(chunk.data(), chunk.size())) {
        listener.push(chunk.data(), static_cast<int>(got));
        progress.show(display_name(file), input.share());
    }
    listener.finish();
    writer.end({display_name(file), input.rate(), model_path(options.session, input.rate()),
                listener.seconds(), input.clipped()});
    progress.clear();
    if (input.clipped() > 0) {
        print_warning(format("%s: %lld samples beyond full scale were clipped",
                             display_name(file).c_str(), input.clipped()));
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
        const fs::path folder =
            fs::path(file).has_parent_path() ? fs::path(file).parent_path() : ".";
        if (fs::equivalent(folder, options.cut, error)) {
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
    const auto& formats = segment_formats();
    const SegmentFormat& form =
        *std::find_if(formats.begin(), formats.end(),
                      [&](const SegmentFormat& f) { return options.format == f.name; });
    const bool to_folder = fs::is_directory(options.output);
    const bool several = options.files.size() > 1;
    if (several && form.one_recording && !to_folder) {
        throw UsageError("format " + options.format +
                         " holds one recording: name a folder with -o, such as -o found/");
    }
    check_names(options, to_folder);
    std::unique_ptr<OutputFile> file;
    std::unique_ptr<SegmentWriter> writer;
    const auto open_writer = [&](const std::string& path) {
        if (!path.empty()) {
            file = std::make_unique<OutputFile>(path);
        }
        writer = form.make(file != nullptr ? file->stream() : results());
    };
    if (!to_folder) {
        open_writer(options.output);
    }
    Progress progress;
    int failed = 0, utterances = 0;
    for (const std::string& recording : options.files) {
        try {
            if (to_folder) {
                open_writer(
                    (fs::path(options.output) / (stem(recording) + form.extension)).string());
            }
            utterances += detect_file(options, recording, *writer, file.get(), progress);
            if (to_folder) {
                file->commit();
            }
        } catch (const Failure& failure) {
            progress.clear();
            if (!to_folder && std::ferror(file != nullptr ? file->stream() : results()) != 0) {
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
    if (!to_folder && file != nullptr && (several || failed == 0)) {
        file->commit();
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
    std::vector<std::string> names;
    for (const SegmentFormat& form : segment_formats()) {
        names.emplace_back(form.name);
    }
    command.add_option("-f,--format", options->format, "How utterances are written")
        ->check(CLI::IsMember(names))
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
