// What detected utterances are worth beside the reference utterances of somebody's labels.
//
// The two belong together when the detected speech, from its first to its last frame and without
// margins, overlaps the reference.
#ifndef DNNVAD_APP_SCORING_H
#define DNNVAD_APP_SCORING_H

#include <array>
#include <vector>

#include "labels.h"
#include "listener.h"

enum Count { kUtterances, kMissed, kFalseStarts, kClipped, kCutOff, kMerged, kQuiet, kCounts };

// What was counted in a recording, or in several.
struct Tally {
    std::array<double, kCounts> counts{};  // kQuiet: seconds outside the reference utterances
    std::vector<double> delays;            // seconds
    void add(const Tally& other);
};

// A recording that is `seconds` long; both lists are in order.
Tally compare(const std::vector<Interval>& references, double seconds,
              const std::vector<Utterance>& heard);

struct Measure {
    const char *name, *unit;
    double limit;  // up to which it is good enough, unless the user says otherwise
    const char* meaning;
    double (*value)(const Tally&);  // no number (NaN) where there is nothing to measure
};
constexpr std::size_t kMeasureCount = 7;
extern const std::array<Measure, kMeasureCount> kMeasures;

#endif
