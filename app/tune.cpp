// dnnvad tune: what the thresholds, the pause limit and the margins of a session trade, measured on
// recordings with labels.
//
// Labels with less than --join seconds between them are one reference utterance, cut at the end of the
// recording. Every recording goes through one session for every setting (margins too: after a time-out
// the audio of the margin is heard again, so they move more than the edges). What is measured stands in
// scoring.cpp; what began and was forgotten again (a blip, the prompt) is no detected utterance.
//
// A pause limit that is not below the wait limit can never end an utterance. A setting whose pause needs
// it raises max_wait_duration too, to keep above it by as much as the defaults do.
//
// The status is 1 when no setting gave a figure for the target. Settings that all break a limit are no
// failure: the best is then the one that breaks them least.
#include <strings.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>

#include "audio_input.h"
#include "json_text.h"
#include "program.h"
#include "scoring.h"
#include "session_options.h"

namespace {

constexpr int kWaitAbovePause = 20;  // frames, as the defaults 110 and 90
constexpr int kLongest = 6000;       // frames of a pause limit or margin
constexpr double kSlack = 0.1;       // seconds that labels may reach beyond the end unnoticed

struct Options {
    std::vector<std::string> files;
    std::string labels, output, format = "table", target = "delay";
    SessionOptions session;
    std::vector<double> thresholds{0.15, 0.18, 0.2, 0.22, 0.25, 0.3}, end_ratios{1};
    std::vector<std::string> pauses{"300ms", "450ms", "600ms", "900ms"};
    std::vector<std::string> margins{"100ms", "200ms", "400ms"};
    double join = 0.5;  // seconds
    double limits[kMeasureCount];
    unsigned jobs = std::max(1U, std::thread::hardware_concurrency());
};

struct Recording {
    int rate;                    // Hz, as recorded
    std::vector<short> samples;  // at the session's rate
    double seconds;
    std::vector<Interval> references;
};

struct Setting {
    double start, end;             // thresholds
    int pause, margin, wait;       // frames
    std::vector<std::string> set;  // of the command line, then of the sweep
    Tally tally;
    double values[kMeasureCount];
    double excess;             // over the limits, in shares of them (of 1 where they are less)
    std::vector<double> rank;  // the least is the best
};

struct Collector : Watcher {
    std::vector<Utterance> utterances;
    void ended(const Utterance& u) override { utterances.push_back(u); }
};

Recording read(const Options& o, const std::string& file) {
    Recording r{};
    r.rate = AudioInput(file, {}).rate();
    r.references = read_labels(o.labels, std::filesystem::path(file).stem().string(), o.join);
    const auto session = open_session(o.session, r.rate);
    r.samples = read_recording(file, static_cast<int>(session->mfeGetParam(kSampleRate)));
    r.seconds = static_cast<double>(r.samples.size()) / session->mfeGetParam(kSampleRate);
    if (!r.references.empty() && r.references.back().to > r.seconds + kSlack) {
        print_warning(format("%s: its labels go on to %.2f s, but it ends at %.2f s", file.c_str(),
                             r.references.back().to, r.seconds));
    }
    while (!r.references.empty() && r.references.back().from >= r.seconds) {
        r.references.pop_back();
    }
    if (!r.references.empty()) {
        r.references.back().to = std::min(r.references.back().to, r.seconds);
    }
    return r;
}

Tally listen(const SessionOptions& options, const Recording& recording) {
    const auto session = open_session(options, recording.rate);
    Collector collector;
    Listener listener(*session, collector);
    listener.push_all(recording.samples);
    listener.finish();
    return compare(recording.references, recording.seconds, collector.utterances);
}

// Every recording with every setting, shared out among threads that each take the next one.
void listen(const Options& o, const std::vector<Recording>& recordings, std::vector<Setting>& all) {
    std::vector<Tally> tallies(all.size() * recordings.size());
    std::atomic<std::size_t> next{0};
    std::vector<std::future<void>> workers;
    for (unsigned k = 0; k < o.jobs; ++k) {
        workers.push_back(std::async(std::launch::async, [&] {
            for (std::size_t job = next++; job < tallies.size(); job = next++) {
                SessionOptions options = o.session;
                options.set = all[job / recordings.size()].set;
                tallies[job] = listen(options, recordings[job % recordings.size()]);
            }
        }));
    }
    Progress progress;
    for (std::future<void>& worker : workers) {
        while (worker.wait_for(std::chrono::milliseconds(50)) != std::future_status::ready) {
            const std::size_t begun = std::min<std::size_t>(next, tallies.size());
            progress.show("listening",
                          static_cast<double>(begun) / static_cast<double>(tallies.size()));
        }
        worker.get();  // throws what the thread has thrown
    }
    for (std::size_t job = 0; job < tallies.size(); ++job) {
        all[job / recordings.size()].tally.add(tallies[job]);
    }
}

// A pause or margin of the sweep.
int frames(const std::string& assignment) {
    const int value = setting_in_frames(assignment);
    if (value > kLongest) {
        throw UsageError(assignment + " is longer than a minute");
    }
    return value;
}

std::vector<Setting> settings(const Options& o) {
    const int wait = open_session(o.session, 8000)->_m_n_cfg_max_wait;
    std::vector<Setting> all(o.thresholds.size() * o.end_ratios.size() * o.pauses.size() *
                             o.margins.size());
    for (std::size_t k = 0; k < all.size(); ++k) {
        std::size_t rest = k;
        const auto next = [&rest](const auto& list) {
            const std::size_t at = rest % list.size();
            rest /= list.size();
            return list[at];
        };
        Setting& s = all[k];
        s.margin = frames("start_back_frame=" + next(o.margins));
        s.pause = frames("max_sp_pause=" + next(o.pauses));
        const double ratio = next(o.end_ratios);
        s.start = next(o.thresholds), s.end = ratio * s.start;
        s.wait = s.pause < wait ? wait : s.pause + kWaitAbovePause;
        s.set = {format("start_back_frame=%d", s.margin), format("end_back_frame=%d", s.margin),
                 format("max_sp_pause=%d", s.pause), format("dnn_speech_threshold=%g", s.start),
                 format("dnn_sil_threshold=%g", s.end)};
        for (const std::string& set : o.session.set) {
            for (const std::string& swept : s.set) {
                if (strncasecmp(set.c_str(), swept.c_str(), swept.find('=') + 1) == 0) {
                    throw UsageError("--set " + set + ": tune varies this itself (--help: Sweep)");
                }
            }
        }
        if (s.wait != wait) {
            s.set.push_back(format("max_wait_duration=%d", s.wait));
        }
        s.set.insert(s.set.begin(), o.session.set.begin(), o.session.set.end());
    }
    return all;
}

// Takes the measures and sorts: first settings with a figure for the target, then by the excess over the
// limits, by the target, by the other measures in their order.
void rank(const Options& o, std::vector<Setting>& all) {
    for (Setting& s : all) {
        s.rank.resize(3);
        for (std::size_t m = 0; m < kMeasureCount; ++m) {
            const double value = s.values[m] = kMeasures[m].value(s.tally);
            s.rank.push_back(std::isnan(value) ? INFINITY : value);
            s.excess +=
                value > o.limits[m] ? (value - o.limits[m]) / std::max(1.0, o.limits[m]) : 0;
            if (o.target == kMeasures[m].name) {
                s.rank[0] = std::isnan(value), s.rank[2] = s.rank.back();
            }
        }
        s.rank[1] = s.excess;
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const Setting& a, const Setting& b) { return a.rank < b.rank; });
}

