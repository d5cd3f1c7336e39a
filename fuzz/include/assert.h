// Stands in for the system's header in fuzzing builds: a failed assertion ends the input, not the fuzzer.
// (No include guard: like the original it may be included again.)
#undef assert
#define assert(expression) \
    ((expression) ? (void)0 : ::fuzz::assertion_failed(#expression, __FILE__, __LINE__))

#ifndef DNNVAD_FUZZ_ASSERT_H
#define DNNVAD_FUZZ_ASSERT_H
namespace fuzz {
[[noreturn]] void assertion_failed(const char* expression, const char* file, int line);
}
#endif
