// The program's commands, and what all share: failures, standard output, files, progress.
#ifndef DNNVAD_APP_PROGRAM_H
#define DNNVAD_APP_PROGRAM_H

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>

namespace CLI {
class App;
}

// What runs after the command line has been read; returns the exit status.
using Action = std::function<int()>;

// The commands. Each adds itself to the command line and becomes the action when it is chosen.
void add_detect(CLI::App& program, Action& action);
void add_live(CLI::App& program, Action& action);
void add_plot(CLI::App& program, Action& action);
void add_tune(CLI::App& program, Action& action);
void add_info(CLI::App& program, Action& action);
void add_bench(CLI::App& program, Action& action);
void add_record_bleep(CLI::App& program, Action& action);

// Something could not be done: the program prints "dnnvad: what: why" and ends with status 1.
struct Failure : std::runtime_error {
    Failure(const std::string& what, const std::string& why)
        : std::runtime_error(what + ": " + why) {}
};

// The command line asks for something that makes no sense: status 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Takes standard output away from the library, whose diagnostic lines go there: they are dropped, or
// appended to the file `library_log` unless that is empty. Call once, before results().
void claim_output(const std::string& library_log);

// Where the program's own results go: the standard output that it was started with.
FILE* results();

// Flushes a stream. Throws Failure when something could not be written to what is called `name`.
void flush(FILE* stream, const std::string& name);
inline void finish_output() { flush(results(), "standard output"); }

// Readies the process, first of all: descriptors that it was started without never become files of
// its own, writing too much is an error, and Ctrl-C and the like remove unfinished files as they end it.
void prepare_process();

// From now on Ctrl-C and SIGTERM end the input, standard input too, not the program; a second one does.
void stop_on_signals();
extern volatile std::sig_atomic_t stopping;  // the signal that has come, or 0

// A file that appears under its name only when it is complete. Until commit() it is written as
// "PATH.partial", which goes away with the object. What exists and is no regular file (a device, a
// pipe) is written directly.
class OutputFile {
public:
    explicit OutputFile(const std::string& path);  // throws Failure
    ~OutputFile();
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    const std::string& name() const { return name_; }
    const std::string& written() const { return written_; }  // the name until commit()
    FILE* stream() { return stream_; }
    void flush() { ::flush(stream_, name_); }
    void commit();  // throws Failure

private:
    std::string name_, written_;
    FILE* stream_;
};

// One line on standard error that is kept up to date, if that is a terminal.
class Progress {
public:
    ~Progress() { clear(); }
    void show(const std::string& label, double share);  // share done, 0 .. 1
    void clear();                                       // before anything else is printed

private:
    bool terminal_ = isatty(STDERR_FILENO) != 0;
    int shown_ = -1;  // percent
};

// printf into a string.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// A line of warning on standard error.
void print_warning(const std::string& text);

// The file that the library ships under `name`: beside the installed program, else in the source tree.
std::string bundled_file(const std::string& name);

#endif
