// Keeps the library's lines out of our own output.
#ifndef DNNVAD_BENCH_OWN_OUTPUT_H
#define DNNVAD_BENCH_OWN_OUTPUT_H

#include <cstdio>

namespace bench {

// Sends standard output, where the library prints (at 16 kHz a line per frame), to /dev/null, and
// returns a stream on what standard output was. Call it once, first of all.
std::FILE* take_standard_output();

}  // namespace bench

#endif
