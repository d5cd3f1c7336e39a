// Options that a detection session is made with: the model, parameters by name, a configuration file.
#ifndef DNNVAD_APP_SESSION_OPTIONS_H
#define DNNVAD_APP_SESSION_OPTIONS_H

#include <memory>
#include <string>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "program.h"

// Session parameters that the program itself reads back (dnn_vad.h lists them all).
enum ParameterId {
    kMaxPause = 3,
    kMinSpeech = 4,
    kMaxSpeech = 2,
    kHeadSilence = 5,
    kStartMargin = 6,
    kEndMargin = 7,
    kDebugLog = 8,
    kBufferLength = 9,
    kSampleRate = 13,
    kBleepDetect = 26
};

struct SessionOptions {
    std::string model;             // empty: the configuration file's, else the bundled one
    std::string bleep;             // template of the device's prompt; empty: none
    std::string config;            // file of PARAM_ lines
    std::vector<std::string> set;  // NAME=VALUE, applied after the file
};

// Adds --model, --bleep, --config, --set and, if wanted, --margin, which becomes settings before theirs.
void add_session_options(CLI::App& command, SessionOptions& options, bool margin = true);

// A session with every parameter set, sample rate and buffer length first, then initialised. The buffer
// is lengthened where the margin before speech or the pause limit needs it. Without a
// model the bundled one for `recording_rate` (Hz) is taken: 16 kHz from that rate on. Throws Failure,
// or UsageError for a bad NAME=VALUE.
std::unique_ptr<tz_dnnvad::CMFE> open_session(const SessionOptions& options, int recording_rate);

// The model file that open_session takes.
std::string model_path(const SessionOptions& options, int recording_rate);

// Warns of settings that have no effect, or another than they seem to.
void warn_of_doubts(const tz_dnnvad::CMFE& session, const SessionOptions& options);

// What differs from the library's defaults, a line each: "max_sp_pause 600 ms (default 900 ms)". The
// rate, which follows from the model, is left out.
std::vector<std::string> changed_parameters(tz_dnnvad::CMFE& session);

// The frames that a NAME=VALUE with a duration, such as max_sp_pause=600ms, stands for. Throws UsageError,
// which calls the setting `name` if that is not "".
int setting_in_frames(const std::string& assignment, const std::string& name = "");

// A configuration file for the NAME=VALUE settings, PARAM_ lines; those without a key become comments.
std::string config_lines(const std::vector<std::string>& set);

#endif
