#include "dnnvad/evad.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "dnnvad/constants.h"
#include "dnnvad/ring.h"

namespace tz_evad {
namespace {

namespace ring = tz_dnnvad::ring;

// Entering speech takes more than leaving it, so that a level in between does not flutter.
constexpr double kStartFactor = 1.2;
constexpr double kEndFactor = 1.15;

long long sum(int x, int y) { return static_cast<long long>(x) + y; }

// A sum as a 32-bit register holds it: absurd settings wrap around instead of being undefined.
int wrapped_sum(int x, int y) {
    return static_cast<int>(static_cast<std::uint32_t>(x) + static_cast<std::uint32_t>(y));
}

// Mean of |sample|, truncated; 0 without samples.
int mean_amplitude(const short* samples, int n) {
    if (n <= 0) {
        return 0;
    }
    std::uint32_t total = 0;
    for (int i = 0; i < n; ++i) {
        total += static_cast<std::uint32_t>(std::abs(static_cast<int>(samples[i])));
    }
    return static_cast<int>(total) / n;
}

template <typename T>
std::unique_ptr<T[]> make_ring(long long size) {
    if (size < 0 || size > INT_MAX) {
        throw std::bad_array_new_length();
    }
    return std::make_unique<T[]>(static_cast<std::size_t>(size));
}

template <typename T>
void release(T*& buffer) {
    delete[] buffer;
    buffer = nullptr;
}

// Replaces a ring by a zeroed one; a failure leaves no ring.
template <typename T>
void renew(T*& buffer, int& size, long long new_size) {
    release(buffer);
    buffer = make_ring<T>(new_size).release();
    size = static_cast<int>(new_size);
}

// Enlarges a sample ring. Samples stay at their indices and the head where it is, so a ring that has
// wrapped comes out reordered, with zeros in the gap. Kept: it decides what audio hosts are given.
void grow(short*& buffer, int& size, long long new_size) {
    auto larger = make_ring<short>(new_size);
    std::copy_n(buffer, size, larger.get());
    delete[] buffer;
    buffer = larger.release();
    size = static_cast<int>(new_size);
}

long long history_frames(const Vad& vad) { return sum(vad.start_frames, vad.pre_frames); }

long long history_samples(const Vad& vad) {
    const long long frames = history_frames(vad);
    if (frames < 0 || frames > INT_MAX) {
        throw std::bad_array_new_length();
    }
    return frames * vad.max_frame_len;
}

void renew_output(Vad& vad) {
    release(vad.out_buf);
    const long long samples = history_samples(vad);
    renew(vad.out_buf, vad.out_size, 2 * samples);
}

void renew_history(Vad& vad) {
    release(vad.hist_buf);
    renew(vad.hist_buf, vad.hist_size, history_samples(vad));
}

void renew_lengths(Vad& vad) { renew(vad.len_buf, vad.len_size, history_frames(vad)); }

int renew_rings(Vad& vad) {
    renew_output(vad);
    renew_history(vad);
    renew_lengths(vad);
    return 0;
}

// Room for `count` more samples in the output ring: one step of the history's size, whatever was
// asked for. Without a history (no frames kept) it grows to what it needs.
void reserve_output(Vad& vad, int count) {
    const long long needed = sum(vad.out_count, count);
    if (needed > vad.out_size) {
        const bool stepwise = vad.hist_size > 0;
        grow(vad.out_buf, vad.out_size, stepwise ? sum(vad.out_size, vad.hist_size) : needed);
    }
}

// Adds the frame to the history and lets the oldest frame go when as many are held as are kept.
void remember(Vad& vad, const short* samples, int n) {
    const int kept = static_cast<int>(std::clamp<long long>(history_frames(vad), 0, vad.len_size));
    if (kept == 0) {
        return;
    }
    const long long needed = sum(vad.hist_count, n);
    if (needed > vad.hist_size) {
        const long long twice = 2LL * vad.hist_size;
        grow(vad.hist_buf, vad.hist_size, twice > 0 ? twice : needed);
    }
    ring::write(samples, n, vad.hist_buf, vad.hist_size, sum(vad.hist_head, vad.hist_count));

    if (vad.len_count < kept) {
        const long long end = sum(vad.len_head, vad.len_count);
        vad.len_buf[ring::index(end, kept)] = n;
        ++vad.len_count;
    } else {
        int& slot = vad.len_buf[ring::index(vad.len_head, vad.len_size)];
        const int oldest = std::max(slot, -INT_MAX);
        slot = n;
        vad.hist_count = wrapped_sum(vad.hist_count, -oldest);
        const long long head = sum(vad.hist_head, oldest);
        vad.hist_head = vad.hist_size > 0 ? ring::index(head, vad.hist_size) : 0;
        vad.len_head = ring::index(sum(vad.len_head, 1), kept);
    }
    vad.hist_count = wrapped_sum(vad.hist_count, n);
}

// Moves the history, oldest sample first, behind the samples that wait in the output ring.
void deliver_history(Vad& vad) {
    reserve_output(vad, vad.hist_count);
    const long long end = sum(vad.out_head, vad.out_count);
    ring::for_each_run(
        vad.hist_head, vad.hist_count, vad.hist_size, [&](int offset, int at, int run) {
            ring::write(vad.hist_buf + at, run, vad.out_buf, vad.out_size, end + offset);
        });
    vad.out_count = wrapped_sum(vad.out_count, vad.hist_count);
    vad.hist_count = 0;
    vad.len_count = 0;
}

void train(Vad& vad, int mean) {
    vad.noise_level = wrapped_sum(vad.noise_level, mean);
    ++vad.frame_count;
    if (vad.frame_count == vad.noise_frames && vad.frame_count != 0) {
        // One more than the mean: digital silence must not make every later frame loud.
        const double average = static_cast<double>(vad.noise_level) / vad.frame_count;
        vad.noise_level = wrapped_sum(static_cast<int>(average), 1);
    }
}

// Starts and ends are found by equality, so a setting of 0 or less means never.
void process_silence(Vad& vad, const short* samples, int n, int mean) {
    remember(vad, samples, n);
    vad.state = tz_dnnvad::kSil2Sil;
    if (mean < vad.noise_level * kStartFactor) {
        vad.start_count = 0;
        return;
    }
    vad.start_count = wrapped_sum(vad.start_count, 1);
    if (vad.start_count == vad.start_frames) {
        deliver_history(vad);
        vad.start_count = 0;
        vad.in_speech = true;
        vad.state = tz_dnnvad::kSil2Speech;
    }
}

void process_speech(Vad& vad, const short* samples, int n, int mean) {
    reserve_output(vad, n);
    ring::write(samples, n, vad.out_buf, vad.out_size, sum(vad.out_head, vad.out_count));
    vad.out_count = wrapped_sum(vad.out_count, n);
    vad.state = tz_dnnvad::kSpeech2Speech;
    if (mean >= vad.noise_level * kEndFactor) {
        vad.end_count = 0;
        return;
    }
    vad.end_count = wrapped_sum(vad.end_count, 1);
    if (vad.end_count == vad.end_frames) {
        vad.end_count = 0;
        vad.in_speech = false;
        vad.state = tz_dnnvad::kSpeech2Sil;
    }
}

}  // namespace

Vad::Vad() = default;

Vad::~Vad() { exit(); }

int Vad::init(int frame_len) {
    max_frame_len = frame_len;
    return renew_rings(*this);
}

int Vad::init(int frame_len, int pre) {
    max_frame_len = frame_len;
    pre_frames = pre;
    return renew_rings(*this);
}

int Vad::init(int start, int end, int pre, int frame_len) {
    start_frames = start;
    end_frames = end;
    pre_frames = pre;
    max_frame_len = frame_len;
    return renew_rings(*this);
}

int Vad::init(int start, int end, int pre, int noise, int frame_len) {
    noise_frames = noise;
    return init(start, end, pre, frame_len);
}

int Vad::vad_detect(const short* samples, int n, int& out) {
    const bool have_rings = out_buf != nullptr && hist_buf != nullptr && len_buf != nullptr;
    const int error = samples == nullptr ? -1 : n > max_frame_len ? -2 : !have_rings ? -3 : 0;
    data_ready = error == 0;
    if (error != 0) {
        out = 0;
        return error;
    }

    const int mean = mean_amplitude(samples, n);
    if (frame_count < noise_frames) {
        train(*this, mean);
        out = 0;
        return 0;
    }
    const int length = std::max(n, -std::max(max_frame_len, 0));
    if (in_speech) {
        process_speech(*this, samples, length, mean);
    } else {
        process_silence(*this, samples, length, mean);
    }
    out = out_count;
    if (frame_count < INT_MAX) {
        ++frame_count;
    }
    return 0;
}

int Vad::evad_process_one_frame(const short* samples, int n) {
    int waiting = 0;
    return vad_detect(samples, n, waiting) == 0 ? state : tz_dnnvad::kInvalid;
}

int Vad::vad_get_data(short* destination, int n) {
    if (n < 0) {
        return -1;
    }
    if (!data_ready || out_buf == nullptr || destination == nullptr) {
        return 0;
    }
    const int moved = std::clamp(out_count, 0, n);
    ring::read(out_buf, out_size, out_head, moved, destination);
    if (n < out_count) {
        out_count -= moved;
        out_head = out_size > 0 ? ring::index(sum(out_head, moved), out_size) : 0;
    } else {
        out_count = 0;  // the head stays: with nothing waiting its place does not matter
    }
    return moved;
}

int Vad::free() {
    frame_count = 0;
    noise_level = 0;
    start_count = 0;
    end_count = 0;
    in_speech = false;
    out_head = 0;
    out_count = 0;
    hist_head = 0;
    hist_count = 0;
    len_head = 0;
    len_count = 0;
    state = tz_dnnvad::kSil2Sil;
    if (hist_buf == nullptr) {
        renew_history(*this);
    }
    if (out_buf == nullptr) {
        renew_output(*this);
    }
    if (len_buf == nullptr) {
        renew_lengths(*this);
    }
    return 0;
}

void Vad::exit() {
    release(out_buf);
    release(len_buf);
    release(hist_buf);
}

}  // namespace tz_evad
