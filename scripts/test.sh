#!/bin/bash
# Builds and tests one preset after the other, and counts.
#
#   scripts/test.sh PRESET...
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-$jobs}
summary= passed=0 failed=0 skipped=0 broken=0

# attribute NAME FILE: the first such attribute of the XML file.
attribute() { grep -om1 "$1=\"[0-9]*\"" "$2" | head -1 | tr -dc 0-9; }

for preset; do
  echo "== $preset"
  started=$SECONDS
  report=$PWD/build/$preset/tests.xml
  rm -f "$report"
  { cmake --preset "$preset" --log-level=WARNING >/dev/null && cmake --build --preset "$preset"; } ||
    { broken=$((broken + 1)); summary+="$preset: the build failed"$'\n'; continue; }
  built=$SECONDS
  ctest --preset "$preset" -j "$jobs" --output-junit "$report"
  status=$?
  if [ ! -s "$report" ]; then
    broken=$((broken + 1)); summary+="$preset: no test ran"$'\n'; continue
  fi
  total=$(attribute tests "$report") bad=$(attribute failures "$report")
  idle=$(($(attribute skipped "$report") + $(attribute disabled "$report")))
  passed=$((passed + total - bad - idle)) failed=$((failed + bad)) skipped=$((skipped + idle))
  [ $status = 0 ] || [ "$bad" != 0 ] || broken=$((broken + 1))
  summary+="$preset: $((total - bad - idle)) passed, $bad failed, $idle skipped"
  summary+=" (build $((built - started)) s, tests $((SECONDS - built)) s)"$'\n'
done

printf '\n%s' "$summary"
echo "$passed passed, $failed failed, $skipped skipped"
[ $failed = 0 ] && [ $broken = 0 ] && [ $passed != 0 ]
