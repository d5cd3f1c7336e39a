#include "labels.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "program.h"

namespace fs = std::filesystem;

namespace {

constexpr char kBlanks[] = " \t\r\n";

Failure broken(const std::string& path, int line, const char* why) {
    return {format("%s:%d", path.c_str(), line), why};
}

// Praat writes UTF-16 when a label needs it: characters other than ASCII become '?'.
std::string read_text(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open() || (file.peek(), file.bad())) {
        throw Failure(path, "cannot be read");
    }
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    const std::string mark = bytes.substr(0, 2);
    const std::size_t low = mark == "\xFE\xFF" ? 1 : 0;  // which byte of two
    if (low == 0 && mark != "\xFF\xFE") {
        return bytes.compare(0, 3, "\xEF\xBB\xBF") == 0 ? bytes.substr(3) : bytes;
    }
    std::string text;
    for (std::size_t k = 2; k + 1 < bytes.size(); k += 2) {
        const auto c = static_cast<unsigned char>(bytes[k + low]);
        text += bytes[k + 1 - low] == 0 && c < 0x80 ? static_cast<char>(c) : '?';
    }
    return text;
}

bool parse_number(const std::string& text, double& value) {
    char* end = nullptr;
    value = std::strtod(text.c_str(), &end);
    return !text.empty() && end == text.c_str() + text.size();
}

// A label without the blanks around it, in lower case; "" for those that mean silence.
std::string plain(std::string label) {
    label.erase(0, label.find_first_not_of(kBlanks));
    label.erase(label.find_last_not_of(kBlanks) + 1);
    std::transform(label.begin(), label.end(), label.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return label == "sil" || label == "silence" ? "" : label;
}

Interval checked(double from, double to, const std::string& path, int line) {
    constexpr double kSteps = 1e6;  // a second: start + length then ends where the same end would
    const Interval rounded{std::round(from * kSteps) / kSteps, std::round(to * kSteps) / kSteps};
    if (!std::isfinite(rounded.from) || !std::isfinite(rounded.to)) {
        throw broken(path, line, "a time is not finite");
    }
    if (from < 0 || to < from) {
        throw broken(path, line,
                     from < 0 ? "begins before the recording" : "ends before it begins");
    }
    return rounded;
}

// Of a TextGrid only free-standing numbers and quoted texts count, in both formats: all else ("xmin =",
// "intervals [1]:", "<exists>", what follows a "!") is for people.
struct Token {
    std::string text;  // quotes within it doubled
    double value;
    bool quoted;
    int line;
};

std::vector<Token> tokens_of(const std::string& path) {
    const std::string all = read_text(path);
    std::vector<Token> tokens;
    int line = 1;
    for (std::size_t at = 0, end = 0, counted = 0;
         (at = all.find_first_not_of(kBlanks, end)) < all.size(); counted = at) {
        line += static_cast<int>(std::count(&all[counted], &all[at], '\n'));
        double value = 0;
        if (all[at] == '"') {
            end = all.find('"', at + 1);
            while (end < all.size() - 1 && all[end + 1] == '"') {
                end = all.find('"', end + 2);
            }
            if (end++ == std::string::npos) {
                throw broken(path, line, "a text does not end");
            }
            tokens.push_back({all.substr(at + 1, end - at - 2), 0, true, line});
        } else {
            end = std::min(all.size(), all.find_first_of(all[at] == '!' ? "\n" : kBlanks, at));
            if (parse_number(all.substr(at, end - at), value)) {
                tokens.push_back({"", value, false, line});
            }
        }
    }
    return tokens;
}

// Each reader appends speech and returns how many labels it saw, those of silence included.
std::size_t read_textgrid(const std::string& path, std::vector<Interval>& speech) {
    const std::vector<Token> tokens = tokens_of(path);
    std::size_t next = 0;
    const auto take = [&](bool quoted) -> const Token& {
        if (next >= tokens.size()) {
            throw Failure(path, "is no TextGrid in a text format, or ends too early");
        }
        const Token& token = tokens[next++];
        if (token.quoted != quoted) {
            throw broken(path, token.line, quoted ? "a text is missing" : "a number is missing");
        }
        return token;
    };
    if (take(true).text.compare(0, 10, "ooTextFile") != 0 || take(true).text != "TextGrid") {
        throw broken(path, 1, "is no TextGrid");
    }
    const auto count_of = [&] {  // more than there are tokens is too many in any case
        const double value = take(false).value;
        return value > 0 ? static_cast<std::size_t>(std::min(value, 1e9)) : 0;
    };
    next += 2;  // the whole recording
    std::size_t seen = 0;
    for (std::size_t tiers = count_of(); tiers > 0; --tiers) {
        const bool intervals = take(true).text == "IntervalTier";
        const bool named = plain(take(true).text) == "speech";
        next += 2;
        const std::size_t count = count_of();
        std::vector<Interval> found;
        double covered = 0;
        for (std::size_t k = 0; k < count; ++k) {
            const Token& from = take(false);
            const Interval interval =
                checked(from.value, intervals ? take(false).value : from.value, path, from.line);
            if (interval.from < covered - 1e-3) {
                throw broken(path, from.line, "begins before the one before it ends");
            }
            covered = interval.to;
            if (!plain(take(true).text).empty()) {
                found.push_back(interval);
            }
        }
        if (intervals && count > 0 && (named || seen == 0)) {
            seen = count;
            speech = found;
            if (named) {
                break;
            }
        }
    }
    return seen;
}

std::size_t read_lines(const std::string& path, const std::string& stem, bool rttm,
                       std::vector<Interval>& speech) {
    std::string name = stem;
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return std::isspace(c); }, '_');
    std::istringstream lines(read_text(path));
    std::size_t seen = 0;
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        std::istringstream fields(line);
        std::string first, recording = name, from, to, text;
        if (!(fields >> first) ||
            (rttm ? first != "SPEAKER" : first[0] == '\\' || first[0] == '#')) {
            continue;
        }
        rttm ? fields >> recording >> text >> from >> to : (from = first, fields >> to);
        std::getline(fields, text);
        double start = 0, end = 0;
        if (!parse_number(from, start) || !parse_number(to, end)) {
            throw broken(path, number, rttm ? "has no start and length" : "has no start and end");
        }
        const Interval interval = checked(start, rttm ? start + end : end, path, number);
        if (recording == name && interval.to > interval.from) {
            ++seen;
            const bool unnamed = text.find_first_not_of(kBlanks) == std::string::npos;
            if (unnamed || !plain(text).empty()) {
                speech.push_back(interval);
            }
        }
    }
    return seen;
}

