#include <kiss_fftr.h>

#include <memory>
#include <vector>

#include "bench/fft_library.h"

namespace bench {

std::function<void()> library_transform(int points) {
    const auto size = static_cast<std::size_t>(points);
    const std::shared_ptr<kiss_fftr_state> plan(kiss_fftr_alloc(points, 0, nullptr, nullptr),
                                                [](kiss_fftr_cfg state) { kiss_fftr_free(state); });
    return [plan, in = std::vector<float>(size, 1000.0F),
            out = std::vector<kiss_fft_cpx>(size / 2 + 1)]() mutable {
        kiss_fftr(plan.get(), in.data(), out.data());
    };
}

}  // namespace bench
