// Runs a target over the files of folders instead of fuzzing: what was found once must not come back.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "harness.h"

int main(int argc, char** argv) {
    int count = 0;
    // The library's lines are many.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return 1;
    }
    for (int k = 1; k < argc; ++k) {
        for (const auto& entry : std::filesystem::directory_iterator(argv[k])) {
            std::ifstream file(entry.path(), std::ios::binary);
            const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
            std::fprintf(stderr, "%s\n", entry.path().c_str());
            fuzz::run(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
            ++count;
        }
    }
    std::fprintf(stderr, "%d inputs\n", count);
    return count > 0 ? 0 : 1;
}
