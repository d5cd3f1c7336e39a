#include "session_options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include "model_file.h"
#include "program.h"

using tz_dnnvad::cfg_vad_t;
using tz_dnnvad::CMFE;

namespace {

constexpr int kWideRate = 16000;  // Hz, from which on the 16 kHz model listens
constexpr double kFramesPerSecond = 100;
constexpr int kBufferReserve = 100;    // frames
constexpr int kLongestBuffer = 60000;  // frames, 10 minutes
constexpr float kMostFrames = 1e9F;    // what is longer is told no further apart
constexpr char kPrefix[] = "PARAM_";
constexpr int kMostWarnings = 5;

enum class Unit { kFrames, kSamples, kNumber, kScore, kSwitch };

struct Parameter {
    int id;
    const char* name;  // a configuration file's key with PARAM_ before it
    Unit unit;
    float (*value)(const cfg_vad_t&);  // null: no configuration key
};

template <auto Member>
float member(const cfg_vad_t& config) {
    return static_cast<float>(config.*Member);
}

// In the order in which they are applied: what sizes buffers first; the wait limit (which may lower the
// pause limit) before the pause limit, and before the wait after short speech, which it bounds.
constexpr Parameter kParameters[] = {
    {kSampleRate, "SAMPLE_RATE", Unit::kNumber, member<&cfg_vad_t::sample_rate>},
    {kBufferLength, "BUFFER_LENGTH", Unit::kSamples, nullptr},
    {1, "MAX_WAIT_DURATION", Unit::kFrames, member<&cfg_vad_t::max_wait>},
    {kMaxPause, "MAX_SP_PAUSE", Unit::kFrames, member<&cfg_vad_t::max_sp_pause>},
    {kMaxSpeech, "MAX_SP_DURATION", Unit::kFrames, member<&cfg_vad_t::max_sp_duration>},
    {kMinSpeech, "MIN_SP_DURATION", Unit::kFrames, member<&cfg_vad_t::min_sp_duration>},
    {kHeadSilence, "HEAD_SIL_DURATION", Unit::kFrames, member<&cfg_vad_t::head_sil_duration>},
    {kStartMargin, "START_BACK_FRAME", Unit::kFrames, member<&cfg_vad_t::start_back_frame>},
    {kEndMargin, "END_BACK_FRAME", Unit::kFrames, member<&cfg_vad_t::end_back_frame>},
    {kDebugLog, "DEBUG_LOG", Unit::kNumber, member<&cfg_vad_t::debug_log>},
    {10, "DETECT_START", Unit::kFrames, member<&cfg_vad_t::detect_start>},
    {11, "DETECTION", Unit::kSwitch, nullptr},
    {12, "SPEECH_ONLY", Unit::kSwitch, nullptr},
    {14, "WAIT_AFTER_MINSPEECH", Unit::kFrames, member<&cfg_vad_t::wait_after_minspeech>},
    {23, "DNN_SPEECH_threshold", Unit::kScore, member<&cfg_vad_t::speech_threshold>},
    {24, "DNN_SIL_threshold", Unit::kScore, member<&cfg_vad_t::sil_threshold>},
    {25, "EVAD_DNNVAD_SWITCH", Unit::kSwitch, member<&cfg_vad_t::evad_dnnvad_switch>},
    {kBleepDetect, "BLEEP_DETECT", Unit::kSwitch, member<&cfg_vad_t::bleep_detect>},
};

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

const Parameter& parameter_named(const std::string& name) {
    std::string known;
    for (const Parameter& parameter : kParameters) {
        if (lower(name) == lower(parameter.name) ||
            lower(name) == lower(kPrefix + std::string(parameter.name))) {
            return parameter;
        }
        known += "\n  " + lower(parameter.name);
    }
    throw UsageError("no parameter is called '" + name + "'; there are" + known);
}

// The number that a text like "60", "600ms" or "0.6s" stands for in the parameter's own unit.
float parse_value(const Parameter& parameter, const std::string& text, double rate,
                  const std::string& name = "") {
    const double per_second = parameter.unit == Unit::kFrames    ? kFramesPerSecond
                              : parameter.unit == Unit::kSamples ? rate
                                                                 : 0;
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    const std::string unit = lower(end);
    const double scale = unit.empty()   ? 1
                         : unit == "ms" ? per_second / 1000
                         : unit == "s"  ? per_second
                                        : 0;
    const bool is_switch = parameter.unit == Unit::kSwitch, is_time = per_second != 0;
    const bool seconds = is_time && unit.empty() && number != std::floor(number);  // 0.6 is 0.6s
    if (seconds || end == text.c_str() || scale == 0 || !std::isfinite(number) || number < 0 ||
        (is_switch && number != 0 && number != 1)) {
        const char* const wanted = is_switch ? "0 or 1"
                                   : is_time ? "a whole number, or a time such as 600ms or 0.6s"
                                             : "a number that is not negative";
        throw UsageError((name.empty() ? lower(parameter.name) : name) + " takes " + wanted +
                         ", not '" + text + "'");
    }
    const double value = number * scale;
    return static_cast<float>(parameter.unit == Unit::kScore ? value : std::round(value));
}

std::pair<const Parameter*, std::string> split(const std::string& assignment) {
    const std::size_t equals = assignment.find('=');
    if (equals == std::string::npos) {
        throw UsageError("'" + assignment + "' is not NAME=VALUE");
    }
    return {&parameter_named(assignment.substr(0, equals)), assignment.substr(equals + 1)};
}

cfg_vad_t read_config(const std::string& path) {
    cfg_vad_t config{};
    if (!path.empty() && tz_dnnvad::readcfg(path.c_str(), &config) != 0) {
        throw Failure(path, "cannot be read");
    }
    return config;
}

bool is_key(const std::string& key) {
    const auto named = [&](const Parameter& p) {
        return p.value != nullptr && kPrefix + std::string(p.name) == key;
    };
    return std::any_of(std::begin(kParameters), std::end(kParameters), named);
}

// Keys of a configuration file with a value that readcfg takes: its record cannot tell a value of zero
// from a key that is not there. Warns, if told to, of lines that have no effect or another than they seem to.
std::set<std::string> keys_of(const std::string& path, bool warn) {
    static const std::set<std::string> texts{"PARAM_DNN_FILE", "PARAM_CMVN_FILE",
                                             "PARAM_SPEECH_OFFSET"};
    std::set<std::string> keys;
    std::ifstream file(path);
    int number = 0, warnings = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        const std::size_t colon = std::min(line.find(':'), line.size());
        const std::string key = line.substr(0, colon);
        float value = 0;
        int used = 0;
        const bool known = is_key(key);
        const bool taken = known && std::sscanf(line.c_str() + colon, ":%f %n", &value, &used) == 1;
        if (taken) {
            keys.insert(key);
        }
        const bool blank = line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#';
        const bool whole = taken && colon + static_cast<std::size_t>(used) == line.size();
        if (warn && !blank && !whole && texts.count(key) == 0 && ++warnings <= kMostWarnings) {
            print_warning(format("%s: line %d ", path.c_str(), number) +
                          (!known  ? "is no PARAM_NAME:value that the session knows"
                           : taken ? format("sets %g: times are frames, without a unit", value)
                                   : "has no number"));
        }
    }
    return keys;
}

