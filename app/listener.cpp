#include "listener.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "session_options.h"

using tz_dnnvad::_VADINFO_;
using tz_dnnvad::CMFE;

namespace {

constexpr int kCounterFull = -118;  // the session has counted to 2^31 samples
constexpr int kSpeechTail = 40;  // frames after the last one judged speech that may still sound so
constexpr double kFullScale = 32768.0;

}  // namespace

float smoothed_score(const CMFE& session) {
    const std::vector<float>& maxima = session._m_p_windows_detector->_maxima;
    float sum = 1.0F;
    for (std::size_t k = kFirstSpeechClass; k < kClasses; ++k) {
        sum += std::log(maxima[k]);
    }
    return std::exp(sum / (kClasses - kFirstSpeechClass));
}

Listener::Listener(CMFE& session, Watcher& watcher)
    : session_(session),
      watcher_(watcher),
      chunk_(static_cast<int>(session.mfeGetParam(kSampleRate)) / 100),
      rate_(session.mfeGetParam(kSampleRate)),
      out_(static_cast<std::size_t>(session.mfeGetParam(kBufferLength)) / sizeof(short)) {}

void Listener::push_all(const std::vector<short>& samples) {
    const auto chunk = static_cast<std::size_t>(chunk_);
    for (std::size_t at = 0; at < samples.size(); at += chunk) {
        push(&samples[at], static_cast<int>(std::min(chunk, samples.size() - at)));
    }
}

int Listener::finish() {
    session_.mfeSendData(nullptr, 0);
    const int status = session_.mfeDNNDetect();
    follow();
    close("end of input");
    return status;
}

// One chunk through the session, and what its status means for the utterance. `again`: the stream's
// latest samples, which it has heard before.
int Listener::hear(const short* samples, int count, bool again) {
    if (session_.mfeSendData(samples, count) == kCounterFull) {
        close("time-out");
        reset(heard_);
        session_.mfeSendData(samples, count);
    }
    heard_ += again ? 0 : count;
    const int status = session_.mfeDNNDetect();
    tell_frames(status);
    follow();
    // The session forgets a blip, or the device's own prompt: it waits as if there had been no speech.
    const bool forgotten = session_._m_n_last_speech == 0;
    if (status == kEnded || (status == kNotStarted && forgotten)) {
        close("pause", forgotten, status == kNotStarted);
    } else if (status == kTimedOut) {
        close("time-out");
        watcher_.timed_out(seconds());
        again ? reset(heard_) : restart();
    }
    return status;
}

void Listener::tell_frames(int status) {
    // A time-out leaves the frame that brought it at the begin of its pass.
    const int first = session_._m_n_pass_first_frame;
    const int end = status == kTimedOut ? first + 1 : session_._m_n_cur_frame;
    for (int f = first; f < end && session_._m_b_vad_enable; ++f) {
        watcher_.frame({std::llround(origin_ / chunk_) + f,
                        session_._m_p_frame_state[f % session_._m_n_ring_frames], status,
                        smoothed_score(session_), session_._m_p_dst_nn,
                        session_._m_n_max_speech_pause});
    }
}

// Tells of a record that the session has opened, and of the audio that it hands out.
void Listener::follow() {
    if (session_._m_v_segments.size() > reported_ && !open_) {
        open_ = true;
        peak_ = 1;
        watcher_.began(describe(""));
    }
    int bytes = 0;
    session_.mfeGetCallbackData(reinterpret_cast<char*>(out_.data()), &bytes,
                                static_cast<int>(out_.size() * sizeof(short)));
    const int count = bytes / static_cast<int>(sizeof(short));
    if (count > 0 && open_) {
        for (int k = 0; k < count; ++k) {
            peak_ = std::max(peak_, std::abs(static_cast<int>(out_[static_cast<std::size_t>(k)])));
        }
        watcher_.audio(out_.data(), count);
    }
}

// The session begins anew; its frame 0 lies at this sample of the stream.
void Listener::reset(double origin) {
    session_.mfeReset();
    reported_ = 0;
    origin_ = origin;
}

// The utterance that has begun, if one has, is over, or was none.
void Listener::close(const char* reason, bool forgotten, bool prompt) {
    if (open_) {
        forgotten ? watcher_.forgotten(describe(reason), prompt) : watcher_.ended(describe(reason));
        open_ = false;
        ++reported_;
    }
}

// A session that has timed out scores one frame per call and drops the rest, so it begins anew. Speech
// may begin at this very moment: the margin before it is pushed again out of the session's ring, as
// far as that cannot bring a time-out by itself.
void Listener::restart() {
    int frames = std::min(
        {session_._m_n_head_sil / 2, session_._m_n_start_back_frame, session_._m_n_ring_frames});
    if (session_._m_n_last_speech != 0) {
        // Nor may it reach back into the speech that the session has just dealt with.
        const int silent = session_._m_n_pass_first_frame - session_._m_n_last_speech;
        frames = std::min(frames, silent - kSpeechTail);
    }
    std::vector<short> lead;
    const auto end = static_cast<long long>(heard_ - origin_);
    for (long long at = std::max(0LL, end - 1LL * std::max(0, frames) * chunk_); at < end; ++at) {
        lead.push_back(session_._m_p_data[at % session_._m_n_ring_samples]);
    }
    reset(heard_ - static_cast<double>(lead.size()));
    for (std::size_t at = 0; at < lead.size(); at += static_cast<std::size_t>(chunk_)) {
        hear(&lead[at], chunk_, true);
    }
}

Utterance Listener::describe(const char* reason) const {
    const _VADINFO_& record = session_._m_v_segments[reported_];
    const bool going_on = *reason == '\0';
    const int end = going_on || record.end < 0 ? session_._m_n_cur_frame : record.end;
    const int last = record.last_speech < 0 ? session_._m_n_last_speech : record.last_speech;
    const int length = last - record.speech_start;
    return {time(record.start),
            std::min(time(end), seconds()),
            time(record.speech_start),
            time(last),
            seconds(),
            reason,
            20 * std::log10(peak_ / kFullScale),
            length<session_._m_n_min_sp_duration, length> session_._m_n_max_sp_duration};
}

double Listener::time(int frame) const { return origin_ / rate_ + frame * kFrameSeconds; }
