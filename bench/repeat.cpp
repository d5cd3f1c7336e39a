// Runs one workload over and over, for tools that count from outside.
//
//     dnnvad_repeat              prints "FRAMES NAME" of every workload: the frames that one run covers
//     dnnvad_repeat NAME TIMES   runs it
//     dnnvad_repeat memory       prints what a session takes
#include <cstdlib>
#include <cstring>

#include "bench/own_output.h"
#include "bench/workloads.h"

int main(int argc, char** argv) {
    std::FILE* const out = bench::take_standard_output();
    if (argc == 2 && std::strcmp(argv[1], "memory") == 0) {
        for (const std::string& line : bench::memory_report()) {
            std::fprintf(out, "%s\n", line.c_str());
        }
        return 0;
    }
    for (const bench::Workload& workload : bench::workloads()) {
        if (argc != 3) {
            std::fprintf(out, "%d %s\n", workload.frames, workload.name);
        } else if (std::strcmp(argv[1], workload.name) == 0) {
            const std::function<void()> step = workload.prepare();
            for (int i = std::atoi(argv[2]); i > 0; --i) {
                step();
            }
            return 0;
        }
    }
    return argc == 1 ? 0 : 1;
}
