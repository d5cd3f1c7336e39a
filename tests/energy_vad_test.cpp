#include "dnnvad/evad.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <deque>
#include <new>
#include <random>
#include <utility>
#include <vector>

namespace {

using tz_evad::Vad;
using Samples = std::vector<short>;

constexpr int kSpeechToSpeech = 0;
constexpr int kSpeechToSilence = 1;
constexpr int kSilence = 2;
constexpr int kSilenceToSpeech = 3;
constexpr int kInvalid = 5;

// A frame whose samples all have the magnitude `level`, with both signs.
Samples frame(int level, int length = 80) {
    Samples samples;
    for (int i = 0; i < length; ++i) {
        samples.push_back(static_cast<short>(i % 2 != 0 ? -level : level));
    }
    return samples;
}

int feed(Vad& vad, const Samples& samples) {
    return vad.evad_process_one_frame(samples.data(), static_cast<int>(samples.size()));
}

void train(Vad& vad, int level) {
    for (int i = 0; i < vad.noise_frames; ++i) {
        ASSERT_EQ(feed(vad, frame(level)), kSilence);
    }
}

Samples take(Vad& vad, int wanted) {
    Samples samples(static_cast<std::size_t>(wanted));
    samples.resize(static_cast<std::size_t>(vad.vad_get_data(samples.data(), wanted)));
    return samples;
}

TEST(EnergyVad, TrainingAbsorbsWhateverComesFirst) {
    Vad vad;
    vad.init(1024);
    EXPECT_EQ(vad.hist_size, 21504);
    EXPECT_EQ(vad.out_size, 43008);
    EXPECT_EQ(feed(vad, Samples(80, -32768)), kSilence);
    for (int i = 1; i < 10; ++i) {
        EXPECT_EQ(feed(vad, {1, -2, 2, -2}), kSilence);  // mean 7/4, truncated
    }
    EXPECT_EQ(vad.noise_level, (32768 + 9) / 10 + 1);
    EXPECT_EQ(vad.hist_count, 0);
    vad.free();
    train(vad, 0);
    EXPECT_EQ(vad.noise_level, 1);  // digital silence
    EXPECT_EQ(feed(vad, frame(1)), kSilence);
    EXPECT_EQ(feed(vad, frame(2)), kSilenceToSpeech);
}

// Level 101: speech starts from 121.2 on and ends below 116.15.
TEST(EnergyVad, StartAndEndThresholdsAndRuns) {
    Vad vad;
    vad.init(3, 4, 20, 1024);
    train(vad, 100);
    for (const int level : {122, 122, 121, 122, 122}) {
        EXPECT_EQ(feed(vad, frame(level)), kSilence);
    }
    EXPECT_EQ(feed(vad, frame(122)), kSilenceToSpeech);
    for (const int level : {116, 116, 116, 117, 116, 116, 116}) {
        EXPECT_EQ(feed(vad, frame(level)), kSpeechToSpeech);
    }
    EXPECT_EQ(feed(vad, frame(116)), kSpeechToSilence);
    EXPECT_EQ(feed(vad, frame(116)), kSilence);
    vad.start_frames = 0;  // never
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(feed(vad, frame(1000)), kSilence);
    }
}

// The detector in plain terms, with start_frames 2, end_frames 3, pre_frames 4 and a level of 101.
struct Model {
    std::deque<Samples> history;
    std::deque<short> waiting;
    bool speech = false;
    int run = 0;

    int next(const Samples& now) {
        int total = 0;
        for (const short sample : now) {
            total += std::abs(static_cast<int>(sample));
        }
        const int mean = now.empty() ? 0 : total / static_cast<int>(now.size());
        if (speech) {
            waiting.insert(waiting.end(), now.begin(), now.end());
            run = mean <= 116 ? run + 1 : 0;
            if (run < 3) {
                return kSpeechToSpeech;
            }
            speech = false;
            run = 0;
            return kSpeechToSilence;
        }
        history.push_back(now);
        if (history.size() > 2 + 4) {
            history.pop_front();
        }
        run = mean >= 122 ? run + 1 : 0;
        if (run < 2) {
            return kSilence;
        }
        for (const Samples& part : history) {
            waiting.insert(waiting.end(), part.begin(), part.end());
        }
        history.clear();
        speech = true;
        run = 0;
        return kSilenceToSpeech;
    }

