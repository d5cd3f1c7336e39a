#include "program.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <vector>

namespace fs = std::filesystem;

namespace {

FILE* own_output = stdout;

// Partial files of this moment, for the signal handler, which may neither lock nor allocate.
constexpr int kSlots = 64;
std::atomic<const char*> unfinished[kSlots];

extern "C" void remove_unfinished(int signal) {
    for (const std::atomic<const char*>& slot : unfinished) {
        if (const char* const path = slot.load()) {
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

PendingFile::PendingFile(std::string path) : final_(std::move(path)), partial_(final_) {
    std::error_code error;
    const fs::file_status status = fs::status(final_, error);
    if (fs::exists(status) && !fs::is_regular_file(status)) {
        return;
    }
    partial_ += ".partial";
    for (int slot = 0; slot < kSlots && slot_ < 0; ++slot) {
        const char* expected = nullptr;
        if (unfinished[slot].compare_exchange_strong(expected, partial_.c_str())) {
            slot_ = slot;
        }
    }
}

PendingFile::~PendingFile() {
    if (partial_ != final_) {
        unlink(partial_.c_str());
    }
    if (slot_ >= 0) {
        unfinished[slot_].store(nullptr);
    }
}

void PendingFile::commit() {
    if (partial_ != final_ && std::rename(partial_.c_str(), final_.c_str()) != 0) {
        throw Failure(final_, std::strerror(errno));
    }
}

OutputFile::OutputFile(const std::string& path)
    : file_(path), stream_(std::fopen(file_.path().c_str(), "w")) {
    if (stream_ == nullptr) {
        throw Failure(path, std::strerror(errno));
    }
}

OutputFile::~OutputFile() {
    if (stream_ != nullptr) {
        std::fclose(stream_);
    }
}

void OutputFile::commit() {
    flush();
    FILE* const done = stream_;
    stream_ = nullptr;
    if (std::fclose(done) != 0) {
        throw Failure(file_.name(), std::strerror(errno));
    }
    file_.commit();
}

Progress::Progress() : terminal_(isatty(STDERR_FILENO) != 0) {}

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
    va_list arguments, again;
    va_start(arguments, pattern);
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, pattern, arguments)),
                     '\0');
    std::vsnprintf(text.data(), text.size() + 1, pattern, again);
    va_end(again);
    va_end(arguments);
    return text;
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