// Audio is handed out from a ring: it has to hold the margin before speech, and the pause after which
// speech goes on, since that one is handed out when it does. So many frames are needed.
int longest_handed_out(const CMFE& session) {
    return std::max(session._m_n_start_back_frame,
                    std::min(session._m_n_cfg_max_speech_pause, session._m_n_cfg_max_wait));
}

void lengthen_buffer(CMFE& session) {
    const int frames = std::min(longest_handed_out(session), kLongestBuffer) + kBufferReserve;
    if (frames > session._m_n_buf_frames) {
        session.mfeSetParam(kBufferLength, static_cast<float>(frames * session._m_n_frame_shift));
        // The limit on the length of a chunk follows with the rate.
        session.mfeSetParam(kSampleRate, session.mfeGetParam(kSampleRate));
    }
}

// The host's part of a configuration: what the file sets, then what --set says, in the table's order.
void apply(const SessionOptions& options, const cfg_vad_t& config, CMFE& session) {
    static std::atomic<bool> warned{false};  // once, however many sessions take the file
    const std::set<std::string> keys =
        keys_of(options.config, !options.config.empty() && !warned.exchange(true));
    std::map<int, std::string> chosen;
    for (const std::string& assignment : options.set) {
        const auto [parameter, text] = split(assignment);
        chosen[parameter->id] = text;
    }
    for (const Parameter& parameter : kParameters) {
        const bool is_chosen = chosen.count(parameter.id) != 0;
        if (!is_chosen && keys.count(kPrefix + std::string(parameter.name)) == 0) {
            continue;
        }
        const float value = is_chosen ? parse_value(parameter, chosen[parameter.id],
                                                    session.mfeGetParam(kSampleRate))
                                      : parameter.value(config);
        if (session.mfeSetParam(parameter.id, value) != 0) {
            const auto what = format("%s cannot be %g", lower(parameter.name).c_str(), value);
            is_chosen ? throw UsageError("--set: " + what) : throw Failure(options.config, what);
        }
    }
    if (chosen.count(kBufferLength) == 0) {
        lengthen_buffer(session);
    }
}

