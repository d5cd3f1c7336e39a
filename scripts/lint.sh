#!/bin/bash
# clang's warnings (as errors), clang-tidy over the library and the program, and the format.
set -uo pipefail
cd "$(dirname "$0")/.."
failed=0

echo "== clang"
{ cmake --preset clang --log-level=WARNING >/dev/null && cmake --build --preset clang -- -k 0; } || failed=1

echo "== clang-tidy"
run-clang-tidy-14 -quiet -p build/clang -j "$(nproc)" '/(dnnvad|app)/[^ ]*\.cpp$' 2>/dev/null || failed=1

echo "== clang-format"
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run -Werror || failed=1

exit $failed
