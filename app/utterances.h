// Finds the utterances of a recording with one detection session.
#ifndef DNNVAD_APP_UTTERANCES_H
#define DNNVAD_APP_UTTERANCES_H

#include <functional>
#include <vector>

#include "dnnvad/dnn_vad.h"

// Times in seconds from the start of the recording.
struct Utterance {
    double start;         // with the margin before speech
    double end;           // with the margin after speech
    double speech_start;  // first frame judged speech
    double last_speech;   // last frame judged speech
    const char* reason;   // why it ended: "pause", "time-out" or "end of input"
};

// Applies what a configuration file sets to a session that is not initialised yet. Keys that the
// file leaves out keep the session's defaults. Returns false when the file cannot be read.
bool apply_config(const char* path, tz_dnnvad::CMFE& session);

// Pushes `pcm` (mono, at the session's rate) through an initialised session, 10 ms at a time as a
// microphone would, and calls `found` with each utterance as soon as it has ended. After a time-out
// in silence the session is reset and listening goes on, so pauses may be of any length.
void find_utterances(tz_dnnvad::CMFE& session, const std::vector<short>& pcm,
                     const std::function<void(const Utterance&)>& found);

#endif
