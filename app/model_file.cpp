#include "model_file.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

#include "program.h"

using nlohmann::ordered_json;

namespace {

constexpr int kNarrowFeatures = 26, kWideFeatures = 40, kClasses = 9;
constexpr int kRows = 15, kNarrowBins = 128, kWideBins = 256, kLow = 5;  // of a template
constexpr double kBinHertz = 31.25;
constexpr long long kMaxInt = std::numeric_limits<int>::max();
// Parameters that the library counts and, as floats, the processor can address.
constexpr long long kMostParameters = std::min<long long>(kMaxInt, PTRDIFF_MAX / 4);
constexpr int kMostClaimed = 1 << 16;  // features, layers, and missing parameters that it takes
constexpr std::size_t kDoubts = 5;     // numbers that are none are not told without end

class File {
public:
    explicit File(const std::string& path, const char* kind = "")
        : path_(path), kind_(kind), stream_(std::fopen(path.c_str(), "rb"), std::fclose) {
        if (stream_ == nullptr || std::fseek(stream(), 0, SEEK_END) != 0 || (size_ = at()) < 0) {
            throw Failure(path, std::strerror(errno));
        }
        std::rewind(stream_.get());
    }
    FILE* stream() { return stream_.get(); }
    long at() const { return std::ftell(stream_.get()); }
    long size() const { return size_; }

    [[noreturn]] void fail(long where, const std::string& expected,
                           const std::string& found) const {
        if (std::ferror(stream_.get()) != 0) {
            throw Failure(path_, std::strerror(errno));
        }
        throw Failure(path_,
                      format("as a %s: at byte %ld: %s expected, but %s", kind_, where,
                             expected.c_str(), where >= size_ ? "the file ends" : found.c_str()));
    }

    // A line, or its next 1023 bytes, as far as its first zero byte.
    std::string line(const std::string& expected) {
        char text[1024];
        const long where = at();
        if (std::fgets(text, sizeof text, stream_.get()) == nullptr) {
            fail(where, expected, "the file cannot be read");
        }
        return text;
    }

    std::int32_t word(const std::string& expected) {
        std::int32_t value = 0;
        const long where = at();
        if (std::fread(&value, sizeof value, 1, stream_.get()) != 1) {
            fail(where, expected, "the file ends within it");
        }
        return value;
    }

private:
    std::string path_;
    const char* kind_;
    std::unique_ptr<FILE, int (*)(FILE*)> stream_;
    long size_ = 0;
};

std::string printable(std::string text) {
    text = text.substr(0, 40);
    text.erase(std::find(text.begin(), text.end(), '\n'), text.end());
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 32 || c > 126; }, '?');
    return text;
}

std::string found(const std::string& text) { return "'" + printable(text) + "' is there"; }
std::string found(long long number) { return format("%lld is there", number); }

struct Range {
    double low = std::numeric_limits<double>::infinity(), high = -low;
    bool finite = true;
    void add(double value) {
        low = std::min(low, value);
        high = std::max(high, value);
        finite = finite && std::isfinite(value);
    }
    ordered_json json() const { return {{"low", low}, {"high", high}}; }
};

// A decimal integer as the library takes it: its first digits, cut to 32 bits.
long long leading_integer(const char* text, long long otherwise) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return end == text ? otherwise : std::clamp<long long>(value, -kMaxInt - 1, kMaxInt);
}

Range read_vector(File& file, const std::string& token, int dimension, ordered_json& doubts) {
    const std::string expected = format("the line \"%s %d\"", token.c_str(), dimension);
    const long where = file.at();
    const std::string head = file.line(expected);
    char word[256] = "";
    int consumed = 0;
    std::sscanf(head.c_str(), "%255s%n", word, &consumed);
    if (word != token || leading_integer(head.c_str() + consumed, -1) != dimension) {
        file.fail(where, expected, found(head));
    }
    Range range;
    for (int i = 0; i < dimension; ++i) {
        const long begin = file.at();
        const std::string text =
            file.line(format("number %d of %d of %s", i + 1, dimension, token.c_str()));
        char* end = nullptr;
        const auto value = static_cast<float>(std::strtod(text.c_str(), &end));
        range.add(static_cast<double>(value));
        if (end == text.c_str() && doubts.size() < kDoubts) {
            doubts.push_back(format("at byte %ld: '%s' is no number and counts as 0", begin,
                                    printable(text).c_str()));
        }
    }
    return range;
}