    Samples take(int wanted) {
        const auto end =
            waiting.begin() + std::min<std::ptrdiff_t>(wanted, waiting.end() - waiting.begin());
        const Samples taken(waiting.begin(), end);
        waiting.erase(waiting.begin(), end);
        return taken;
    }
};

TEST(EnergyVad, DeliversWhatAModelDelivers) {
    std::mt19937 random(7);
    const auto pick = [&](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    Vad vad;
    vad.init(2, 3, 4, 5, 16);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(feed(vad, frame(100, 16)), kSilence);
    }
    Model model;
    int starts = 0;
    for (int i = 0; i < 20000; ++i) {
        // Near the thresholds, now a little above and now a little below.
        const int level = pick(0, 1) * 20 + (i / 15 % 2 != 0 ? 115 : 100);
        Samples now(1);  // an empty frame still has an address
        now.clear();
        for (int k = pick(0, 13); k > 0; --k) {
            now.push_back(static_cast<short>((level + pick(-9, 9)) * (pick(0, 1) * 2 - 1)));
        }
        const int expected = model.next(now);
        starts += expected == kSilenceToSpeech;
        int count = -1;
        ASSERT_EQ(vad.vad_detect(now.data(), static_cast<int>(now.size()), count), 0);
        ASSERT_EQ(vad.state, expected) << "frame " << i;
        ASSERT_EQ(count, static_cast<int>(model.waiting.size())) << "frame " << i;
        const int wanted = count > 90 ? count + pick(0, 5) : pick(0, 20);
        ASSERT_EQ(take(vad, wanted), model.take(wanted)) << "frame " << i;
    }
    EXPECT_GT(starts, 100);
    EXPECT_EQ(vad.hist_size, 96);  // no ring had to grow
    EXPECT_EQ(vad.out_size, 192);
}

TEST(EnergyVad, AGrownHistoryKeepsIndicesAndGivesZerosForTheGap) {
    Vad vad;
    vad.init(1, 2, 1, 1, 4);
    ASSERT_EQ(feed(vad, frame(1000, 4)), kSilence);
    // Lengths 3 3 2 3 leave the last two frames in indices 6 7 | 0 1 2 of 8.
    for (const Samples& quiet :
         {Samples{1, 2, 3}, Samples{4, 5, 6}, Samples{7, 8}, Samples{9, 10, 11}}) {
        ASSERT_EQ(feed(vad, quiet), kSilence);
    }
    ASSERT_EQ(vad.hist_size, 8);
    ASSERT_EQ(vad.hist_head, 6);
    ASSERT_EQ(feed(vad, frame(5000, 4)), kSilenceToSpeech);
    EXPECT_EQ(vad.hist_size, 16);
    EXPECT_EQ(take(vad, 100), (Samples{0, 0, 0, 5000, -5000, 5000, -5000}));
}

TEST(EnergyVad, AnUnreadOutputRingGrowsByTheHistory) {
    for (const int pre : {1, -1}) {  // -1: a history of no frames
        Vad vad;
        vad.init(1, 2, pre, 0, 4);
        Samples all;
        for (int i = 0; i < 10; ++i) {
            const Samples now = frame(100 + i, 4);
            ASSERT_EQ(feed(vad, now), i == 0 ? kSilenceToSpeech : kSpeechToSpeech);
            if (i > 0 || pre == 1) {
                all.insert(all.end(), now.begin(), now.end());
            }
        }
        vad.free();  // a grown ring stays grown
        EXPECT_EQ(vad.out_size, pre == 1 ? 16 + 3 * 8 : 36);
        EXPECT_EQ(Samples(vad.out_buf, vad.out_buf + all.size()), all);
    }
}

