// Utterances as WAV files, sample for sample what the library hands out.
#ifndef DNNVAD_APP_CUTTER_H
#define DNNVAD_APP_CUTTER_H

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <string>

#include "audio_input.h"
#include "listener.h"

inline void add_cut_option(CLI::App& command, std::string& folder) {
    command.add_option("--cut", folder, "Write every utterance to a WAV file in this folder")
        ->type_name("DIR");
}

// Writes FOLDER/NAME-001.wav, -002, ...; a file appears when its utterance has ended. Without a folder
// all this does nothing.
class Cutter : public Watcher {
public:
    // Makes the folder; throws Failure.
    Cutter(std::string folder, std::string name, int rate)
        : folder_(std::move(folder)), name_(std::move(name)), rate_(rate) {
        std::error_code error;
        if (!folder_.empty() && !std::filesystem::create_directories(folder_, error) && error) {
            throw Failure(folder_, error.message());
        }
    }
    void began(const Utterance&) override {
        if (!folder_.empty()) {
            path_ = folder_ + format("/%s-%03d.wav", name_.c_str(), kept_ + 1);
            file_ = std::make_unique<WavFile>(path_, rate_);
        }
    }
    void audio(const short* samples, int count) override {
        if (file_ != nullptr) {
            file_->write(samples, count);
        }
    }
    void forgotten(const Utterance&, bool /*prompt*/) override { file_.reset(); }

protected:
    // To be called when an utterance has ended: the path of its file, or "".
    std::string keep() {
        if (file_ != nullptr) {
            file_->commit();
            file_.reset();
            ++kept_;
        }
        return path_;
    }

private:
    std::string folder_, name_, path_;
    int rate_, kept_ = 0;
    std::unique_ptr<WavFile> file_;
};

#endif
