#include "cutter.h"

#include <CLI/CLI.hpp>
#include <filesystem>

#include "program.h"

void add_cut_options(CLI::App& command, CutOptions& options) {
    command
        .add_option("--cut", options.folder, "Write every utterance to a WAV file in this folder")
        ->type_name("DIR");
    command
        .add_option("--margin", options.margin,
                    "Audio kept before and after speech, as 40 (frames) or 300ms")
        ->type_name("TIME");
}

void apply_margin(const CutOptions& options, SessionOptions& session) {
    if (options.margin.empty()) {
        return;
    }
    std::vector<std::string> set;
    for (const char* const name : {"start_back_frame=", "end_back_frame="}) {
        set.push_back(name + options.margin);
    }
    session.set.insert(session.set.begin(), set.begin(), set.end());
}

Cutter::Cutter(const CutOptions& options, std::string name, int rate)
    : folder_(options.folder), name_(std::move(name)), rate_(rate) {
    std::error_code error;
    std::filesystem::create_directories(folder_, error);
    if (error) {
        throw Failure(folder_, error.message());
    }
}

void Cutter::begin(const Utterance&) {
    path_ = (std::filesystem::path(folder_) / format("%s-%03d.wav", name_.c_str(), number_ + 1))
                .string();
    file_ = std::make_unique<WavFile>(path_, rate_);
}

void Cutter::write(const short* samples, int count) { file_->write(samples, count); }

std::string Cutter::keep() {
    file_->commit();
    file_.reset();
    ++number_;
    return path_;
}

void Cutter::drop() { file_.reset(); }
