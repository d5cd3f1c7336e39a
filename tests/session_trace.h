// Replays scenario scripts on the library; tests/reference/scenario.py replays the same scripts on
// the reference and says what each operation does and what its output holds.
#ifndef DNNVAD_TESTS_SESSION_TRACE_H
#define DNNVAD_TESTS_SESSION_TRACE_H

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "dnnvad/dnn_vad.h"

namespace session_trace {

inline uint32_t fnv(const void* data, size_t size, uint32_t h = 0x811C9DC5U) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i)
        h = (h ^ bytes[i]) * 0x01000193U;
    return h;
}

inline std::string hex(uint32_t value) {
    char text[9];
    std::snprintf(text, sizeof text, "%08x", static_cast<unsigned>(value));
    return text;
}

template <class... T>
std::string join(const T&... values) {
    std::ostringstream out;
    const char* separator = "";
    ((out << separator << values, separator = " "), ...);
    return out.str();
}

// PCM made with integers only, so that it is the same everywhere.
class Source {
public:
    explicit Source(int rate = 8000, uint32_t seed = 1) : rate_(rate), seed_(seed) {}

    void silence(int ms, int amplitude) {
        for (int i = 0; i < ms * rate_ / 1000; ++i)
            pcm_.push_back(static_cast<short>(noise(amplitude)));
    }

    void speech(int ms, int amplitude, int noise_amplitude, int set) {
        static const int pitches[2][6] = {{420, 760, 1150, 1650, 2250, 3000},
                                          {330, 600, 950, 1400, 1950, 2600}};
        uint32_t phase = 0;
        for (int i = 0; i < ms * rate_ / 1000; ++i) {
            const uint64_t pitch = static_cast<uint64_t>(pitches[set][i * 1000 / rate_ / 30 % 6]);
            phase += static_cast<uint32_t>((pitch << 32) / static_cast<uint64_t>(rate_));
            int wave = std::abs(static_cast<int>(phase >> 16) - 32768) * 2 - 32768;
            wave += (std::abs(static_cast<int>(phase * 2 >> 16) - 32768) * 2 - 32768) >> 3;
            const int64_t value =
                ((static_cast<int64_t>(wave) * amplitude) >> 15) + noise(noise_amplitude);
            pcm_.push_back(static_cast<short>(std::clamp<int64_t>(value, -32768, 32767)));
        }
    }

    void wav(const std::string& path) {
        std::ifstream file(path, std::ios::binary);
        const std::string data((std::istreambuf_iterator<char>(file)),
                               std::istreambuf_iterator<char>());
        const size_t at = data.find("data");
        if (at == std::string::npos)
            return;
        uint32_t size = 0;
        std::memcpy(&size, &data[at + 4], 4);
        const size_t old = pcm_.size();
        pcm_.resize(old + std::min<size_t>(size, data.size() - at - 8) / 2);
        std::memcpy(&pcm_[old], &data[at + 8], (pcm_.size() - old) * 2);
    }

    void rewind() { position_ = 0; }
    int left() const { return static_cast<int>(pcm_.size() - position_); }

    std::vector<short> take(int n) {
        std::vector<short> out(static_cast<size_t>(n) + 1);  // never empty: its address counts
        for (int i = 0; i < n; ++i, ++position_)
            out[static_cast<size_t>(i)] = pcm_[position_ % pcm_.size()];
        return out;
    }

private:
    int noise(int amplitude) {
        seed_ = seed_ * 1664525U + 1013904223U;
        return static_cast<int>(((static_cast<int64_t>(seed_ >> 16) - 32768) * amplitude) >> 15);
    }

    int rate_;
    uint32_t seed_;
    size_t position_ = 0;
    std::vector<short> pcm_;
};

class Trace {
public:
    explicit Trace(std::string folder)
        : folder_(std::move(folder)), session_(new tz_dnnvad::CMFE) {}