std::vector<Interval> find_labels(const fs::path& folder, const std::string& stem) {
    std::vector<Interval> speech;
    for (const std::string extension : {".TextGrid", ".txt", ".rttm"}) {
        const std::string path = (folder / (stem + extension)).string();
        if (!fs::exists(path)) {
            continue;
        }
        if ((extension == ".TextGrid"
                 ? read_textgrid(path, speech)
                 : read_lines(path, stem, extension == ".rttm", speech)) == 0) {
            throw Failure(path, "holds no label of " + stem);
        }
        return speech;
    }
    std::error_code error;
    std::vector<std::string> shared;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().extension() == ".rttm") {
            shared.push_back(entry.path().string());
        }
    }
    std::sort(shared.begin(), shared.end());
    for (const std::string& path : shared) {
        if (read_lines(path, stem, true, speech) > 0) {
            return speech;
        }
    }
    throw Failure(
        (folder / stem).string(),
        error ? error.message() : "no .TextGrid, .txt or .rttm file labels this recording");
}

}  // namespace

std::vector<Interval> read_labels(const std::string& folder, const std::string& stem, double join) {
    constexpr double kExact = 1e-9;  // seconds: what rounding makes of a gap
    std::vector<Interval> speech = find_labels(folder, stem), joined;
    std::sort(speech.begin(), speech.end(), [](Interval a, Interval b) { return a.from < b.from; });
    for (const Interval interval : speech) {
        if (!joined.empty() && interval.from - joined.back().to < std::max(join - kExact, kExact)) {
            joined.back().to = std::max(joined.back().to, interval.to);
        } else {
            joined.push_back(interval);
        }
    }
    return joined;
}