std::string figure(double value) { return std::isfinite(value) ? format("%.5g", value) : "-"; }

std::string basis(const Options& o, const Tally& t) {
    return format(
        "recordings: %zu, utterances: %.0f, outside them: %.1f s; least %s within the limits",
        o.files.size(), t.counts[kUtterances], t.counts[kQuiet], o.target.c_str());
}

void print_table(const Options& o, const std::vector<Setting>& all) {
    std::string names = "   start    end  pause margin", units = "                  ms     ms";
    std::string limits = "limit                        ";
    for (std::size_t m = 0; m < kMeasureCount; ++m) {
        names += format(" %12s", kMeasures[m].name), units += format(" %12s", kMeasures[m].unit);
        limits += format(" %12s", figure(o.limits[m]).c_str());
    }
    std::fprintf(results(), "%s\n%s\n%s\n", names.c_str(), units.c_str(), limits.c_str());
    for (const Setting& s : all) {
        std::fprintf(results(), "%c %6.4g %6.4g %6d %6d", &s == all.data() ? '*' : ' ', s.start,
                     s.end, 10 * s.pause, 10 * s.margin);
        for (std::size_t m = 0; m < kMeasureCount; ++m) {
            const char* const mark = s.values[m] > o.limits[m] ? "!" : "";
            std::fprintf(results(), " %12s", (figure(s.values[m]) + mark).c_str());
        }
        std::fputc('\n', results());
    }
    std::fprintf(results(), "* best, ! over the limit; %s\n", basis(o, all.front().tally).c_str());
}

