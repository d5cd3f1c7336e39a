// What a call prints, and files that vanish after use.
#ifndef DNNVAD_TESTS_TEST_SUPPORT_H
#define DNNVAD_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "tests/temp_file.h"

namespace test {

// What `call` prints on standard output, without the line numbers of log prefixes.
template <typename Call>
std::string printed(Call call) {
    testing::internal::CaptureStdout();
    call();
    std::fflush(stdout);
    std::string text = testing::internal::GetCapturedStdout();
    for (std::size_t at = 0; (at = text.find(".cpp:", at)) != std::string::npos;) {
        at += 5;
        text.erase(at, text.find(']', at) - at);
    }
    return text;
}

}  // namespace test

#endif
