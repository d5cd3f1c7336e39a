// What the fuzz targets share. A target defines fuzz::one_input; it runs under libFuzzer, or, linked with
// replay.cpp, once for each file of its corpus.
//
//     cmake --preset fuzz && cmake --build --preset fuzz
//     build/fuzz/fuzz/fuzz_network -dict=fuzz/network.dict -close_fd_mask=1 CORPUS fuzz/corpus/network
#ifndef DNNVAD_FUZZ_HARNESS_H
#define DNNVAD_FUZZ_HARNESS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace fuzz {

// One input; defined by each target. An assertion that is part of the library's behaviour ends it early.
void one_input(const std::uint8_t* data, std::size_t size);

// Such an assertion. A process would end there.
struct KnownAssertion {};

// Runs one_input. A failed assertion that hosts know ends the input, any other the process.
void run(const std::uint8_t* data, std::size_t size);

// Takes values off the front of an input; zeros when it is used up.
class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
    std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
    const std::uint8_t* rest() const { return at_; }
    template <class T>
    T take() {
        T value{};
        const std::size_t size = left() < sizeof value ? left() : sizeof value;
        if (size > 0) {
            std::memcpy(&value, at_, size);
        }
        at_ += size;
        return value;
    }

private:
    const std::uint8_t *at_, *end_;
};

// A file in memory that has a path; the same one all the time.
class MemoryFile {
public:
    MemoryFile();
    const char* hold(const void* data, std::size_t size);  // its path

private:
    int descriptor_;
    std::string path_;
};

// Blocks beyond 256 KB are not to be had, so that claims of gigabytes meet a lack of memory; nor are any
// after so many of the input (from 32 on: no limit).
extern int blocks_left;

// Speech-like noise, the same for every input: `count` samples from position `at`.
std::vector<short> sound(int at, int count);

// A file of the source tree as bytes.
std::string read_source(const char* path);

// Ends the process: the target has found a fault.
[[noreturn]] void fault(const char* what);

}  // namespace fuzz

#endif
