// Long life: hours of audio through one session for each rate, as fast as it goes.
//
//   soak HOURS      (more than a minute)
//
// Two hosts each: one that resets after time-outs, as the guide says, and one that never does and
// goes on until the session refuses, at 2^31 samples. Whatever the hours, the heap must not grow after
// the first minute, and a test phrase must get the same scores, states and audio to the bit, after a
// reset at any time.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "dnnvad/dnn_vad.h"
#include "tests/source_files.h"

namespace {

constexpr int kRateId = 13, kRefused = -118, kTimedOut = 3;
constexpr double kPhraseSeconds = 5, kSettledSeconds = 60;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "soak: %s\n", what.c_str());
    std::exit(1);
}

// What a session says of audio, as one number (FNV-1a).
class Digest {
public:
    void add(const void* data, std::size_t size) {
        for (std::size_t k = 0; k < size; ++k) {
            value_ = (value_ ^ static_cast<const unsigned char*>(data)[k]) * 1099511628211U;
        }
    }
    unsigned long long value() const { return value_; }

private:
    unsigned long long value_ = 14695981039346656037U;
};

class Host {
public:
    Host(const std::string& model, const std::vector<short>& speech, bool resets)
        : speech_(speech), resets_(resets) {
        if (!resets) {
            for (const int limit : {1, 5, 14}) {
                session_.mfeSetParam(limit, 2e9F);
            }
        }
        if (session_.mfeInit((DNNVAD_SOURCE_DIR "/models/" + model).c_str()) != 0) {
            fail("no model " + model);
        }
        rate_ = static_cast<int>(session_.mfeGetParam(kRateId));
        out_.resize(static_cast<std::size_t>(10 * rate_));
        scene_.reserve(static_cast<std::size_t>(10 * rate_));
    }

    // False when the session refuses more.
    bool push(const short* samples, int count, Digest* digest) {
        const int sent = session_.mfeSendData(samples, count);
        if (sent == kRefused) {
            return false;
        }
        const int status = session_.mfeDNNDetect();
        int bytes = 0;
        session_.mfeGetCallbackData(reinterpret_cast<char*>(out_.data()), &bytes,
                                    static_cast<int>(out_.size() * sizeof(short)));
        // (before its first frame the smoother still shows the last stream's)
        if (digest != nullptr && session_._m_n_cur_frame > 0) {
            digest->add(session_._m_p_windows_detector->_maxima.data(), 9 * sizeof(float));
            digest->add(&status, sizeof status);
            digest->add(out_.data(), static_cast<std::size_t>(bytes));
        }
        heard_ += count;
        speech_frames_ += status == 1;
        if (resets_ && status == kTimedOut) {
            session_.mfeReset();
        }
        return true;
    }

    bool push_all(const std::vector<short>& samples, std::size_t count, Digest* digest = nullptr) {
        const int chunk = rate_ / 100;
        for (std::size_t at = 0; at + static_cast<std::size_t>(chunk) <= count;
             at += static_cast<std::size_t>(chunk)) {
            if (!push(&samples[at], chunk, digest)) {
                return false;
            }
        }
        return true;
    }

    unsigned long long test_phrase() {
        Digest digest;
        session_.mfeReset();
        push_all(speech_, static_cast<std::size_t>(kPhraseSeconds * rate_), &digest);
        session_.mfeReset();
        return digest.value();
    }

    // Speech at any level between pauses of any length, in noise that comes and goes.
    bool push_scene() {
        const auto draw = [this](int bound) {
            return static_cast<int>(random_() % static_cast<unsigned>(bound));
        };
        const int begin = draw(static_cast<int>(speech_.size()) / 2), length = draw(4 * rate_);
        const int gap = draw(6 * rate_), gain = 1 + draw(64), noise = draw(300) + 1;
        scene_.assign(static_cast<std::size_t>(length + gap), 0);
        for (std::size_t k = 0; k < scene_.size(); ++k) {
            const int at = begin + static_cast<int>(k);
            const bool spoken =
                static_cast<int>(k) < length && at < static_cast<int>(speech_.size());
            const int voice = spoken ? speech_[static_cast<std::size_t>(at)] * gain / 64 : 0;
            scene_[k] = static_cast<short>(
                std::max(-32768, std::min(32767, voice + draw(noise) - noise / 2)));
        }
        return push_all(scene_, scene_.size());
    }

