// Follows one detection session along a stream: what it says of every frame, and utterances.
//
//     audio --10 ms--> session --status--> began, audio ..., ended | forgotten
//
// The program's commands watch a stream through this one class; it is also the example of how a host
// listens without end: after a time-out it resets the session and goes on.
#ifndef DNNVAD_APP_LISTENER_H
#define DNNVAD_APP_LISTENER_H

#include <vector>

#include "dnnvad/dnn_vad.h"

constexpr double kFrameSeconds = 0.01;
constexpr int kClasses = 9, kFirstSpeechClass = 3;  // of the network

// Statuses of a session and states of a frame (dnn_vad.h) that the program tells apart.
enum Status { kNotStarted = 0, kSpeaking = 1, kTimedOut = 3, kEnded = 6 };
enum FrameState { kSilence = 2, kNotBegin = 4 };
inline bool is_speech(int state) { return state != kSilence && state < kNotBegin; }

// Times are seconds from the start of the stream.
struct Utterance {
    double start;         // with the margin before speech
    double end;           // with the margin after speech
    double speech_start;  // first frame judged speech
    double last_speech;   // last frame judged speech
    double decided;       // how much of the stream had been heard when it was decided
    const char* reason;   // why it ended: "pause", "time-out", "end of input"; "" while it goes on
    double peak;          // level of its loudest sample handed out so far, dB full scale
    bool under_minimum;   // speech shorter than min_sp_duration
    bool over_maximum;    // speech longer than max_sp_duration
};

// What the session says of one frame.
struct Frame {
    long long number;         // from the start of the stream, 10 ms each
    int state;                // 0 .. 5, see g_AudioState
    int status;               // of the session, after this frame
    float score;              // the smoother's, compared with both thresholds
    const float* posteriors;  // 9
    int pause_limit;          // frames, as it is now
};

// What a watcher is told, in the order of the stream. All do nothing unless overridden.
class Watcher {
public:
    virtual ~Watcher() = default;
    // A frame was scored. After an end of utterance and after a reset some frames are scored again.
    virtual void frame(const Frame&) {}
    virtual void began(const Utterance&) {}
    // Audio of the utterance, margins included, as the library hands it out.
    virtual void audio(const short* /*samples*/, int /*count*/) {}
    virtual void ended(const Utterance&) {}
    // What began was none: a blip of a few frames, or (prompt) the device's own prompt.
    virtual void forgotten(const Utterance&, bool /*prompt*/) {}
    virtual void timed_out(double /*seconds*/) {}
};

class Listener {
public:
    // Both are borrowed. The session is initialised and has heard nothing yet.
    Listener(tz_dnnvad::CMFE& session, Watcher& watcher);

    int chunk() const { return chunk_; }  // samples of 10 ms
    // Pushes at most chunk() samples; fewer only at the end. Returns the session's status.
    int push(const short* samples, int count) { return hear(samples, count, false); }
    // Pushes all of it, a chunk at a time.
    void push_all(const std::vector<short>& samples);
    // The end of the input: closes an utterance that is still open. Returns the final status.
    int finish();
    double seconds() const { return heard_ / rate_; }  // pushed so far
    bool speaking() const { return open_; }

private:
    int hear(const short* samples, int count, bool again);
    void tell_frames(int status);
    void follow();
    void close(const char* reason, bool forgotten = false, bool prompt = false);
    void reset(double origin);
    void restart();
    Utterance describe(const char* reason) const;
    double time(int frame) const;

    tz_dnnvad::CMFE& session_;
    Watcher& watcher_;
    int chunk_;
    double rate_;               // Hz
    double heard_ = 0;          // samples of the stream
    double origin_ = 0;         // sample of the stream at which the session's frame 0 lies
    std::size_t reported_ = 0;  // records of the segment list already dealt with
    bool open_ = false;         // an utterance has begun and not ended
    std::vector<short> out_;    // what the session hands out at once
    int peak_ = 0;              // loudest sample handed out of the open utterance
};

// The smoother's score of the frame that the session scored last.
float smoothed_score(const tz_dnnvad::CMFE& session);

#endif
