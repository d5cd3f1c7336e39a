#include "cutter.h"

#include <CLI/CLI.hpp>
#include <filesystem>

#include "program.h"

void add_cut_option(CLI::App& command, std::string& folder) {
    command.add_option("--cut", folder, "Write every utterance to a WAV file in this folder")
        ->type_name("DIR");
}

Cutter::Cutter(std::string folder, std::string name, int rate)
    : folder_(std::move(folder)), name_(std::move(name)), rate_(rate) {
    std::error_code error;
    if (!folder_.empty() && !std::filesystem::create_directories(folder_, error) && error) {
        throw Failure(folder_, error.message());
    }
}

void Cutter::begin() {
    path_ = folder_.empty() ? "" : folder_ + format("/%s-%03d.wav", name_.c_str(), ++number_);
    file_ = folder_.empty() ? nullptr : std::make_unique<WavFile>(path_, rate_);
}

void Cutter::write(const short* samples, int count) {
    if (file_ != nullptr) {
        file_->write(samples, count);
    }
}

std::string Cutter::keep() {
    if (file_ != nullptr) {
        file_->commit();
        file_.reset();
    }
    return path_;
}

void Cutter::drop() {
    number_ -= file_ != nullptr;
    file_.reset();
}
