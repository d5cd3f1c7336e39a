// The energy detector through a sequence of calls. Run: see harness.h.
#include <new>

#include "dnnvad/evad.h"
#include "harness.h"

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    Reader reader(data, size);
    tz_evad::Vad vad;
    std::vector<short> out(4096);
    try {
        while (reader.left() > 0) {
            const int what = reader.take<std::uint8_t>() % 12;
            const int value = reader.take<std::int16_t>();
            const int frame = value & 255;
            const std::vector<short> samples = sound(64 * frame, frame);
            int waiting;
            switch (what) {
                case 0:
                    vad.init(frame);
                    break;
                case 1:
                    vad.init(frame, reader.take<std::int8_t>());
                    break;
                case 2:
                    vad.init(reader.take<std::int8_t>(), reader.take<std::int8_t>(),
                             reader.take<std::int8_t>(), reader.take<std::int8_t>(), frame);
                    break;
                case 3:
                    vad.free();
                    break;
                case 4:
                    vad.exit();
                    break;
                case 5:
                    vad.vad_get_data(out.data(), value > 4096 ? 4096 : value);
                    break;
                case 6:
                    vad.vad_detect(samples.data(), value < 0 ? value : frame, waiting);
                    break;
                case 7:
                    vad.vad_detect(nullptr, frame, waiting);
                    break;
                case 8:
                    vad.start_frames = reader.take<std::int8_t>();
                    break;
                case 9:
                    vad.pre_frames = reader.take<std::int8_t>();
                    break;
                default:
                    vad.evad_process_one_frame(samples.data(), frame);
                    break;
            }
        }
    } catch (const std::bad_alloc&) {  // bad sizes and a lack of memory are told so
    }
}
