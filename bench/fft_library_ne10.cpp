#include <ne10/NE10.h>

#include <memory>
#include <vector>

#include "bench/fft_library.h"

namespace bench {

std::function<void()> library_transform(int points) {
    const auto size = static_cast<std::size_t>(points);
    const std::shared_ptr<ne10_fft_r2c_state_float32_t> plan(ne10_fft_alloc_r2c_float32(points),
                                                             ne10_fft_destroy_r2c_float32);
    return [plan, in = std::vector<float>(size, 1000.0F),
            out = std::vector<ne10_fft_cpx_float32_t>(size / 2 + 1)]() mutable {
        ne10_fft_r2c_1d_float32_neon(out.data(), in.data(), plan.get());
    };
}

}  // namespace bench
