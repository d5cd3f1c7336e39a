// Utterances as text, in the formats that people and other programs read.
#ifndef DNNVAD_APP_SEGMENT_WRITER_H
#define DNNVAD_APP_SEGMENT_WRITER_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "listener.h"

// What was done with one recording.
struct RecordingSummary {
    std::string file;
    int rate;           // Hz, as recorded
    std::string model;  // path
    double seconds;
    long long clipped;  // samples beyond 16 bits
};

// Writes the utterances of one recording after the other to a stream. Formats that need the whole
// recording (TextGrid) write at its end; all others write an utterance as soon as it has ended.
class SegmentWriter {
public:
    virtual ~SegmentWriter() = default;
    virtual void begin(const std::string& /*file*/, bool /*one_of_several*/) {}
    // `cut`: the WAV file that the utterance was written to, or "".
    virtual void utterance(const std::string& file, const Utterance&, const std::string& cut) = 0;
    virtual void end(const RecordingSummary&) {}

protected:
    explicit SegmentWriter(FILE* stream) : stream_(stream) {}
    FILE* stream_;
};

struct SegmentFormat {
    const char* name;
    const char* extension;  // of a file with one recording's utterances
    bool one_recording;     // a file can hold the utterances of one recording only
    std::unique_ptr<SegmentWriter> (*make)(FILE*);
};

// table, json, csv, rttm, audacity, textgrid.
const std::vector<SegmentFormat>& segment_formats();

#endif
