// Files of the source tree, and what is in them.
#ifndef DNNVAD_TESTS_SOURCE_FILES_H
#define DNNVAD_TESTS_SOURCE_FILES_H

#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace test {

inline std::string source(const std::string& path) { return DNNVAD_SOURCE_DIR "/" + path; }

inline std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// The samples of a mono 16-bit WAV file of ours.
inline std::vector<short> read_wav(const std::string& path) {
    const std::string bytes = read_file(path);
    const std::size_t at = bytes.find("data") + 8;
    if (at >= bytes.size() || at < 8) {
        throw std::runtime_error(path + " is no recording");
    }
    std::vector<short> samples((bytes.size() - at) / sizeof(short));
    std::memcpy(samples.data(), &bytes[at], samples.size() * sizeof(short));
    return samples;
}

}  // namespace test

#endif
