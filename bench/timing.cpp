// Times every workload and compares it with one transform of the FFT library.
//
//     dnnvad_bench [--benchmark_filter=NAME]
//
// All workloads take turns, many short rounds each, and the shortest round by the processor's time
// counts: what else runs on the machine then hardly shows. Times are of this machine; the ratios
// carry over better.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>

#include "bench/own_output.h"
#include "bench/workloads.h"

namespace {

// Remembers the shortest round of each workload.
class Shortest : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            if (run.run_type == Run::RT_Iteration) {
                const double seconds =
                    run.cpu_accumulated_time / static_cast<double>(run.iterations);
                const auto entry = seconds_.emplace(run.run_name.function_name, seconds).first;
                entry->second = std::min(entry->second, seconds);
            }
        }
    }
    void print(std::FILE* out) const {
        const auto yardstick = seconds_.find(bench::kYardstick);
        for (const bench::Workload& workload : bench::workloads()) {
            const auto entry = seconds_.find(workload.name);
            if (entry == seconds_.end()) {
                continue;
            }
            const double seconds = entry->second / workload.frames;
            std::fprintf(out, "%-34s %9.3f us", workload.name, 1e6 * seconds);
            if (yardstick != seconds_.end()) {
                std::fprintf(out, " %8.2f", seconds / yardstick->second);
            }
            std::fprintf(out, "\n");
        }
    }

private:
    std::map<std::string, double> seconds_;
};

void run(benchmark::State& state, const bench::Workload& workload) {
    const std::function<void()> step = workload.prepare();
    step();
    for (auto _ : state) {
        step();
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::FILE* const out = bench::take_standard_output();
    // Ours first, so that the command line can change them.
    std::vector<char*> arguments = {argv[0]};
    std::vector<std::string> ours = {"--benchmark_repetitions=200", "--benchmark_min_time=0.001",
                                     "--benchmark_enable_random_interleaving=true"};
    for (std::string& option : ours) {
        arguments.push_back(option.data());
    }
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    for (const bench::Workload& workload : bench::workloads()) {
        benchmark::RegisterBenchmark(workload.name, run, workload);
    }
    Shortest shortest;
    benchmark::RunSpecifiedBenchmarks(&shortest);
    std::fprintf(out, "%-34s %12s %8s\n", "", "shortest", "/ FFT");
    shortest.print(out);
    for (const std::string& line : bench::memory_report()) {
        std::fprintf(out, "%s\n", line.c_str());
    }
    return 0;
}
