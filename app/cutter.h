// Utterances as WAV files, sample for sample what the library hands out.
#ifndef DNNVAD_APP_CUTTER_H
#define DNNVAD_APP_CUTTER_H

#include <memory>
#include <string>

#include "audio_input.h"

// Adds --cut to a command.
void add_cut_option(CLI::App& command, std::string& folder);

// Writes FOLDER/NAME-001.wav, -002, ...; a file appears when its utterance has ended. Without a folder
// all this does nothing.
class Cutter {
public:
    Cutter(std::string folder, std::string name, int rate);  // makes the folder; throws Failure
    void begin();
    void write(const short* samples, int count);
    std::string keep();  // the path of the finished file
    void drop();         // what has begun was no utterance

private:
    std::string folder_, name_, path_;
    int rate_;
    int number_ = 0;
    std::unique_ptr<WavFile> file_;
};

#endif
