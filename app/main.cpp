// dnnvad: prints the utterances of a recording.
#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "audio_file.h"
#include "dnnvad/dnn_vad.h"
#include "utterances.h"

namespace {

constexpr int kSampleRateId = 13;
constexpr int kWideRate = 16000;  // Hz, from which on the 16 kHz model listens

constexpr char kHelp[] =
    "Usage: dnnvad [OPTION]... FILE\n"
    "Prints the speech segments of a recording (any format that libsndfile reads), a line each:\n"
    "start and end with the margins, first and last speech (all in seconds), why it ended.\n"
    "\n"
    "  --model FILE     network model (default: the bundled one, for 16 kHz from that rate on)\n"
    "  --config FILE    lines PARAM_NAME:value, see the README\n"
    "  --textgrid FILE  also write the segments as a Praat TextGrid\n"
    "  --verbose        show the library's diagnostic lines on standard error\n"
    "  --help           this text\n"
    "\n"
    "Exit status: 0, or 1 when something could not be read or written, 2 for a wrong command "
    "line.\n";

struct Options {
    std::string file;
    std::string model;
    std::string config;
    std::string textgrid;
    bool verbose = false;
};

// The bundled model for a recording: beside the program where it is installed, else in the source
// tree.
std::string bundled_model(int rate) {
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    const char* const name = rate >= kWideRate ? "vad16k.bin" : "vad8k.bin";
    const fs::path installed = program.parent_path() / DNNVAD_MODEL_FROM_BIN / name;
    return (fs::exists(installed, error) ? installed : fs::path(DNNVAD_SOURCE_MODELS) / name)
        .string();
}

// Takes standard output away from the library, whose diagnostic lines go there, and returns it for
// the program's own lines.
FILE* claim_output(bool verbose) {
    std::fflush(stdout);
    FILE* const output = fdopen(dup(STDOUT_FILENO), "w");
    if (verbose) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
    } else if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return nullptr;
    }
    return output;
}

// Silence and speech intervals that cover the whole recording, as Praat wants its tiers.
bool write_textgrid(const std::string& path, const std::vector<Utterance>& utterances,
                    double duration) {
    struct Interval {
        double from, to;
        const char* text;
    };
    std::vector<Interval> intervals;
    double covered = 0;
    for (const Utterance& utterance : utterances) {
        const double from = std::max(utterance.start, covered);
        const double to = std::min(utterance.end, duration);
        if (to <= from) {
            continue;
        }
        if (from > covered) {
            intervals.push_back({covered, from, ""});
        }
        intervals.push_back({from, to, "speech"});
        covered = to;
    }
    if (covered < duration || intervals.empty()) {
        intervals.push_back({covered, duration, ""});
    }
    FILE* const file = std::fopen(path.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::fprintf(
        file,
        "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n\nxmin = 0\nxmax = %.4f\n"
        "tiers? <exists>\nsize = 1\nitem []:\n    item [1]:\n        class = \"IntervalTier\"\n"
        "        name = \"speech\"\n        xmin = 0\n        xmax = %.4f\n"
        "        intervals: size = %zu\n",
        duration, duration, intervals.size());
    for (std::size_t i = 0; i < intervals.size(); ++i) {
        std::fprintf(file,
                     "        intervals [%zu]:\n            xmin = %.4f\n            xmax = %.4f\n"
                     "            text = \"%s\"\n",
                     i + 1, intervals[i].from, intervals[i].to, intervals[i].text);
    }
    const bool written = std::ferror(file) == 0;
    return std::fclose(file) == 0 && written;
}

// Returns false after a wrong command line.
bool parse(int argc, char** argv, Options& options, bool& help) {
    enum { kModel = 1, kConfig, kTextgrid, kVerbose, kHelpWanted };
    static const option kLongOptions[] = {
        {"model", required_argument, nullptr, kModel},
        {"config", required_argument, nullptr, kConfig},
        {"textgrid", required_argument, nullptr, kTextgrid},
        {"verbose", no_argument, nullptr, kVerbose},
        {"help", no_argument, nullptr, kHelpWanted},
        {nullptr, 0, nullptr, 0},
    };
    int choice;
    while ((choice = getopt_long(argc, argv, "", kLongOptions, nullptr)) != -1) {
        switch (choice) {
            case kModel:
                options.model = optarg;
                break;
            case kConfig:
                options.config = optarg;
                break;
            case kTextgrid:
                options.textgrid = optarg;
                break;
            case kVerbose:
                options.verbose = true;
                break;
            case kHelpWanted:
                help = true;
                return true;
            default:
                return false;
        }
    }
    if (optind + 1 != argc) {
        std::fprintf(stderr, "dnnvad: one recording is wanted; dnnvad --help tells more\n");
        return false;
    }
    options.file = argv[optind];
    return true;
}

int fail(const std::string& what, const std::string& why) {
    std::fprintf(stderr, "dnnvad: %s: %s\n", what.c_str(), why.c_str());
    return 1;
}

int run(const Options& options, FILE* output) {
    tz_dnnvad::CMFE session;
    if (!options.config.empty() && !apply_config(options.config.c_str(), session)) {
        return fail(options.config, "cannot be read");
    }
    const std::string model =
        options.model.empty() ? bundled_model(recording_rate(options.file)) : options.model;
    if (session.mfeInit(model.c_str()) != 0) {
        return fail(model, "not a usable network model (--verbose tells why)");
    }
    const int rate = static_cast<int>(session.mfeGetParam(kSampleRateId));
    const std::vector<short> pcm = read_recording(options.file, rate);

    std::vector<Utterance> utterances;
    std::fprintf(output, "   start      end   speech     last  ended by\n");
    find_utterances(session, pcm, [&](const Utterance& utterance) {
        std::fprintf(output, "%8.2f %8.2f %8.2f %8.2f  %s\n", utterance.start, utterance.end,
                     utterance.speech_start, utterance.last_speech, utterance.reason);
        std::fflush(output);
        utterances.push_back(utterance);
    });
    const double duration = static_cast<double>(pcm.size()) / rate;
    if (!options.textgrid.empty() && !write_textgrid(options.textgrid, utterances, duration)) {
        return fail(options.textgrid, "cannot be written");
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    bool help = false;
    if (!parse(argc, argv, options, help)) {
        return 2;
    }
    if (help) {
        std::fputs(kHelp, stdout);
        return 0;
    }
    FILE* const output = claim_output(options.verbose);
    if (output == nullptr) {
        return fail("standard output", "cannot be opened");
    }
    int status;
    try {
        status = run(options, output);
    } catch (const std::exception& error) {
        status = fail(options.file, error.what());
    }
    const bool written = std::ferror(output) == 0;
    if (std::fclose(output) != 0 || !written) {
        return fail("standard output", "cannot be written");
    }
    return status;
}
