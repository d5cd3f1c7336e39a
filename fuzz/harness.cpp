#include "harness.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

// There with a leak checker only.
extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

namespace fuzz {
namespace {

// Assertions that are part of the library's behaviour on bad input.
constexpr const char* kKnown[] = {"flt_number > 0", "_layer_number > 0", "_layer_size"};

struct KnownAssertion {};

}  // namespace

void assertion_failed(const char* expression, const char* file, int line) {
    for (const char* const known : kKnown) {
        if (std::strcmp(expression, known) == 0) {
            throw KnownAssertion();
        }
    }
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expression);
    std::abort();
}

void run(const std::uint8_t* data, std::size_t size) {
    if (may_assert) {
        if (__lsan_disable != nullptr) {
            __lsan_disable();
        }
        bool asserted = false;
        try {
            one_input(data, size);
        } catch (const KnownAssertion&) {
            asserted = true;
        }
        if (__lsan_enable != nullptr) {
            __lsan_enable();
        }
        if (asserted) {
            return;
        }
    }
    one_input(data, size);
}

MemoryFile::MemoryFile() : descriptor_(memfd_create("input", 0)) {
    path_ = "/proc/self/fd/" + std::to_string(descriptor_);
}

const char* MemoryFile::hold(const void* data, std::size_t size) {
    if (ftruncate(descriptor_, 0) != 0 ||
        pwrite(descriptor_, data, size, 0) != static_cast<ssize_t>(size)) {
        fault("the memory file cannot be written");
    }
    return path_.c_str();
}

namespace {

constexpr int kPeriod = 16000;

// Half a second of a vowel, of noise and of silence, over and over.
std::vector<short> period() {
    std::vector<short> samples(kPeriod);
    for (int k = 0; k < kPeriod; ++k) {
        const double t = k / 8000.0;
        const double voiced = std::sin(2 * M_PI * 140 * t) + std::sin(2 * M_PI * 700 * t) / 2;
        const double noise =
            static_cast<double>(static_cast<unsigned>(k) * 2654435761U >> 16) / 32768 - 1;
        const int part = k / (kPeriod / 4);
        samples[static_cast<std::size_t>(k)] = static_cast<short>(part == 0   ? 6000 * voiced
                                                                  : part == 1 ? 4000 * noise
                                                                              : 20 * noise);
    }
    return samples;
}

}  // namespace

std::vector<short> sound(int at, int count) {
    static const std::vector<short> whole = period();
    std::vector<short> samples(static_cast<std::size_t>(count));
    for (int k = 0; k < count; ++k) {
        samples[static_cast<std::size_t>(k)] = whole[static_cast<std::size_t>(
            (static_cast<unsigned>(at) + static_cast<unsigned>(k)) % kPeriod)];
    }
    return samples;
}

std::string read_source(const char* path) {
    std::ostringstream text;
    text << std::ifstream(std::string(DNNVAD_SOURCE_DIR "/") + path, std::ios::binary).rdbuf();
    if (text.str().empty()) {
        fault(path);
    }
    return text.str();
}

void fault(const char* what) {
    std::fprintf(stderr, "fault: %s\n", what);
    std::abort();
}

}  // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::run(data, size);
    return 0;
}