std::string chosen_model(const SessionOptions& options, const cfg_vad_t& config,
                         int recording_rate) {
    if (!options.model.empty()) {
        return options.model;
    }
    if (config.dnn_file[0] != '\0') {  // (a name of the full length has no final zero)
        return {config.dnn_file, strnlen(config.dnn_file, sizeof config.dnn_file)};
    }
    return bundled_file(recording_rate >= kWideRate ? "vad16k.bin" : "vad8k.bin");
}

}  // namespace

void add_session_options(CLI::App& command, SessionOptions& options, bool margin) {
    const auto add = [&command](const char* name, auto& value, const char* about) {
        return command.add_option(name, value, about)->type_name("FILE")->group("Detection");
    };
    add("--model", options.model, "Network model (default: bundled, by sample rate)");
    add("--bleep", options.bleep, "Template of the device's prompt, see record-bleep");
    add("--config", options.config, "Configuration file of PARAM_NAME:value lines");
    add("--set", options.set,
        "A parameter by name, such as max_sp_pause=600ms or\n"
        "dnn_speech_threshold=0.3; frames of 10 ms without a unit")
        ->type_name("NAME=VALUE")
        ->take_all()
        ->allow_extra_args(false);
    if (!margin) {
        return;
    }
    const auto set = [&options](const std::string& text) {
        for (const char* const name : {"start_back_frame=", "end_back_frame="}) {
            setting_in_frames(name + text, "--margin");
            options.set.insert(options.set.begin(), name + text);
        }
    };
    command
        .add_option_function<std::string>(
            "--margin", set, "Audio kept before and after speech, as 40 (frames) or 300ms")
        ->type_name("TIME")
        ->group("Detection");
}

std::string model_path(const SessionOptions& options, int recording_rate) {
    return chosen_model(options, read_config(options.config), recording_rate);
}

std::unique_ptr<CMFE> open_session(const SessionOptions& options, int recording_rate) {
    auto session = std::make_unique<CMFE>();
    const cfg_vad_t config = read_config(options.config);
    apply(options, config, *session);
    const std::string model = chosen_model(options, config, recording_rate);
    const bool wanted = session->mfeGetParam(kBleepDetect) != 0, given = !options.bleep.empty();
    const auto bins =
        given ? describe_file(options.bleep, ModelKind::kTemplate).value("bins", 0) : 0;
    describe_file(model, ModelKind::kNetwork);
    const char* const bleep = given ? options.bleep.c_str() : nullptr;
    if (session->mfeInit_load_model(model.c_str(), bleep) != 0) {
        throw Failure(model, "there is no memory for this network model");
    }
    if (const int rate = session->_m_n_sample_rate; rate != 8000 && rate != 16000) {
        throw Failure(model, format("for %d Hz, neither 8000 nor 16000", rate));
    }
    if (given && bins != session->_m_n_fft_size) {
        throw Failure(options.bleep, format("no template for models of %s Hz",
                                            session->_m_b_16k_model ? "16000" : "8000"));
    }
    if (given && wanted && session->mfeGetParam(kBleepDetect) == 0) {
        throw Failure(options.bleep,
                      "not a usable template for this model (dnnvad info tells more)");
    }
    return session;
}

