// The one way the library writes its diagnostic lines (internal header).
//
// Lines go to standard output, as hosts expect. They start with the kind, the repository-relative
// source path and the line: "ERROR:[dnnvad/vad_nn.cpp:42]message". The format brings its own "\n".
#ifndef DNNVAD_VAD_LOG_H
#define DNNVAD_VAD_LOG_H

#include <cstdarg>
#include <cstdio>

namespace tz_dnnvad {

// Keeps prefix and message together when sessions log from several threads.
__attribute__((format(printf, 4, 5))) inline void log_line(const char* kind, const char* file,
                                                           int line, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    flockfile(stdout);
    std::printf("%s:[%s:%d]", kind, file, line);
    std::vprintf(format, arguments);
    funlockfile(stdout);
    va_end(arguments);
}

}  // namespace tz_dnnvad

#define VAD_ERROR(...) ::tz_dnnvad::log_line("ERROR", __FILE__, __LINE__, __VA_ARGS__)
#define VAD_DEBUG(...) ::tz_dnnvad::log_line("DEBUG", __FILE__, __LINE__, __VA_ARGS__)

#endif
