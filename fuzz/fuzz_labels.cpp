// The program's readers of labels. Run: see harness.h, with -dict=fuzz/labels.dict.
#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "app/labels.h"
#include "app/program.h"
#include "harness.h"

namespace {

// A folder with recordings: the input labels one in each format and perhaps a fourth, a folder the last.
struct Folder {
    explicit Folder(const char* file) {
        char name[] = "/tmp/labelsXXXXXX";
        path = mkdtemp(name) != nullptr ? name : "/nonexistent";
        for (const char* const link : {"/a.TextGrid", "/b.txt", "/c.rttm", "/e.txt"}) {
            std::filesystem::create_symlink(link[1] == 'e' ? "." : file, path + link);
        }
    }
    ~Folder() { std::filesystem::remove_all(path); }
    std::string path;
};

}  // namespace

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    static const Folder folder(file.hold("", 0));
    Reader reader(data, size);
    const auto choice = reader.take<std::uint8_t>();
    file.hold(reader.rest(), reader.left());
    const char* const stems[] = {"a", "a", "a", "b", "b", "c", "d", "e"};
    try {
        double end = -1, join = choice < 128 ? 0 : 0.3;
        for (const Interval& interval : read_labels(folder.path, stems[choice % 8], join)) {
            if (!(interval.from > end && interval.from > end + join - 1e-6 &&
                  interval.to >= interval.from && std::isfinite(interval.to))) {
                fault("labels out of order");
            }
            end = interval.to;
        }
    } catch (const Failure&) {
    }
}
