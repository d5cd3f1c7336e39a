// Runs the real program, as a shell would, and gives back what it printed.
#ifndef DNNVAD_TESTS_RUN_PROGRAM_H
#define DNNVAD_TESTS_RUN_PROGRAM_H

#include <sys/wait.h>

#include <cstdarg>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/source_files.h"

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

inline std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(const char* pattern, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, pattern);
    std::vsnprintf(text, sizeof text, pattern, arguments);
    va_end(arguments);
    return text;
}

// Of lines of JSON objects those with this "type".
inline std::vector<nlohmann::json> json_lines(const std::string& output, const std::string& type) {
    std::vector<nlohmann::json> found;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        const auto object = nlohmann::json::parse(line);
        if (object["type"] == type) {
            found.push_back(object);
        }
    }
    return found;
}

}  // namespace test

#endif
