// JSON as the commands print it.
#ifndef DNNVAD_APP_JSON_TEXT_H
#define DNNVAD_APP_JSON_TEXT_H

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>

#include "listener.h"

// On one line, or indented. A file name need not be valid UTF-8: what is not becomes U+FFFD.
inline std::string json_text(const nlohmann::ordered_json& value, int indent = -1) {
    return value.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

// Seconds and decibels are printed to two decimals.
inline double hundredths(double value) { return std::round(value * 100) / 100; }

// An utterance as detect and live tell it. `cut`: the WAV file that it was written to, or "".
inline nlohmann::ordered_json utterance_json(const Utterance& u, const std::string& cut) {
    nlohmann::ordered_json out{{"start", hundredths(u.start)},
                               {"end", hundredths(u.end)},
                               {"first_speech", hundredths(u.speech_start)},
                               {"last_speech", hundredths(u.last_speech)},
                               {"duration", hundredths(u.end - u.start)},
                               {"decided", hundredths(u.decided)},
                               {"peak_dbfs", hundredths(u.peak)},
                               {"ended_by", u.reason},
                               {"under_minimum", u.under_minimum},
                               {"over_maximum", u.over_maximum}};
    if (!cut.empty()) {
        out["cut"] = cut;
    }
    return out;
}

#endif