void print_json(const Options&, const std::vector<Setting>& all) {
    for (const Setting& s : all) {
        nlohmann::ordered_json line{{"start_threshold", s.start},
                                    {"end_threshold", s.end},
                                    {"pause_ms", 10 * s.pause},
                                    {"margin_ms", 10 * s.margin},
                                    {"wait_ms", 10 * s.wait},
                                    {"utterances", static_cast<int>(s.tally.counts[kUtterances])},
                                    {"quiet_seconds", s.tally.counts[kQuiet]},
                                    {"excess", hundredths(s.excess)},
                                    {"best", &s == all.data()}};
        for (std::size_t m = 0; m < kMeasureCount; ++m) {
            line[kMeasures[m].name] = hundredths(s.values[m]);  // what is no number becomes null
        }
        std::fprintf(results(), "%s\n", line.dump().c_str());
    }
}

// The setting, on top of what --config, --set and --model say.
void write_config(const Options& o, const Setting& best, FILE* stream) {
    std::fprintf(stream, "# dnnvad tune: %s%s\n", basis(o, best.tally).c_str(),
                 o.session.bleep.empty() ? "" : "; with --bleep, which has no key");
    for (std::size_t m = 0; m < kMeasureCount; ++m) {
        std::fprintf(stream, "# %s: %s %s (limit: %s)\n", kMeasures[m].name,
                     figure(best.values[m]).c_str(), kMeasures[m].unit,
                     figure(o.limits[m]).c_str());
    }
    std::string lines = '\n' + config_lines(best.set);
    lines += o.session.model.empty() ? "" : "PARAM_DNN_FILE:" + o.session.model + '\n';
    std::ifstream base(o.session.config);
    for (std::string line; std::getline(base, line);) {
        const std::string key = '\n' + line.substr(0, line.find(':')) + ':';
        if (key.compare(0, 7, "\nPARAM_") == 0 && lines.find(key) == std::string::npos) {
            std::fprintf(stream, "%s\n", line.c_str());
        }
    }
    std::fputs(lines.c_str() + 1, stream);
}

