#!/bin/bash
# Prints how many instructions the ARM build executes per frame and per step.
#
#   bench/instructions.sh PROGRAM PLUGIN    PROGRAM: dnnvad_repeat for ARM
#
# The program runs a workload N and 2 N times; the difference is free of what happens once.
set -euo pipefail
program=$1
plugin=$2

emulator=${EMULATOR:-qemu-arm -cpu cortex-a7 -L /}
executed() { $emulator -plugin "$plugin" "$program" "$1" "$2" 2>&1 >/dev/null; }

printf '%-34s %12s\n' '' instructions
$emulator "$program" | while read -r frames name; do
  times=$((100 / frames))
  once=$(executed "$name" $times)
  twice=$(executed "$name" $((2 * times)))
  printf '%-34s %12d\n' "$name" $(((twice - once) / (times * frames)))
done
$emulator "$program" memory
