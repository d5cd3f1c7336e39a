#!/bin/bash
# The shared library's interface (symbols, and the layout of every type that they reach) against the
# one that hosts were built with.
#
#   abi_test.sh LIBRARY HEADERS BASELINE.abi.gz            fails and lists what changed
#   abi_test.sh --accept LIBRARY HEADERS BASELINE.abi.gz   makes today's interface the baseline
#
# The library has to carry debug information. A change that hosts would notice is a decision: raise the
# library's version, then `make abi`.
set -euo pipefail
accept=no
if [ "$1" = --accept ]; then accept=yes; shift; fi
library=$1 headers=$2 baseline=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if [ $accept = yes ]; then
  abidw --exported-interfaces-only --no-show-locs --no-corpus-path --no-comp-dir-path --drop-private-types \
    --headers-dir "$headers" --type-id-style hash --out-file "$work/abi" "$library"
  gzip -9nc "$work/abi" > "$baseline"
  exit
fi
gunzip -c "$baseline" > "$work/abi"
[ "$(grep -c "<elf-symbol " "$work/abi")" -gt 100 ] || { echo "abi_test: $baseline holds no interface" >&2; exit 1; }
abidiff --headers-dir2 "$headers" --drop-private-types "$work/abi" "$library"
