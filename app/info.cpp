// dnnvad info: about the program and about model files.
#include <CLI/CLI.hpp>
#include <filesystem>

#include "json_text.h"
#include "memory_count.h"
#include "model_file.h"
#include "program.h"
#include "session_options.h"

using nlohmann::ordered_json;

namespace {

struct Options {
    std::vector<std::string> files;
    std::string format = "text";
};

ordered_json about_program() {
    ordered_json out{{"program", "dnnvad " DNNVAD_VERSION},
                     {"library", "linked in, " DNNVAD_VERSION},
                     {"fft", DNNVAD_FFT_NAME}};
    for (const char* const name : {"vad8k.bin", "vad16k.bin", "bleep8k.txt", "bleep16k.txt"}) {
        const std::string path = bundled_file(name);
        out[name] = std::filesystem::exists(path) ? path : path + " (missing)";
    }
    return out;
}

// With the memory that a session takes, measured on one that is opened here; not of a model that claims
// more than its file holds.
ordered_json describe(const std::string& file) {
    ordered_json out = describe_file(file);
    if (out.value("whole", false)) {
        SessionOptions options;
        options.model = file;
        open_session(options, 0);  // (what a first one allocates once is not counted)
        const long long before = memory_count().bytes;
        const auto session = open_session(options, 0);
        out["session_bytes_measured"] = memory_count().bytes - before;
    }
    out.erase("whole");
    return out;
}

// A value as people read it.
std::string text(const ordered_json& value) {
    const auto number = [&value](const char* key) { return value[key].get<double>(); };
    return value.is_string()         ? value.get<std::string>()
           : value.contains("low")   ? format("%.6g .. %.6g", number("low"), number("high"))
           : value.contains("hz")    ? format("%7.1f Hz %+.4f", number("hz"), number("weight"))
           : value.is_number_float() ? format("%.6g", value.get<double>())
                                     : value.dump();
}

// "session_bytes_measured" becomes "session bytes measured"; lists take a line each, unless of numbers.
void print(const ordered_json& description) {
    for (const auto& [key, value] : description.items()) {
        std::string name = key;
        std::replace(name.begin(), name.end(), '_', ' ');
        const bool lines = value.is_array() && (value.empty() || !value[0].is_number());
        if (lines && value.empty()) {
            continue;
        }
        std::fprintf(results(), "%-26s%s\n", name.c_str(), lines ? "" : text(value).c_str());
        for (std::size_t i = 0; lines && i < value.size(); ++i) {
            std::fprintf(results(), "    %s\n", text(value[i]).c_str());
        }
    }
}

int run(const Options& options) {
    ordered_json all = ordered_json::array();
    int status = 0;
    for (const std::string& file : options.files) {
        try {
            all.push_back(describe(file));
        } catch (const Failure& failure) {
            std::fprintf(stderr, "dnnvad: %s\n", failure.what());
            all.push_back({{"file", file}, {"error", failure.what()}});
            status = 1;
        }
    }
    if (options.files.empty()) {
        all.push_back(about_program());
    }
    if (options.format == "json") {
        std::fprintf(results(), "%s\n", json_text(all, 2).c_str());
        return status;
    }
    bool first = true;
    for (const ordered_json& one : all) {
        if (!one.contains("error")) {
            std::fputs(first ? "" : "\n", results());
            print(one);
            first = false;
        }
    }
    return status;
}

}  // namespace

void add_info(CLI::App& program, Action& action) {
    const auto options = std::make_shared<Options>();
    CLI::App& command = *program.add_subcommand(
        "info", "Say what is in a network model or a bleep template, or about the program");
    command.add_option("files", options->files, "Network models and bleep templates")
        ->type_name("FILE");
    command.add_option("-f,--format", options->format, "How it is written")
        ->check(CLI::IsMember({"text", "json"}))
        ->capture_default_str();
    command.callback([options, &action] { action = [options] { return run(*options); }; });
}
