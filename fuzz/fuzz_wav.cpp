// The program's way from a sound file to samples. Run: see harness.h.
#include "app/audio_input.h"
#include "app/program.h"
#include "harness.h"

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    Reader reader(data, size);
    AudioOptions options;
    const auto choice = reader.take<std::uint8_t>();
    options.raw_rate = choice % 8 == 0 ? 11025 : 0;
    options.channel = choice / 8 % 4;
    try {
        AudioInput input(file.hold(reader.rest(), reader.left()), options);
        // (few conversions: designing their filters takes a thousand times as long as all else)
        input.convert(choice == 7 ? 8000 : choice == 6 ? 16000 : input.rate());
        std::vector<short> block(480);
        // A header may claim hours of silence.
        for (int blocks = 0; blocks < 20 && input.read(block.data(), block.size()) > 0; ++blocks) {
        }
        if (!(input.share() >= 0 && input.share() <= 1) || input.clipped() < 0) {
            fault("a share beyond 0 .. 1");
        }
    } catch (const Failure&) {
    }
}
