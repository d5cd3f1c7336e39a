// A file that vanishes with the object that wrote it.
#ifndef DNNVAD_TESTS_TEMP_FILE_H
#define DNNVAD_TESTS_TEMP_FILE_H

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

namespace test {

class TempFile {
public:
    // The name is this process's own, so that tests may run beside each other.
    explicit TempFile(const std::string& content) {
        static int number = 0;
        path_ = std::filesystem::temp_directory_path() /
                ("dnnvad_" + std::to_string(getpid()) + "_" + std::to_string(number++));
        std::ofstream(path_, std::ios::binary) << content;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const char* path() const { return path_.c_str(); }

private:
    std::string path_;
};

}  // namespace test

#endif