ordered_json describe_model(const std::string& path) {
    constexpr char kKind[] = "network model";
    File file(path, kKind);
    ordered_json out{{"file", path}, {"kind", kKind}}, doubts = ordered_json::array();
    for (int i = 0; i < 3; ++i) {
        out[format("text_line_%d", i + 1)] =
            printable(file.line(format("text line %d of 3", i + 1)));
    }
    const long header = file.at();
    const int dimension = file.word("the feature dimension (32-bit integer)");
    const int rate = file.word("the sample rate (32-bit integer)");
    const int low = file.word("the lower band edge (32-bit integer)");
    const int high = file.word("the upper band edge (32-bit integer)");
    const int flag = file.word("the flag (32-bit integer)");
    const bool wide = dimension == kWideFeatures;
    const int used = wide ? kWideFeatures : kNarrowFeatures;
    file.line("a line end after the five header words");
    if (dimension < kNarrowFeatures || dimension > kMostClaimed) {
        file.fail(header, "a feature dimension of 26 to 65536 (40: 16 kHz)", found(dimension));
    }
    const long count_line = file.at();
    const std::string count_text = file.line("a line with the number of parameters");
    const long long count = leading_integer(count_text.c_str(), 0);
    if (count <= 0) {
        file.fail(count_line, "a number of parameters above 0", found(count_text));
    }
    const Range means = read_vector(file, "meanvec", dimension, doubts);
    const Range multipliers = read_vector(file, "revvarvec", dimension, doubts);

    const long table = file.at();
    const int layers = file.word("the number of layers (32-bit integer)");
    if (layers <= 0 || layers > kMostClaimed) {
        file.fail(table, "a number of layers from 1 to 65536", found(layers));
    }
    std::vector<long long> sizes;
    long long needed = 0, products = 0;
    while (static_cast<int>(sizes.size()) < layers) {
        const long where = file.at();
        sizes.push_back(
            file.word(format("size %zu of %d layers (32-bit integer)", sizes.size() + 1, layers)));
        if (sizes.back() < 0) {
            file.fail(where, "a layer size that is not negative", found(sizes.back()));
        }
        if (sizes.size() == 1 && sizes[0] % used != 0) {
            file.fail(where, format("an input of whole frames of %d features", used),
                      found(sizes[0]));
        }
        if (sizes.size() > 1) {
            const long long inputs = sizes[sizes.size() - 2];
            products += inputs * sizes.back();
            needed += (inputs + 1) * sizes.back();
        }
        const long long most = std::min(kMostParameters, count + kMostClaimed);
        if (needed > most) {
            file.fail(where, format("a layer that keeps the parameters to %lld", most),
                      found(sizes.back()));
        }
    }
    if (sizes[0] > std::min(needed, count) + kMostClaimed) {
        file.fail(table + 4, "an input that has parameters", found(sizes[0]));
    }
    Range weights;
    std::vector<float> block(4096);
    for (long long done = 0; done < count;) {
        const auto wanted = static_cast<std::size_t>(std::min<long long>(count - done, 4096));
        const std::size_t got = std::fread(block.data(), sizeof(float), wanted, file.stream());
        std::for_each(block.begin(), block.begin() + static_cast<std::ptrdiff_t>(got),
                      [&](float value) { weights.add(static_cast<double>(value)); });
        done += static_cast<long long>(got);
        if (got < wanted) {
            file.fail(file.size(), format("parameter %lld of %lld", done + 1, count),
                      "it is not there");
        }
    }
    if (const long rest = file.size() - file.at(); rest > 0) {
        doubts.push_back(
            format("at byte %ld: %ld more bytes, which nothing reads", file.at(), rest));
    }
    if (needed != count) {
        doubts.push_back(
            format("the layers need %lld parameters, not %lld: %s", needed, count,
                   needed > count ? "missing ones count as 0" : "the rest is not used"));
    }
    if (layers < 2 || sizes.back() != kClasses) {
        doubts.push_back("nine classes are needed: with this network no frame can be speech");
    }
    const bool odd = wide && rate != 8000 && rate != 16000;
    if (odd) {
        doubts.push_back("neither 8000 nor 16000 Hz: this program does not run it");
    }
    if (!wide && (dimension != kNarrowFeatures || rate != 8000 || low != 40 || high != 3800)) {
        doubts.push_back("without 40 features: sessions run it at 8000 Hz with 26, 40 to 3800 Hz");
    }
    if (!means.finite || !multipliers.finite || !weights.finite) {
        doubts.push_back("some numbers are not finite");
    }
    out["features_per_frame"] = dimension;
    out["sample_rate_hz"] = rate;
    out["band_hz"] = {low, high};
    out["flag"] = flag;
    out["means"] = means.json();
    out["multipliers"] = multipliers.json();
    out["layers"] = sizes;
    out["frames_of_input"] = sizes[0] / used;
    out["parameters"] = count;
    out["parameter_range"] = weights.json();
    out["multiply_adds_per_frame"] = products;
    out["doubts"] = doubts;
    out["whole"] =
        !odd && needed <= count && *std::max_element(sizes.begin(), sizes.end()) <= count;
    return out;
}

