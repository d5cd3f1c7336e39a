// Where speech is in recordings, as people mark it by hand and as other programs write it.
#ifndef DNNVAD_APP_LABELS_H
#define DNNVAD_APP_LABELS_H

#include <string>
#include <vector>

struct Interval {
    double from, to;  // seconds from the start of the recording, 0 <= from <= to
};

// The labelled speech of the recording whose file is called `stem` without its extension, from the
// first of these that is in `folder`:
//
//     STEM.TextGrid  Praat, long or short text format: the interval tier "speech", else the first
//                    interval tier; a blank text is no speech
//     STEM.txt       a line each: start, end and perhaps a text, between tabs (Audacity) or blanks;
//                    lines that begin with "\" or "#" say nothing
//     STEM.rttm      SPEAKER lines: type, recording, channel, start, length, ...; those of STEM count
//     *.rttm         the first by name that has lines of STEM
//
// (In RTTM, blanks in a recording's name are "_".) "sil" and "silence" are no speech: with them a file
// says that nobody speaks. Labels without length mark nothing in lists. Labels of a list need no
// order. Overlapping ones and those with less than `join` seconds between them become one
// interval; the result is in order, to 1 us.
//
// Throws Failure, which names the file, and the line if there is one: nothing labels the recording, a
// file cannot be read or has no label in it, a line is none, a time is not finite, is negative, or
// lies before the one that it must follow.
std::vector<Interval> read_labels(const std::string& folder, const std::string& stem, double join);

#endif
