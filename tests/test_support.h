// Files that vanish after use, and what a call prints.
#ifndef DNNVAD_TESTS_TEST_SUPPORT_H
#define DNNVAD_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace test {

class TempFile {
public:
    explicit TempFile(const std::string& content) {
        static int number = 0;
        path_ = testing::TempDir() + "dnnvad_" + std::to_string(getpid()) + "_" +
                std::to_string(number++);
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};

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