// ---- Bleep templates --------------------------------------------------------------------------------

std::vector<std::string> tokens(const std::string& text) {
    std::vector<std::string> out;
    for (std::size_t at = 0;
         (at = text.find_first_not_of(" \t\n\v\f\r", at)) != std::string::npos;) {
        const std::size_t end = std::min(text.find_first_of(" \t\n\v\f\r", at), text.size());
        out.push_back(text.substr(at, end - at));
        at = end;
    }
    return out;
}

std::string position(const std::string& path, long where) {
    File file(path);
    int line = 1;
    while (file.at() < where) {
        line += std::fgetc(file.stream()) == '\n';
    }
    return format(" in line %d", line);
}

// Time across, frequency upwards; a line covers `step` bins.
ordered_json picture(const std::vector<int>& cells, int bins) {
    int first = bins, last = -1;
    for (int i = 0; i < kRows * bins; ++i) {
        if (cells[static_cast<std::size_t>(i)] != 0) {
            first = std::min(first, i % bins);
            last = std::max(last, i % bins);
        }
    }
    const int step = 1 + (last - first) / 48;
    ordered_json lines = ordered_json::array();
    for (int low = first + (last - first) / step * step; last >= 0 && low >= first; low -= step) {
        std::string text = format("%7.1f Hz |", low * kBinHertz);
        for (int row = 0; row < kRows; ++row) {
            const auto begin = cells.begin() + row * bins + low;
            const auto blank = std::count(begin, begin + std::min(step, bins - low), 0);
            text += blank < std::min(step, bins - low) ? "##" : "  ";
        }
        lines.push_back(text + "|");
    }
    return lines;
}

