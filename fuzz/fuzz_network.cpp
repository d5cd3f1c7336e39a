// The network loader, then a frame through the network. Run: see harness.h, with -dict=fuzz/network.dict.
#include <memory>

#include "dnnvad/dnn_vad.h"
#include "harness.h"

const bool fuzz::may_assert = true;

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    const auto network = std::make_unique<tz_dnnvad::DNN>(nullptr, file.hold(data, size));
    if (network->getState() != 2) {
        return;
    }
    const int last = network->_layer_number - 1;
    const auto inputs = static_cast<std::size_t>(network->_layer_size[0]);
    const auto outputs = static_cast<std::size_t>(network->_layer_size[last]);
    if (inputs > 100000 || outputs > 100000) {
        return;  // loads, but takes too long for a fuzzer
    }
    const std::unique_ptr<float[]> in(new float[inputs]()), out(new float[outputs]());
    for (std::size_t k = 0; k < inputs; ++k) {
        in[k] = static_cast<float>(k % 7) - 3.0F;
    }
    network->forward(in.get(), network->_layer_size[0], out.get());
}
