// A session through any sequence of calls with any values. Run: see harness.h.
//
// A call is a byte that chooses it, then its arguments. The models are tiny ones, with cut and bent copies
// of them, so that many sequences run in a second.
#include <algorithm>
#include <memory>

#include "dnnvad/dnn_vad.h"
#include "harness.h"

namespace {

using fuzz::MemoryFile;
using fuzz::Reader;

// A model or template: a bundled one, maybe cut short, maybe with one byte changed.
const char* some_file(Reader& reader, MemoryFile& file, const std::string& whole) {
    const auto how = reader.take<std::uint8_t>();
    if (how < 160) {
        return file.hold(whole.data(), whole.size());
    }
    const auto at = reader.take<std::uint16_t>() % whole.size();
    if (how < 176) {
        return file.hold(whole.data(), at);
    }
    if (how < 250) {
        std::string bent = whole;
        bent[at] = static_cast<char>(reader.take<std::uint8_t>());
        return file.hold(bent.data(), bent.size());
    }
    return how == 250 ? "/nonexistent" : how == 251 ? "" : how == 252 ? "/dev/null" : nullptr;
}

}  // namespace

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile model, bleep;
    static const std::string kModels[] = {read_source("fuzz/tiny8k.bin"),
                                          read_source("fuzz/tiny16k.bin")};
    static const std::string kTemplates[] = {read_source("models/bleep8k.txt"),
                                             read_source("models/bleep16k.txt")};
    Reader reader(data, size);
    auto session = std::make_unique<tz_dnnvad::CMFE>();
    session->mfeSetParam(9, 8000);
    int position = 0, bytes, inits = 0, chunks = 0;
    for (int calls = 0; reader.left() > 0 && calls < 100; ++calls) {
        const int what = reader.take<std::uint8_t>() % 32;
        switch (what) {
            case 0: {
                const int id = reader.take<std::uint8_t>() % 30;
                session->mfeSetParam(id, reader.take<float>());
                break;
            }
            case 1:
                session->mfeSetParam(reader.take<std::uint8_t>() % 30, reader.take<std::int16_t>());
                break;
            case 2:
                session->mfeGetParam(reader.take<std::int8_t>());
                break;
            case 3: {
                const bool wide = (reader.take<std::uint8_t>() & 1) != 0;
                if (++inits <= 4) {
                    const char* const path = some_file(reader, model, kModels[wide]);
                    const bool templated = reader.take<std::uint8_t>() % 8 == 1;
                    session->mfeInit_load_model(
                        path, templated ? some_file(reader, bleep, kTemplates[wide]) : nullptr);
                }
                break;
            }
            case 4:
                if (++inits <= 4)
                    session->mfeInit(some_file(reader, model, kModels[0]));
                break;
            case 5:
                session->mfeReset();
                break;
            case 6:
                session->mfeExit();
                break;
            case 7:
                session->mfeSendData(nullptr, 0);
                break;
            case 8:
                session->mfeSendData(nullptr, reader.take<std::int16_t>());
                break;
            case 9: {
                const int count = reader.take<std::int16_t>();
                const std::vector<short> samples = sound(position, count > 0 ? count : 1);
                session->mfeSendData(samples.data(), count);
                break;
            }
            case 10:
            case 11: {
                const int capacity =
                    what == 10 ? reader.take<std::uint16_t>() : reader.take<std::int8_t>();
                std::vector<char> room(static_cast<std::size_t>(std::max(capacity, 1)));
                session->mfeGetCallbackData(room.data(), &bytes, capacity);
                break;
            }
            case 12:
                session->mfeGetCallbackData(nullptr, nullptr, 1);
                break;
            case 13:
                session->mfeIsSil(reader.take<std::int16_t>(), reader.take<std::int16_t>());
                break;
            case 14:
                session->mfeIsSil(reader.take<int>(), reader.take<int>());
                break;
            case 15:
                session->mfeGetFrame(reader.take<int>());
                break;
            case 16:
                session->mfeGetSamplespot(reader.take<int>());
                break;
            case 17:
                session->mfeVADOneFrame(reader.take<std::int16_t>(), true);
                break;
            case 18: {
                const int count = reader.take<std::int16_t>() & 1023;
                const std::vector<short> samples = sound(position, count + 1);
                session->mfeVADOneFrame(samples.data(), count - 8, reader.take<std::int16_t>(),
                                        (count & 1) != 0);
                break;
            }
            case 19:
                session->PrintSegment("/dev/null");
                break;
            case 20: {
                const int capacity = reader.take<std::uint16_t>(),
                          count = reader.take<std::int16_t>();
                const auto room = static_cast<std::size_t>(capacity) + 1;
                std::vector<short> from(room, 1000), to(room);
                int written;
                session->down_sample(from.data(), reader.take<std::int16_t>(), count, to.data(),
                                     reader.take<std::int16_t>(), &written, capacity);
                break;
            }
            case 21:
                session->mfeSetLogLevel(reader.take<std::int8_t>());
                break;
            case 22:
                session->mfeAdjustPauseThreshold(reader.take<int>());
                break;
            case 23:
                session->UserStop();
                break;
            case 24:
                session->MakeSegment();
                break;
            case 25:
                session->mfeReturnStatus(reader.take<int>());
                break;
            case 26:
                blocks_left = reader.take<std::uint8_t>();
                break;
            default: {  // as a host does, for a while
                const int how = reader.take<std::uint8_t>();
                std::vector<char> room(static_cast<std::size_t>(how < 32 ? 4000 : how / 32 * 40));
                const int capacity = static_cast<int>(room.size());
                for (int chunk = how % 32; chunk >= 0 && chunks < 150; --chunk, ++chunks) {
                    const std::vector<short> samples = sound(position, session->_m_n_frame_shift);
                    session->mfeSendData(samples.data(), session->_m_n_frame_shift);
                    position += session->_m_n_frame_shift;
                    session->mfeDNNDetect();
                    session->mfeGetCallbackData(room.data(), &bytes, capacity);
                    if (bytes < 0 || bytes > capacity) {
                        fault("more audio than asked for");
                    }
                }
            }
        }
    }
}