ordered_json describe_template(const std::string& path, int bins) {
    constexpr char kKind[] = "bleep template";
    File file(path, kKind);
    ordered_json doubts = ordered_json::array();
    // The next number as the library's fscanf takes it; false when something else stands there.
    const auto next = [&](const char* pattern, auto* value, const std::string& expected) {
        int space;
        while (std::isspace(space = std::fgetc(file.stream())) != 0) {
        }
        std::ungetc(space, file.stream());
        const long where = file.at();
        const int taken = std::fscanf(file.stream(), pattern, value);
        if (taken == EOF) {
            file.fail(where, expected + position(path, where), "it is cut off");
        }
        return taken == 1 ? -1 : where;
    };
    std::vector<int> cells(static_cast<std::size_t>(kRows * bins));
    for (int i = 0; i < kRows * bins; ++i) {
        int& cell = cells[static_cast<std::size_t>(i)];
        const std::string expected = format("cell %d of row %d of a template for %d kHz",
                                            i % bins + 1, i / bins + 1, bins / (kNarrowBins / 8));
        if (const long where = next("%d", &cell, expected); where >= 0) {
            file.fail(where, expected + position(path, where), "no whole number is there");
        }
        if (cell != 0 && cell != 1 && doubts.empty()) {
            doubts.push_back(expected + format(" is %d, not 0 or 1", cell));
        }
    }
    std::vector<float> weights(static_cast<std::size_t>(bins - kLow + 1));
    for (std::size_t i = 0; i < weights.size(); ++i) {
        const std::string expected =
            i == 0 ? "the bias" : format("weight %zu of %d", i, bins - kLow);
        if (const long where = next("%f", &weights[i], expected); where >= 0) {
            doubts.push_back(format("at byte %ld%s: no number: %s and all that follow count as 0",
                                    where, position(path, where).c_str(), expected.c_str()));
            break;
        }
    }
    if (!std::all_of(weights.begin(), weights.end(), [](float w) { return std::isfinite(w); })) {
        doubts.push_back("some weights are not finite");
        std::replace_if(
            weights.begin(), weights.end(), [](float w) { return !std::isfinite(w); }, 0.0F);
    }
    std::vector<std::size_t> order(weights.size() - 1);
    for (std::size_t k = 0; k < order.size(); ++k) {
        order[k] = k + 1;
    }
    std::stable_sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) {
        return std::fabs(weights[x]) > std::fabs(weights[y]);
    });
    ordered_json strongest = ordered_json::array();
    for (std::size_t k = 0; k < 8 && weights[order[k]] != 0.0F; ++k) {
        const double hertz = static_cast<double>(order[k] + kLow - 2) * kBinHertz;
        strongest.push_back({{"hz", hertz}, {"weight", weights[order[k]]}});
    }
    return {{"file", path},
            {"kind", kKind},
            {"for_models_of_hz", bins == kWideBins ? 16000 : 8000},
            {"rows", kRows},
            {"bins", bins},
            {"template_10_ms_a_column", picture(cells, bins)},
            {"bias", weights[0]},
            {"strongest_weights_per_cell", strongest},
            {"doubts", doubts}};
}

}  // namespace

ordered_json describe_file(const std::string& path, ModelKind kind) {
    // A template begins with a row of zeros and ones, a model with any text.
    std::string begin(2048, '\0');
    File file(path);
    begin.resize(std::fread(begin.data(), 1, begin.size(), file.stream()));
    const std::vector<std::string> row = tokens(begin.substr(0, begin.find('\n')));
    const auto bits =
        std::count(row.begin(), row.end(), "0") + std::count(row.begin(), row.end(), "1");
    const bool plain = bits == static_cast<std::ptrdiff_t>(row.size());
    if (plain && kind != ModelKind::kNetwork &&
        (row.size() == kNarrowBins || row.size() == kWideBins)) {
        return describe_template(path, static_cast<int>(row.size()));
    }
    // The library does not look at lines. (What it takes for wide models begins like a narrow one.)
    std::unique_ptr<Failure> first;
    const bool model = kind == ModelKind::kNetwork || row.size() < 8 ||
                       bits < static_cast<std::ptrdiff_t>(row.size() / 2);
    for (const int bins :
         {model ? 0 : kWideBins, model ? kWideBins : kNarrowBins, model ? kNarrowBins : 0}) {
        if (kind == (bins == 0 ? ModelKind::kTemplate : ModelKind::kNetwork)) {
            continue;
        }
        try {
            return bins == 0 ? describe_model(path) : describe_template(path, bins);
        } catch (const Failure& failure) {
            first = first != nullptr ? std::move(first) : std::make_unique<Failure>(failure);
        }
    }
    throw *first;
}
