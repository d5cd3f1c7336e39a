// Numbers that several files share, by name (internal header; dnn_vad.h explains the codes).
#ifndef DNNVAD_CONSTANTS_H
#define DNNVAD_CONSTANTS_H

namespace tz_dnnvad {

// Session status.
enum Status {
    kNotStarted = 0,
    kSpeaking = 1,
    kPaused = 2,
    kTimedOut = 3,
    kTooShort = 4,
    kTooLong = 5,
    kEnded = 6,
};

// What a frame was: an index into g_AudioState.
enum FrameState {
    kSpeech2Speech = 0,
    kSpeech2Sil = 1,
    kSil2Sil = 2,
    kSil2Speech = 3,
    kNotBegin = 4,
    kInvalid = 5,
};

// Error numbers.
enum Error {
    kInitFailed = -1,
    kNotSilence = -102,
    kNullPointer = -103,
    kNoMemory = -107,
    kBadParameter = -109,
    kChunkTooLong = -118,
    kComponentFailed = -120,
};

// A component's getState().
enum ComponentState {
    kFailed = 1,
    kUsable = 2,
};

// The network's classes: silence before the first speech class.
constexpr int kClasses = 9;
constexpr int kFirstSpeechClass = 3;

// Shapes of the bleep detector's buffers.
constexpr int kSpecSmooth = 3;      // spectra averaged
constexpr int kSpecFrames = 120;    // spectra kept
constexpr int kPatternFrames = 15;  // template rows
constexpr int kPatternLow = 5;      // first used bin + 1

}  // namespace tz_dnnvad

#endif