void warn_of_doubts(const CMFE& session, const SessionOptions& options) {
    const auto warn = [](bool doubt, const char* text, auto left, auto right) {
        if (doubt) {
            print_warning(format(text, left, right));
        }
    };
    const int pause = session._m_n_cfg_max_speech_pause, wait = session._m_n_cfg_max_wait;
    warn(pause >= wait,
         "max_sp_pause (%d frames) is not below max_wait_duration (%d): time-outs will end "
         "utterances, not pauses",
         pause, wait);
    const int buffer = session._m_n_buf_frames, longest = longest_handed_out(session);
    warn(
        longest >= buffer,
        "buffer_length (%d frames) is not above the margin before speech and the pause limit (%d): "
        "audio will be lost",
        buffer, longest);
    const int from = session._m_n_detect_start, head = session._m_n_head_sil;
    warn(from > 0 && from >= head,
         "detect_start (%d frames) is not below head_sil_duration (%d): before it there is a "
         "time-out, and all begins anew",
         from, head);
    const double start = session._m_f_speech_threshold, stop = session._m_f_sil_threshold;
    warn(stop > start,
         "dnn_sil_threshold (%g) is above dnn_speech_threshold (%g): scores between them end what "
         "they start",
         stop, start);
    const double rate = session._m_n_sample_rate;
    for (const std::string& assignment : options.set) {
        const auto [parameter, text] = split(assignment);
        warn(parameter->id == kSampleRate && parse_value(*parameter, text, 0) != rate,
             "the model hears %g Hz: a rate of %s has no effect", rate, text.c_str());
    }
}

std::vector<std::string> changed_parameters(CMFE& session) {
    CMFE fresh;
    const auto value = [](const Parameter& parameter, CMFE& of) -> double {
        switch (parameter.id) {  // those that mfeGetParam cannot tell
            case kBufferLength:
                return of._m_n_buf_frames;
            case 11:
                return of._m_b_vad_enable ? 1 : 0;
            case 14:
                return of._m_n_wait_after_minspeech;
            default:
                return static_cast<double>(of.mfeGetParam(parameter.id));
        }
    };
    std::vector<std::string> changed;
    for (const Parameter& parameter : kParameters) {
        const double now = value(parameter, session), usual = value(parameter, fresh);
        if (now != usual && parameter.id != kSampleRate && parameter.id != kBleepDetect) {
            const bool frames = parameter.unit == Unit::kFrames || parameter.unit == Unit::kSamples;
            const double scale = frames ? 1000 / kFramesPerSecond : 1;
            const char* const unit = frames ? " ms" : "";
            changed.push_back(format("%s %g%s (default %g%s)", lower(parameter.name).c_str(),
                                     now * scale, unit, usual * scale, unit));
        }
    }
    return changed;
}

int setting_in_frames(const std::string& assignment, const std::string& name) {
    const auto [parameter, text] = split(assignment);
    return static_cast<int>(std::min(parse_value(*parameter, text, 0, name), kMostFrames));
}

std::string config_lines(const std::vector<std::string>& set) {
    std::string lines;
    for (const std::string& assignment : set) {
        const auto [parameter, text] = split(assignment);
        const char* const prefix = parameter->value != nullptr ? kPrefix : "# no key: ";
        const float value = parse_value(*parameter, text, 8000);
        // (readcfg reads no exponents into integers)
        lines += format("%s%s:%s\n", prefix, parameter->name,
                        format(parameter->unit == Unit::kScore ? "%g" : "%.0f", value).c_str());
    }
    return lines;
}
