#!/bin/bash
# Times the library natively and counts its instructions on emulated 32-bit ARM.
#
#   bench/run.sh [OPTION...]    options for the native program, e.g. --benchmark_filter=session
set -euo pipefail
cd "$(dirname "$0")/.."

for preset in bench bench-armhf; do
  cmake --preset $preset --log-level=WARNING >/dev/null
  cmake --build --preset $preset
done
echo "== this machine: $(uname -m)"
build/bench/bench/dnnvad_bench "$@"
echo "== 32-bit ARM, emulated: executed instructions"
bench/instructions.sh build/bench-armhf/bench/dnnvad_repeat build/bench/bench/libcount_instructions.so
