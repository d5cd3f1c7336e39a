// The network loader, then a frame through the network. Run: see harness.h, with -dict=fuzz/network.dict.
#include <memory>

#include "dnnvad/dnn_vad.h"
#include "harness.h"

void fuzz::one_input(const std::uint8_t* data, std::size_t size) {
    static MemoryFile file;
    blocks_left = size > 0 ? data[0] : 32;
    const auto network = std::make_unique<tz_dnnvad::DNN>(nullptr, file.hold(data, size));
    if (network->getState() != 2) {
        network->set_network(nullptr, 0);
        return;
    }
    const auto size_of = [&network](int k) {
        return static_cast<std::size_t>(network->_layer_size[k]);
    };
    std::size_t weights = 0;
    for (int k = 0; k + 1 < network->_layer_number; ++k) {
        weights += size_of(k) * size_of(k + 1);
    }
    if (weights > 2000 || size_of(0) > 2000) {
        return;  // loads, but takes too long for a fuzzer
    }
    const std::size_t inputs = size_of(0), outputs = size_of(network->_layer_number - 1);
    const std::unique_ptr<float[]> in(new float[inputs]()), out(new float[outputs]());
    for (std::size_t k = 0; k < inputs; ++k) {
        in[k] = static_cast<float>(k % 7) - 3.0F;
    }
    network->forward(in.get(), network->_layer_size[0], out.get());
}
