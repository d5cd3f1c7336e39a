// Runs the real program, as a shell would, and gives back what it printed.
#ifndef DNNVAD_TESTS_RUN_PROGRAM_H
#define DNNVAD_TESTS_RUN_PROGRAM_H

#include <sys/wait.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace test {

struct Result {
    int status;          // exit status
    std::string output;  // standard output, or what the redirection makes of it
};

// Runs a shell command; "dnnvad" in it is the program under test. Its errors go where the command says.
inline Result run(const std::string& command) {
    const std::string shell = "dnnvad() { " DNNVAD_PROGRAM " \"$@\"; }; " + command;
    FILE* const pipe = popen(shell.c_str(), "r");
    Result result{-1, ""};
    char buffer[4096];
    for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        result.output.append(buffer, got);
    }
    result.status = WEXITSTATUS(pclose(pipe));
    return result;
}

// A file of the source tree.
inline std::string source(const std::string& path) { return DNNVAD_SOURCE_DIR "/" + path; }

inline std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* pattern, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return text;
}

inline std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace test

#endif
