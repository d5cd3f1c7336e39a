// Files and folders that vanish with the object that made them.
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

class TempDir {
public:
    TempDir() : name_("") {
        std::filesystem::remove(name_.path());
        std::filesystem::create_directory(name_.path());
    }
    ~TempDir() { std::filesystem::remove_all(name_.path()); }

    std::string path() const { return name_.path(); }

private:
    TempFile name_;
};

}  // namespace test

#endif
