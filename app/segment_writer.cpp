#include "segment_writer.h"

#include <algorithm>
#include <filesystem>

#include "json_text.h"
#include "program.h"

namespace {

std::string remark(const Utterance& u) {
    return u.under_minimum ? "under the minimum" : u.over_maximum ? "over the maximum" : "";
}

class TableWriter : public SegmentWriter {
public:
    explicit TableWriter(FILE* stream) : SegmentWriter(stream) {}
    void begin(const std::string& file, bool one_of_several) override {
        if (one_of_several) {
            std::fprintf(stream_, "%s\n", file.c_str());
        }
        std::fprintf(stream_, "   start      end    first     last  duration   peak  ended by\n");
    }
    void utterance(const std::string&, const Utterance& u, const std::string& cut) override {
        const std::string note = remark(u);
        std::fprintf(stream_, "%8.2f %8.2f %8.2f %8.2f  %8.2f %6.1f  %s%s%s%s%s\n", u.start, u.end,
                     u.speech_start, u.last_speech, u.end - u.start, u.peak, u.reason,
                     note.empty() ? "" : ", ", note.c_str(), cut.empty() ? "" : "  ", cut.c_str());
    }
};

class JsonWriter : public SegmentWriter {
public:
    explicit JsonWriter(FILE* stream) : SegmentWriter(stream) {}
    void utterance(const std::string& file, const Utterance& u, const std::string& cut) override {
        nlohmann::ordered_json line{{"type", "utterance"}, {"file", file}};
        line.update(utterance_json(u, cut));
        write(line);
    }
    void end(const RecordingSummary& s) override {
        write({{"type", "recording"},
               {"file", s.file},
               {"seconds", hundredths(s.seconds)},
               {"rate", s.rate},
               {"model", s.model},
               {"clipped", s.clipped}});
    }

private:
    void write(const nlohmann::ordered_json& line) {
        std::fprintf(stream_, "%s\n", json_text(line).c_str());
    }
};

class CsvWriter : public SegmentWriter {
public:
    explicit CsvWriter(FILE* stream) : SegmentWriter(stream) {}
    void begin(const std::string&, bool) override {
        if (!headed_) {
            std::fputs(
                "file,start,end,first_speech,last_speech,duration,decided,peak_dbfs,ended_by,"
                "under_minimum,over_maximum,cut\n",
                stream_);
        }
        headed_ = true;
    }
    void utterance(const std::string& file, const Utterance& u, const std::string& cut) override {
        std::fprintf(stream_, "%s,%.2f,%.2f,%.2f,%.2f,%.2f,%.2f,%.1f,%s,%d,%d,%s\n",
                     quoted(file).c_str(), u.start, u.end, u.speech_start, u.last_speech,
                     u.end - u.start, u.decided, u.peak, u.reason, u.under_minimum, u.over_maximum,
                     quoted(cut).c_str());
    }

private:
    static std::string quoted(const std::string& text) {
        if (text.find_first_of(",\"\n\r") == std::string::npos) {
            return text;
        }
        std::string out = "\"";
        for (const char c : text) {
            out += c == '"' ? "\"\"" : std::string(1, c);
        }
        return out + '"';
    }
    bool headed_ = false;
};

class RttmWriter : public SegmentWriter {
public:
    explicit RttmWriter(FILE* stream) : SegmentWriter(stream) {}
    void utterance(const std::string& file, const Utterance& u, const std::string&) override {
        std::string name = std::filesystem::path(file).stem().string();
        std::replace_if(
            name.begin(), name.end(), [](unsigned char c) { return std::isspace(c); }, '_');
        std::fprintf(stream_, "SPEAKER %s 1 %.3f %.3f <NA> <NA> speech <NA> <NA>\n", name.c_str(),
                     u.speech_start, u.last_speech + kFrameSeconds - u.speech_start);
    }
};

class AudacityWriter : public SegmentWriter {
public:
    explicit AudacityWriter(FILE* stream) : SegmentWriter(stream) {}
    void utterance(const std::string&, const Utterance& u, const std::string&) override {
        std::fprintf(stream_, "%.6f\t%.6f\tspeech\n", u.speech_start,
                     u.last_speech + kFrameSeconds);
    }
};

// Two interval tiers that cover the whole recording, as Praat wants them (the library's own report
// holds the utterances alone): the speech, and the utterances with their margins.
class TextGridWriter : public SegmentWriter {
public:
    explicit TextGridWriter(FILE* stream) : SegmentWriter(stream) {}
    void utterance(const std::string&, const Utterance& u, const std::string&) override {
        speech_.push_back({u.speech_start, u.last_speech + kFrameSeconds, "speech"});
        utterances_.push_back({u.start, u.end, u.reason});
    }
    void end(const RecordingSummary& s) override {
        std::fprintf(stream_,
                     "File type = \"ooTextFile\"\nObject class = \"TextGrid\"\n\nxmin = 0\n"
                     "xmax = %.4f\ntiers? <exists>\nsize = 2\nitem []:\n",
                     s.seconds);
        write_tier(1, "speech", speech_, s.seconds);
        write_tier(2, "utterance", utterances_, s.seconds);
    }

private:
    struct Interval {
        double from, to;
        const char* text;
    };
    void write_tier(int number, const char* name, const std::vector<Interval>& marked,
                    double duration) {
        std::vector<Interval> tiles;
        double covered = 0;
        for (const Interval& interval : marked) {
            const double from = std::max(interval.from, covered);
            const double to = std::min(interval.to, duration);
            if (to <= from) {
                continue;
            }
            if (from > covered) {
                tiles.push_back({covered, from, ""});
            }
            tiles.push_back({from, to, interval.text});
            covered = to;
        }
        if (covered < duration || tiles.empty()) {
            tiles.push_back({covered, duration, ""});
        }
        std::fprintf(stream_,
                     "    item [%d]:\n        class = \"IntervalTier\"\n        name = \"%s\"\n"
                     "        xmin = 0\n        xmax = %.4f\n        intervals: size = %zu\n",
                     number, name, duration, tiles.size());
        for (std::size_t i = 0; i < tiles.size(); ++i) {
            std::fprintf(
                stream_,
                "        intervals [%zu]:\n            xmin = %.4f\n            xmax = %.4f\n"
                "            text = \"%s\"\n",
                i + 1, tiles[i].from, tiles[i].to, tiles[i].text);
        }
    }
    std::vector<Interval> speech_, utterances_;
};

template <class Writer>
std::unique_ptr<SegmentWriter> make(FILE* stream) {
    return std::make_unique<Writer>(stream);
}

}  // namespace

const std::vector<SegmentFormat>& segment_formats() {
    static const std::vector<SegmentFormat> formats{
        {"table", ".table", false, make<TableWriter>},
        {"json", ".json", false, make<JsonWriter>},
        {"csv", ".csv", false, make<CsvWriter>},
        {"rttm", ".rttm", false, make<RttmWriter>},
        {"audacity", ".txt", true, make<AudacityWriter>},
        {"textgrid", ".TextGrid", true, make<TextGridWriter>},
    };
    return formats;
}
