// The program's way from a sound file to samples. Run: see harness.h.
#include "app/audio_input.h"
#include "app/program.h"
#include "harness.h"

const bool fuzz::may_assert = false;

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    Reader reader(data, size);
    AudioOptions options;
    const auto choice = reader.take<std::uint8_t>();
    options.raw_rate = choice % 8 == 0 ? 11025 : 0;
    options.channel = choice / 8 % 4;
    const int rate = choice < 128 ? 8000 : 16000;
    try {
        AudioInput input(file.hold(reader.rest(), reader.left()), options);
        PcmReader pcm(input, rate);
        std::vector<short> block(480);
        // A header may claim hours of silence.
        for (int blocks = 0; blocks < 200 && pcm.read(block.data(), block.size()) > 0; ++blocks) {
        }
    } catch (const Failure&) {
    }
}
