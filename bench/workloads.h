// What is measured: the library's steps, each ready to be run over and over.
#ifndef DNNVAD_BENCH_WORKLOADS_H
#define DNNVAD_BENCH_WORKLOADS_H

#include <functional>
#include <string>
#include <vector>

namespace bench {

struct Workload {
    const char* name;
    int frames;                          // 10 ms frames that one run covers; 1 for other steps
    std::function<void()> (*prepare)();  // builds what a run needs and returns the run
};

// The transform that the others are compared with: 256 points, straight from the FFT library.
constexpr const char* kYardstick = "FFT library, 256 points";
constexpr const char* kBundledSession =
    "session frame, 8 kHz, 442-96-64-9";  // as the bundled network

const std::vector<Workload>& workloads();

// What one session with a small network or one like the bundled, and with a bleep template, takes, and
// what a frame allocates, one line each.
std::vector<std::string> memory_report();

}  // namespace bench

#endif