TEST(EnergyVad, FailuresChangeNothingElse) {
    Vad vad;
    vad.init(1, 2, 1, 0, 80);
    ASSERT_EQ(feed(vad, frame(100)), kSilenceToSpeech);
    const Samples longer = frame(0, 81);
    const auto fails = [&](const short* samples, int error) {
        int waiting = 9;
        EXPECT_EQ(vad.vad_detect(samples, 81, waiting), error);
        EXPECT_EQ(waiting, 0);
        EXPECT_EQ(vad.evad_process_one_frame(samples, 81), kInvalid);
        EXPECT_EQ(take(vad, 80), Samples());
        EXPECT_EQ(vad.frame_count, 1);
        EXPECT_EQ(vad.out_count, 80);
        EXPECT_EQ(vad.state, kSilenceToSpeech);
    };
    fails(nullptr, -1);
    fails(longer.data(), -2);
    EXPECT_EQ(vad.vad_get_data(nullptr, -1), -1);
    vad.exit();
    vad.exit();
    vad.data_ready = true;
    EXPECT_EQ(take(vad, 80), Samples());
    vad.max_frame_len = 90;
    fails(longer.data(), -3);
    vad.free();
    EXPECT_EQ(vad.out_size, 2 * 2 * 90);
    EXPECT_EQ(feed(vad, longer), kSilenceToSpeech);
    EXPECT_EQ(take(vad, 1000), longer);
    EXPECT_EQ(take(vad, 1000), Samples());
}

TEST(EnergyVad, WorksWithItsDefaults) {
    Vad vad;
    int waiting = 0;
    EXPECT_EQ(vad.vad_detect(frame(0, 256).data(), 256, waiting), -3);
    EXPECT_EQ(vad.vad_detect(frame(0, 257).data(), 257, waiting), -2);
    vad.free();
    EXPECT_EQ(vad.hist_size, (1 + 20) * 256);
    EXPECT_EQ(vad.out_size, 2 * (1 + 20) * 256);
    train(vad, 100);
    EXPECT_EQ(vad.frame_count, 10);
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(feed(vad, frame(100)), kSilence);
    }
    EXPECT_EQ(feed(vad, frame(122)), kSilenceToSpeech);
    EXPECT_EQ(vad.out_count, (1 + 20) * 80);
    for (int i = 1; i < 20; ++i) {
        EXPECT_EQ(feed(vad, frame(100)), kSpeechToSpeech);
    }
    EXPECT_EQ(feed(vad, frame(100)), kSpeechToSilence);
}

TEST(EnergyVad, SizesThatCannotBeAreRefused) {
    Vad vad;
    EXPECT_THROW(vad.init(-1), std::bad_array_new_length);
    EXPECT_THROW(vad.init(80, -2), std::bad_array_new_length);
    EXPECT_THROW(vad.init(INT_MAX), std::bad_array_new_length);
    EXPECT_THROW(vad.init(INT_MIN, 1, INT_MIN, INT_MIN), std::bad_array_new_length);
    EXPECT_EQ(feed(vad, frame(0)), kInvalid);
}

// Nothing here is sensible use; none of it may leave a ring (the sanitizers watch).
TEST(EnergyVad, StaysInsideItsRings) {
    std::mt19937 random(3);
    const auto pick = [&](int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(random);
    };
    const Samples samples = frame(1000, 4096);
    Samples out(4096);
    const auto misuse = [&](Vad& vad) {
        switch (pick(0, 19)) {
            case 0:
                vad.init(pick(0, 2) * 40);
                break;
            case 1:
                vad.init(pick(0, 3), pick(0, 3), pick(0, 5), pick(0, 3), pick(0, 100));
                break;
            case 2:
                vad.pre_frames = pick(-9, 40);
                break;
            case 3:
                vad.max_frame_len = pick(0, 4096);
                break;
            case 4:
                vad.hist_head = vad.len_head = vad.out_head = pick(INT_MIN, INT_MAX);
                break;
            case 5:
                vad.frame_count = pick(0, 1) * INT_MAX;
                break;
            case 6:
                vad.exit();
                break;
            case 7:
                vad.free();
                break;
            default:
                break;
        }
    };
    int detected = 0;
    for (int round = 0; round < 300; ++round) {
        Vad vad;
        for (int i = 0; i < 60; ++i) {
            try {
                misuse(vad);
            } catch (const std::bad_array_new_length&) {
                EXPECT_EQ(vad.evad_process_one_frame(samples.data(), 1), kInvalid);
            }
            const int n = pick(0, 9) == 0 ? -pick(0, INT_MAX) : pick(0, 200);
            detected += vad.evad_process_one_frame(samples.data(), n) == kSpeechToSpeech;
            EXPECT_LE(vad.vad_get_data(out.data(), 4096), 4096);
        }
    }
    EXPECT_GT(detected, 100);
}

}  // namespace
