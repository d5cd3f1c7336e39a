// The segment report: a list on standard output and a Praat TextGrid.
#include <cmath>
#include <cstdio>
#include <memory>

#include "dnnvad/dnn_vad.h"
#include "dnnvad/saturate.h"
#include "dnnvad/vad_log.h"

namespace tz_dnnvad {

namespace {

constexpr int kFileDebugLevel = 9;  // the lowest level that writes the file
constexpr int kShortMargin = 20;    // frames; shorter margins are remarked on
constexpr float kFrameSeconds = 0.01F;

float seconds(int frame) { return static_cast<float>(frame) * kFrameSeconds; }

// "ooTextFile" long format. The tier holds the speech intervals alone: the silences between them get
// no intervals, kept for the scripts that read it.
void write_text_grid(FILE* file, const std::vector<_VADINFO_>& segments, int frames) {
    const double end = static_cast<double>(seconds(frames));
    std::fprintf(file,
                 "File type = \"ooTextFile\"\n"
                 "Object class = \"TextGrid\"\n\n"
                 "xmin = 0\n"
                 "xmax = %.02f\n"
                 "tiers? <exists>\n"
                 "size = 1\n"
                 "item []:\n"
                 "    item [1]:\n"
                 "        class = \"IntervalTier\"\n"
                 "        name = \"1\"\n"
                 "        xmin = 0\n"
                 "        xmax = %.02f\n"
                 "        intervals: size = %d\n",
                 end, end, static_cast<int>(segments.size()));
    int number = 0;
    for (const _VADINFO_& segment : segments) {
        std::fprintf(file,
                     "        intervals [%d]\n"
                     "            xmin = %.02f\n"
                     "            xmax = %.02f\n"
                     "            text = \"speech\"\n",
                     ++number, static_cast<double>(seconds(segment.start)),
                     static_cast<double>(seconds(segment.end)));
    }
}

void remark_on_margin(const char* which, long long frames) {
    if (frames < kShortMargin) {
        std::printf("%s sil is %d ms\n", which, saturate_to_int(10 * frames));
    }
}

}  // namespace

void CMFE::PrintSegment(const char* path) {
    float total = 0.0F;
    for (const _VADINFO_& segment : _m_v_segments) {
        std::printf("<%.2f %.2f> <%.2f %.2f>\n", static_cast<double>(seconds(segment.start)),
                    static_cast<double>(seconds(segment.end)),
                    static_cast<double>(seconds(segment.speech_start)),
                    static_cast<double>(seconds(segment.last_speech)));
        total += fmaf(static_cast<float>(segment.end), kFrameSeconds, -seconds(segment.start));
    }
    if (!_m_v_segments.empty()) {
        const _VADINFO_& first = _m_v_segments.front();
        const _VADINFO_& last = _m_v_segments.back();
        remark_on_margin("head", 1LL * first.speech_start - first.start);
        remark_on_margin("tail", 1LL * last.end - last.last_speech);
    }
    std::printf(".\n%f\n", static_cast<double>(total));
    if (_m_n_debug_log < kFileDebugLevel) {
        return;
    }
    const std::unique_ptr<FILE, int (*)(FILE*)> file(
        path != nullptr ? std::fopen(path, "wt") : nullptr, std::fclose);
    if (file == nullptr) {
        VAD_ERROR("open %s failed\n", path != nullptr ? path : "(null)");
        return;
    }
    write_text_grid(file.get(), _m_v_segments, _m_n_cur_frame);
}

}  // namespace tz_dnnvad
