// Times every workload and compares it with one transform of the FFT library; then sessions
// in several threads.
//
//     dnnvad_bench [--benchmark_filter=NAME]
//
// All workloads take turns, many short rounds each, and the shortest round by the processor's time
// counts: what else runs on the machine then hardly shows. Times are of this machine; the ratios
// carry over better.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <map>
#include <thread>

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

// Frames of so many sessions at once, in a second of the clock and in one of the processors' time; the
// latter says whether they hinder each other, whatever else runs.
void print_scaling(std::FILE* out, const bench::Workload& session, int count) {
    using Clock = std::chrono::steady_clock;
    std::atomic<int> frames = 0;
    const std::clock_t spent = std::clock();
    const Clock::time_point start = Clock::now();
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back([&, step = session.prepare()] {
            for (; Clock::now() - start < std::chrono::seconds(3); frames += session.frames) {
                step();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const std::chrono::duration<double> seconds = Clock::now() - start;
    const double processor = static_cast<double>(std::clock() - spent) / CLOCKS_PER_SEC;
    std::fprintf(out, "%s, %d threads: %.0f frames/s, %.0f in the processors' time\n", session.name,
                 count, frames / seconds.count(), frames / processor);
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
    const auto& all = bench::workloads();
    const auto session = std::find_if(all.begin(), all.end(), [](const bench::Workload& workload) {
        return std::string(workload.name) == bench::kBundledSession;
    });
    for (const int threads : {1, 2, 8}) {
        print_scaling(out, *session, threads);
    }
    return 0;
}
