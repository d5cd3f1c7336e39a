#!/bin/bash
# Tests that built files carry the protections that the build promises.
#
#   hardening_test.sh READELF NM FILE...
#
# Shared libraries and programs: addresses of imports resolved at start and then read-only, no
# executable stack, position-independent, guarded stacks, checked string functions.
set -euo pipefail
readelf=$1 nm=$2
shift 2
status=0
for file; do
  lacks() { echo "hardening_test: $file lacks $1" >&2; status=1; }
  segments=$("$readelf" -lW "$file")
  dynamic=$("$readelf" -dW "$file")
  imports=$("$nm" -D --undefined-only "$file")
  grep -q GNU_RELRO <<<"$segments" || lacks "read-only relocations"
  grep -qE 'BIND_NOW|FLAGS_1.*NOW' <<<"$dynamic" || lacks "immediate binding"
  grep -qE 'GNU_STACK .* RW +0x' <<<"$segments" || lacks "a stack that is not executable"
  ! grep -qE '^ *LOAD .* RWE ' <<<"$segments" || lacks "separation of code and data"
  "$readelf" -hW "$file" | grep -q 'Type: *DYN' || lacks "position independence"
  grep -q __stack_chk_fail <<<"$imports" || lacks "stack guards"
  grep -qE '__[a-z_]+_chk(@|$)' <<<"${imports//__stack_chk_fail/}" || lacks "checked string functions"
done
exit $status