    double seconds() const { return heard_ / rate_; }
    long long speech_frames() const { return speech_frames_; }
    int rate() const { return rate_; }
    tz_dnnvad::CMFE& session() { return session_; }

private:
    tz_dnnvad::CMFE session_;
    const std::vector<short>& speech_;
    bool resets_;
    int rate_ = 0;
    double heard_ = 0;
    long long speech_frames_ = 0;
    std::vector<short> out_, scene_;
    std::mt19937 random_{7};
};

// Bytes in use but for the list of segments, which is as long as utterances between two resets are many.
std::size_t heap(tz_dnnvad::CMFE& session) {
    void* const segments = session._m_v_segments.data();
    const std::size_t list =
        segments != nullptr ? malloc_usable_size(segments) + sizeof(std::size_t) : 0;
    return mallinfo2().uordblks - list;
}

void run(const std::string& model, const std::string& recording, double hours, bool resets) {
    const std::vector<short> speech = test::read_wav(test::source("samples/" + recording));
    Host host(model, speech, resets);
    const unsigned long long first = resets ? host.test_phrase() : 0;
    std::size_t settled = 0;
    double next_check = 3600;
    bool refused = false;
    while (host.seconds() < hours * 3600 && !refused) {
        refused = !host.push_scene();
        if (settled == 0 && host.seconds() > kSettledSeconds) {
            settled = heap(host.session());
        }
        if (resets && host.seconds() > next_check) {
            next_check += 3600;
            if (host.test_phrase() != first) {
                fail(model + ": the test phrase is heard otherwise after " +
                     std::to_string(host.seconds()) + " s");
            }
            if (heap(host.session()) != settled) {
                fail(model + ": the heap grew by " +
                     std::to_string(heap(host.session()) - settled) + " bytes");
            }
        }
    }
    if (resets) {
        if (host.test_phrase() != first) {
            fail(model + ": the test phrase is heard otherwise in the end");
        }
        if (heap(host.session()) != settled) {
            fail(model + ": the heap grew by " + std::to_string(heap(host.session()) - settled) +
                 " bytes");
        }
    } else if (refused) {
        // A clear answer, again and again, and a reset makes all well.
        short silence[160] = {};
        if (host.seconds() * host.rate() < 2147483647.0 - host.rate() ||
            host.push(silence, host.rate() / 100, nullptr)) {
            fail(model + ": refused too early, or not for good");
        }
        Host other(model, speech, resets);
        if (host.test_phrase() != other.test_phrase()) {
            fail(model + ": a reset after the limit does not make a fresh session");
        }
    }
    if (host.speech_frames() == 0) {
        fail(model + ": heard no speech");
    }
    std::fprintf(stderr, "%s, %s: %.2f hours, %.1f %% speech%s\n", model.c_str(),
                 resets ? "with resets" : "without resets", host.seconds() / 3600,
                 static_cast<double>(host.speech_frames()) / host.seconds(),
                 refused ? ", refused at 2^31 samples" : "");
}

}  // namespace

int main(int argc, char** argv) {
    const double hours = argc == 2 ? std::atof(argv[1]) : 0;
    // What malloc keeps for the next time would count as in use: no thread cache (which is chosen before
    // main), no fast bins.
    if (std::getenv("GLIBC_TUNABLES") == nullptr) {
        setenv("GLIBC_TUNABLES", "glibc.malloc.tcache_count=0", 1);
        execv("/proc/self/exe", argv);
    }
    mallopt(M_MXFAST, 0);
    // The library's lines are many.
    if (hours * 3600 <= kSettledSeconds || std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 2;
    }
    for (const bool resets : {true, false}) {
        // (past the counter's end, which 8 kHz reaches after 74.6 hours)
        const double length = resets || hours < 72 ? hours : 75;
        run("vad8k.bin", "roadsigns-8k.wav", length, resets);
        run("vad16k.bin", "stream-16k.wav", length, resets);
    }
}
