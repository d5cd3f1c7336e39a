#include "program.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <utility>

namespace fs = std::filesystem;

namespace {

FILE* own_output = stdout;

// Partial files of this moment, for the signal handler, which may neither lock nor allocate.
const char* volatile unfinished[8];

// Puts `now` where `before` is; there are more places than files at once.
void exchange_unfinished(const char* before, const char* now) {
    *std::find(std::begin(unfinished), std::end(unfinished) - 1, before) = now;
}

extern "C" void remove_unfinished(int signal) {
    for (const char* const path : unfinished) {
        if (path != nullptr) {
            unlink(path);
        }
    }
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

extern "C" void request_stop(int signal) {
    const int error = errno;
    if (stopping != 0) {
        remove_unfinished(signal);
    }
    stopping = signal;
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);  // (whoever waits for a pipe tries again)
    errno = error;
}

}  // namespace

volatile std::sig_atomic_t stopping = 0;

void claim_output(const std::string& library_log) {
    std::fflush(stdout);
    own_output = fdopen(dup(STDOUT_FILENO), "w");
    if (own_output == nullptr) {
        throw Failure("standard output", "is closed");
    }
    const char* const sink = library_log.empty() ? "/dev/null" : library_log.c_str();
    if (std::freopen(sink, "a", stdout) == nullptr) {
        throw Failure(sink, std::strerror(errno));
    }
}

FILE* results() { return own_output; }

void flush(FILE* stream, const std::string& name) {
    if (std::fflush(stream) != 0 || std::ferror(stream) != 0) {
        throw Failure(name, std::strerror(errno));
    }
}

void prepare_process() {
    for (int opened = 0; opened >= 0 && opened < STDERR_FILENO;) {
        opened = open("/dev/null", O_RDONLY | O_CLOEXEC);  // (which cannot be written to)
    }
    std::signal(SIGXFSZ, SIG_IGN);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGABRT}) {
        if (std::signal(signal, remove_unfinished) == SIG_IGN) {
            std::signal(signal, SIG_IGN);  // as nohup wants it
        }
    }
}

void stop_on_signals() {
    struct sigaction action {};
    action.sa_handler = request_stop;
    for (const int signal : {SIGINT, SIGTERM}) {
        sigaction(signal, &action, nullptr);
    }
}

OutputFile::OutputFile(const std::string& path) : name_(path), written_(path) {
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status) || fs::is_regular_file(status)) {
        written_ += ".partial";
        exchange_unfinished(nullptr, written_.c_str());
    }
    stream_ = std::fopen(written_.c_str(), "w");
    if (stream_ == nullptr) {
        exchange_unfinished(written_.c_str(), nullptr);
        throw Failure(path, std::strerror(errno));
    }
}

OutputFile::~OutputFile() {
    if (stream_ != nullptr) {
        std::fclose(stream_);
    }
    if (written_ != name_) {
        unlink(written_.c_str());
        exchange_unfinished(written_.c_str(), nullptr);
    }
}

void OutputFile::commit() {
    flush();
    if (std::fclose(std::exchange(stream_, nullptr)) != 0 ||
        (written_ != name_ && std::rename(written_.c_str(), name_.c_str()) != 0)) {
        throw Failure(name_, std::strerror(errno));
    }
}

void Progress::show(const std::string& label, double share) {
    const int percent = static_cast<int>(100 * share);
    if (!terminal_ || percent == shown_) {
        return;
    }
    constexpr int kCells = 30;
    const std::string bar(static_cast<std::size_t>(kCells * percent / 100), '#');
    std::fprintf(stderr, "\r\033[K[%-*s] %3d %%  %s", kCells, bar.c_str(), percent, label.c_str());
    std::fflush(stderr);
    shown_ = percent;
}

void Progress::clear() {
    if (shown_ >= 0) {
        std::fputs("\r\033[K", stderr);
        shown_ = -1;
    }
}

std::string format(const char* pattern, ...) {
    char* text = nullptr;
    va_list arguments;
    va_start(arguments, pattern);
    const int length = vasprintf(&text, pattern, arguments);
    va_end(arguments);
    const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
    return {text, static_cast<std::size_t>(length)};
}

std::string bundled_file(const std::string& name) {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    const fs::path installed = program.parent_path() / DNNVAD_MODELS_FROM_BIN / name;
    const fs::path source = fs::path(DNNVAD_SOURCE_MODELS) / name;
    return (fs::exists(installed, error) ? installed : source).lexically_normal().string();
}

void print_warning(const std::string& text) {
    std::fprintf(stderr, "dnnvad: warning: %s\n", text.c_str());
}
