#include "scoring.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string>

namespace {

constexpr double kLateStart = 0.02;  // seconds: more of the onset lost is clipped
constexpr double kEarlyEnd = 0.1;    // seconds: more of the end lost is cut off

bool overlap(const Utterance& u, const Interval& reference) {
    return u.speech_start < reference.to && u.last_speech + kFrameSeconds > reference.from;
}

double of_found(const Tally& t, Count what) {
    return 100 * t.counts[what] / (t.counts[kUtterances] - t.counts[kMissed]);
}

double delay(const Tally& t, double share) {  // ms, nearest rank
    std::vector<double> sorted = t.delays;
    std::sort(sorted.begin(), sorted.end());
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(sorted.size())));
    return sorted.empty() ? NAN : 1000 * sorted[rank - 1];
}

}  // namespace

const std::array<Measure, kMeasureCount> kMeasures{{
    {"missed", "%", 1, "Reference utterances that overlap no detected one",
     [](const Tally& t) { return 100 * t.counts[kMissed] / t.counts[kUtterances]; }},
    {"false-starts", "/h", 60,
     "Detected utterances that overlap no reference, for an\n"
     "hour of audio outside the references",
     [](const Tally& t) { return 3600 * t.counts[kFalseStarts] / t.counts[kQuiet]; }},
    {"clipped", "%", 2,
     "Found utterances of which the audio handed out, margin\n"
     "included, begins more than 20 ms after the onset",
     [](const Tally& t) { return of_found(t, kClipped); }},
    {"cutoffs", "%", 2,
     "Found utterances that go on for more than 100 ms after an\n"
     "end was decided, or after the audio handed out",
     [](const Tally& t) { return of_found(t, kCutOff); }},
    {"merged", "%", INFINITY,
     "Found utterances whose end was not decided before the next\n"
     "one",
     [](const Tally& t) { return of_found(t, kMerged); }},
    {"delay", "ms", INFINITY,
     "Median time from an utterance's end to the decision, by pause\n"
     "or time-out, that it has ended; without merged utterances\nand ends decided over 100 ms "
     "early",
     [](const Tally& t) { return delay(t, 0.5); }},
    {"delay95", "ms", INFINITY, "95th percentile of that (both by nearest rank)",
     [](const Tally& t) { return delay(t, 0.95); }},
}};

void Tally::add(const Tally& other) {
    std::transform(counts.begin(), counts.end(), other.counts.begin(), counts.begin(),
                   std::plus<>());
    delays.insert(delays.end(), other.delays.begin(), other.delays.end());
}

Tally compare(const std::vector<Interval>& references, double seconds,
              const std::vector<Utterance>& heard) {
    Tally t;
    t.counts[kQuiet] = seconds;
    for (auto r = references.begin(); r != references.end(); ++r) {
        const Utterance *first = nullptr, *last = nullptr;
        bool cut = false;
        for (const Utterance& u : heard) {
            if (overlap(u, *r)) {
                first = first == nullptr ? &u : first;
                last = &u;
                cut = cut || std::min(u.decided, u.end) < r->to - kEarlyEnd;
            }
        }
        ++t.counts[kUtterances];
        t.counts[kQuiet] -= r->to - r->from;
        if (first == nullptr) {
            ++t.counts[kMissed];
            continue;
        }
        t.counts[kClipped] += first->start > r->from + kLateStart;
        t.counts[kCutOff] += cut;
        if (r + 1 != references.end() && overlap(*last, *(r + 1))) {
            ++t.counts[kMerged];
        } else if (last->decided >= r->to - kEarlyEnd &&
                   last->reason != std::string("end of input")) {
            t.delays.push_back(last->decided - r->to);
        }
    }
    for (const Utterance& u : heard) {
        t.counts[kFalseStarts] += std::none_of(references.begin(), references.end(),
                                               [&u](const Interval& r) { return overlap(u, r); });
    }
    return t;
}
