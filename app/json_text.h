// JSON as the commands print it.
#ifndef DNNVAD_APP_JSON_TEXT_H
#define DNNVAD_APP_JSON_TEXT_H

#include <cmath>
#include <nlohmann/json.hpp>
#include <string>

// On one line, or indented. A file name need not be valid UTF-8: what is not becomes U+FFFD.
inline std::string json_text(const nlohmann::ordered_json& value, int indent = -1) {
    return value.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

// Seconds and decibels are printed to two decimals.
inline double hundredths(double value) { return std::round(value * 100) / 100; }

#endif