int run(const Options& o) {
    if (!o.output.empty() && o.session.model.find_first_of(" \t\r\n") != std::string::npos) {
        throw UsageError("-o: a configuration file cannot name a model with blanks in its path");
    }
    for (const std::string& file : o.files) {
        std::error_code error;
        if (std::filesystem::equivalent(file, o.output, error)) {
            throw UsageError("-o " + o.output + " would overwrite a recording");
        }
    }
    std::vector<Setting> all = settings(o);
    const auto config = o.output.empty() ? nullptr : std::make_unique<OutputFile>(o.output);
    std::vector<Recording> recordings;
    for (const std::string& file : o.files) {
        recordings.push_back(read(o, file));
    }
    listen(o, recordings, all);
    rank(o, all);
    const Setting& best = all.front();
    const bool found = std::isfinite(best.rank[2]);
    if (found && config != nullptr) {  // (before a reader of the table can go away)
        write_config(o, best, config->stream());
        config->commit();
    }
    (o.format == "json" ? print_json : print_table)(o, all);
    if (!found) {
        throw Failure("tune", "no setting gave a figure for " + o.target);
    }
    if (best.excess > 0) {
        std::fprintf(stderr, "dnnvad: no setting meets all limits: the best breaks them least\n");
    }
    return 0;
}

}  // namespace

void add_tune(CLI::App& program, Action& action) {
    const auto options = std::make_shared<Options>();
    Options& o = *options;
    CLI::App& command =
        *program.add_subcommand("tune", "Find parameters that suit labelled recordings");
    command.add_option("files", o.files, "Recordings in any format of libsndfile")
        ->required()
        ->type_name("FILE");
    command
        .add_option("--labels", o.labels,
                    "Folder with STEM.TextGrid (Praat, tier \"speech\" or the first), STEM.txt\n"
                    "(Audacity, or lines of start and end), STEM.rttm or another .rttm file for\n"
                    "every recording STEM.*; the first of these counts")
        ->required()
        ->type_name("DIR");
    command
        .add_option("--join", o.join,
                    "Labels with less than this between them are one utterance: who pauses so\n"
                    "long has not finished")
        ->type_name("SECONDS")
        ->check(CLI::Range(0.0, 60.0))
        ->capture_default_str();
    const auto sweep = [&command](const char* name, auto& values, const char* what) {
        return command.add_option(name, values, what)
            ->delimiter(',')
            ->take_all()
            ->expected(1)
            ->allow_extra_args(false)
            ->type_name("LIST")
            ->group("Sweep")
            ->capture_default_str();
    };
    sweep("--thresholds", o.thresholds, "Scores at which speech starts")
        ->check(CLI::Range(0.0, 2.0));
    sweep("--end-ratio", o.end_ratios, "Scores at which it ends, as shares of these")
        ->check(CLI::Range(0.0, 1.0));
    sweep("--pauses", o.pauses,
          "Pause limits, as 60 (frames) or 600ms; a longer one\n"
          "raises the wait limit too");
    sweep("--margins", o.margins, "Margins, before and after speech alike");
    std::vector<std::string> names;
    for (std::size_t m = 0; m < kMeasureCount; ++m) {
        names.emplace_back(kMeasures[m].name);
        o.limits[m] = kMeasures[m].limit;
        command.add_option("--max-" + names.back(), o.limits[m], kMeasures[m].meaning)
            ->type_name(kMeasures[m].unit)
            ->group("Measures and their limits")
            ->capture_default_str();
    }
    command
        .add_option("--target", o.target,
                    "The measure to make small within the limits; when no setting meets them,\n"
                    "the one counts that breaks them least, in shares of the limits")
        ->type_name("NAME")
        ->check(CLI::IsMember(names))
        ->capture_default_str();
    command.add_option("-o,--output", o.output, "Write the best setting as a configuration file")
        ->type_name("FILE");
    command
        .add_option("-f,--format", o.format, "How the figures are written; json: an object a line")
        ->check(CLI::IsMember({"table", "json"}))
        ->capture_default_str();
    command.add_option("-j,--jobs", o.jobs, "Threads")
        ->check(CLI::Range(1, 256))
        ->capture_default_str();
    add_session_options(command, o.session, false);
    command.callback([options, &action] { action = [options] { return run(*options); }; });
}