    // The lines that one operation ("run 80 8000") prints.
    std::vector<std::string> operation(const std::string& text) {
        out_.clear();
        std::istringstream words(text);
        std::string name;
        words >> name;
        if (name == "set" || name == "get" || name == "init") {
            parameters(name, words);
        } else if (name == "wav") {
            words >> name;
            source_.wav(folder_ + "/" + name);
        } else {
            std::vector<int> n;
            for (int value = 0; words >> value;)
                n.push_back(value);
            const size_t given = n.size();
            n.resize(std::max<size_t>(given, 4));
            if (!signal(name, n) && !listing(name, n, given))
                call(name, n);
        }
        return out_;
    }

private:
    void print(const std::string& line) { out_.push_back(line); }

    void parameters(const std::string& name, std::istringstream& words) {
        tz_dnnvad::CMFE& s = *session_;
        std::string first, second;
        words >> first >> second;
        if (name == "set") {
            print(join(s.mfeSetParam(std::stoi(first), std::stof(second))));
        } else if (name == "get") {
            char value[32];
            std::snprintf(value, sizeof value, "%.9g",
                          static_cast<double>(s.mfeGetParam(std::stoi(first))));
            print(value);
        } else {
            const std::string model = folder_ + "/" + first, bleep = folder_ + "/" + second;
            const int rc = second.empty() ? s.mfeInit(model.c_str())
                                          : s.mfeInit_load_model(model.c_str(), bleep.c_str());
            if (s._m_p_dst_nn)
                std::memset(s._m_p_dst_nn, 0, sizeof(float) * static_cast<size_t>(s._m_n_nn_dim));
            if (s._m_p_frame_state) {
                std::memset(s._m_p_frame_state, 255, static_cast<size_t>(s._m_n_ring_frames));
            }
            print(join(rc, "|", s._m_n_sample_rate, s._m_n_frame_shift, s._m_n_buf_frames,
                       s._m_n_max_data_len, s._m_n_bleep_detect, "|", fields()));
        }
    }

    bool signal(const std::string& name, const std::vector<int>& n) {
        if (name == "source") {
            source_ = Source(n[0], static_cast<uint32_t>(n[1]));
        } else if (name == "silence") {
            source_.silence(n[0], n[1]);
        } else if (name == "speech") {
            source_.speech(n[0], n[1], n[2], n[3]);
        } else if (name == "rewind") {
            source_.rewind();
        } else if (name == "exact") {
            exact_ = true;
        } else if (name == "new") {
            session_ = std::make_unique<tz_dnnvad::CMFE>();
        } else {
            return false;
        }
        return true;
    }

    bool listing(const std::string& name, const std::vector<int>& n, size_t given) {
        if (name == "callback") {
            const std::string handed = handed_out(n[0]);
            print(handed + " | " + fields());
        } else if (name == "issil") {
            print(join(session_->mfeIsSil(n[0], n[1])));
        } else if (name == "convert") {
            print(join(session_->mfeGetFrame(n[0]), session_->mfeGetSamplespot(n[1])));
        } else if (name == "run") {
            run(n[0], n[1], given > 2 ? n[2] : -1);
        } else if (name == "states") {
            states();
        } else if (name == "scores") {
            print_scores();
        } else {
            return false;
        }
        return true;
    }

    void call(const std::string& name, const std::vector<int>& n) {
        tz_dnnvad::CMFE& s = *session_;
        int rc = -9999;
        if (name == "send")
            rc = s.mfeSendData(source_.take(n[0]).data(), n[0]);
        if (name == "sendnull")
            rc = s.mfeSendData(nullptr, n[0]);
        if (name == "end")
            rc = s.mfeSendData(nullptr, 0);
        if (name == "frame")
            rc = s.mfeVADOneFrame(source_.take(n[0]).data(), n[0], n[1], n[2] != 0);
        if (name == "pause")
            s.mfeAdjustPauseThreshold(n[0]), rc = 0;
        if (name == "detect")
            rc = s.mfeDNNDetect();
        if (name == "reset")
            rc = s.mfeReset();
        if (name == "exit")
            rc = s.mfeExit();
        if (name == "stop")
            rc = s.UserStop();
        print(join(rc, "|", fields()));
    }

