#include "dnnvad/vad_config.h"

namespace tz_dnnvad {

namespace {
constexpr int kSmoothWindowFrames = 20;
}

VadConfiger::VadConfiger()
    : _flag(1),
      _smooth_window(kSmoothWindowFrames),
      _speech_threshold(0.2F),
      _sil_threshold(0.2F) {}

VadConfiger::~VadConfiger() = default;

bool VadConfiger::load() {
    _smooth_window = kSmoothWindowFrames;
    return true;
}

}  // namespace tz_dnnvad