    std::string fields() const {
        const tz_dnnvad::CMFE& s = *session_;
        std::string text = join(
            s._m_n_status, s._m_n_last_status, s._m_n_samples_in, s._m_n_samples_8k,
            s._m_n_samples_16k, s._m_n_decim_rest, "|", s._m_n_pass_first_frame,
            s._m_n_frames_avail, s._m_n_cur_frame, "|", s._m_n_last_speech, s._m_n_speech_start,
            s._m_n_onset_count, s._m_n_onset_frame, s._m_n_prev_last_speech, "|",
            s._m_n_max_speech_pause, s._m_n_max_wait, "|", s._m_n_out_begin, s._m_n_out_end,
            s._m_n_speech_end_sample, "|", s._m_n_speech_frames, s._m_n_sil_frames, "|",
            s._m_n_evad_active, s._m_n_evad_on_frame, "|", s._m_n_user_stop, s._m_b_data_end, "|");
        for (const auto& g : s._m_v_segments) {
            text += " " + std::to_string(g.start) + ":" + std::to_string(g.end) + ":" +
                    std::to_string(g.speech_start) + ":" + std::to_string(g.last_speech);
        }
        if (exact_ && s._m_p_dst_nn) {
            text += " nn=" +
                    hex(fnv(s._m_p_dst_nn, sizeof(float) * static_cast<size_t>(s._m_n_nn_dim)));
        }
        return text;
    }

    std::string handed_out(int capacity) {
        std::vector<char> pcm(static_cast<size_t>(std::max(capacity, 1)));
        int bytes = -1;
        session_->mfeGetCallbackData(pcm.data(), &bytes, capacity);
        return join("callback", bytes,
                    hex(fnv(pcm.data(), static_cast<size_t>(std::max(bytes, 0)))));
    }

    void run(int chunk, int total, int capacity) {
        tz_dnnvad::CMFE& s = *session_;
        uint32_t h = 0x811C9DC5U;
        std::string shown;
        if (total == 0)
            total = source_.left();
        for (int sent = 0; sent < total;) {
            const int n = std::min(chunk, total - sent);
            sent += n;
            const int rc = s.mfeSendData(source_.take(n).data(), n);
            const int result = s.mfeDNNDetect();
            scores_.push_back(score());
            std::string line = join(sent, rc, result, "|", fields());
            if (capacity >= 0)
                line += " " + handed_out(capacity);
            h = fnv(line.data(), line.size(), h);
            const std::string key =
                join(rc, result, s._m_n_status, s._m_v_segments.size(), s._m_n_evad_active);
            if (key != shown || sent == total)
                print(line + " #" + hex(h));
            shown = key;
        }
    }

    double score() const {
        const tz_dnnvad::WindowsDetector* detector = session_->_m_p_windows_detector;
        if (!detector)
            return 0;
        float sum = 1.0F;
        for (size_t k = 3; k < 9; ++k)
            sum += std::log(std::max(detector->_maxima[k], 0.0F));
        return static_cast<double>(std::exp(sum / 6.0F));
    }

    void states() {
        const tz_dnnvad::CMFE& s = *session_;
        std::string text;
        const int size = s._m_n_ring_frames;
        for (int f = std::max(0, s._m_n_frames_avail - size), count = 0; f < s._m_n_frames_avail;
             ++f) {
            ++count;
            const int state = s._m_p_frame_state[f % size];
            if (f + 1 == s._m_n_frames_avail || s._m_p_frame_state[(f + 1) % size] != state) {
                text +=
                    (text.empty() ? "" : " ") + std::to_string(state) + "*" + std::to_string(count);
                count = 0;
            }
        }
        print(text);
    }

    void print_scores() {
        std::string line;
        for (size_t i = 0; i < scores_.size(); ++i) {
            char value[32];
            std::snprintf(value, sizeof value, " %.6f", scores_[i]);
            line += value;
            if (i % 10 == 9 || i + 1 == scores_.size()) {
                print("~" + line);
                line.clear();
            }
        }
        scores_.clear();
    }

    std::string folder_;
    Source source_;
    std::unique_ptr<tz_dnnvad::CMFE> session_;
    std::vector<std::string> out_;
    std::vector<double> scores_;
    bool exact_ = false;
};

}  // namespace session_trace

#endif
