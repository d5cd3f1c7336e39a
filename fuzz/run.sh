#!/bin/bash
# Fuzzes targets (all unless some are named), or tells what that is worth.
#
#   fuzz/run.sh SECONDS [TARGET...]     inputs of interest to build/fuzz/corpus, findings to build/fuzz/found
#   fuzz/run.sh coverage [TARGET...]    what the corpora of the tree reach; build/coverage/lines.txt: each line
#   fuzz/run.sh proof [TARGET...]       puts a fault into a copy of the sources for each target to find
set -euo pipefail
cd "$(dirname "$0")/.."
what=$1 && shift
[ $# -gt 0 ] || set -- config network bleep evad session model labels wav
declare -A faults=(
  [config]='dnnvad/dnn_vad_param.cpp s/saturate_to_int(number)/saturate_to_int(number * 10)/'
  [network]='dnnvad/vad_nn.cpp s/%255s%n/%256s%n/'
  [bleep]='dnnvad/bleep_detect.cpp s/left = (cells - cell)/left = (cells - cell + kWord - 1)/'
  [evad]='dnnvad/evad.cpp s/vad.hist_size > 0 ? ring::index(head, vad.hist_size) : 0/ring::index(head, vad.hist_size)/'
  [session]='dnnvad/dnn_vad_audio.cpp s/2 \* count > capacity/count > capacity/'
  [model]='app/model_file.cpp s/needed > most/needed < 0/'
  [labels]='app/labels.cpp s/next >= tokens.size()/next == tokens.size()/'
  [wav]='app/audio_input.cpp s/channel_ > info_.channels/channel_ > 1024/')
# search BUILD TARGET SECONDS CORPUS...: says what was found, and in how many executions.
search() {
  local options=("-max_total_time=$3" "-artifact_prefix=$1/found/$2-" -print_final_stats=1 -close_fd_mask=3)
  local log=$1/$2.log started=$SECONDS
  [ ! -f "fuzz/$2.dict" ] || options+=("-dict=fuzz/$2.dict")
  mkdir -p "$1/found" "$4"
  "$1/fuzz/fuzz_$2" "${options[@]}" "${@:4}" 2>"$log" || true
  echo "$2: $(sed -n 's/.*executed_units: *//p' "$log") executions in $((SECONDS - started)) s:" \
    "$(grep '^SUMMARY' "$log" || echo nothing)"
}
export -f search
case $what in
  coverage)
    cmake --preset fuzz -B build/coverage -D DNNVAD_SANITIZE= >/dev/null \
      -D CMAKE_CXX_FLAGS="-O1 -fprofile-instr-generate -fcoverage-mapping"
    cmake --build build/coverage --target "${@/#/fuzz_}"
    objects=()
    for target; do
      LLVM_PROFILE_FILE=build/coverage/$target.profraw build/coverage/fuzz/fuzz_"$target" -close_fd_mask=1 \
        fuzz/corpus/"$target"/* 2>/dev/null
      objects+=(-object build/coverage/fuzz/fuzz_"$target")
    done
    llvm-profdata-14 merge -o build/coverage/all.profdata build/coverage/*.profraw
    view=("${objects[@]:1}" -instr-profile build/coverage/all.profdata dnnvad app)
    llvm-cov-14 show "${view[@]}" >build/coverage/lines.txt
    llvm-cov-14 report -show-region-summary=0 -show-functions=0 "${view[@]}"
    ;;
  proof)
    copy=build/seeded missed=0 && mkdir -p build/seeded
    git ls-files -z | xargs -0 cp --parents -t $copy
    cmake -S $copy -B $copy/build --preset fuzz -D DNNVAD_WERROR=OFF >/dev/null
    for target; do
      read -r file edit <<<"${faults[$target]}"
      sed "$edit" "$file" >"$copy/$file"
      ! cmp -s "$file" "$copy/$file" || { echo "$target: no fault to put in"; exit 1; }
      cmake --build $copy/build --target "fuzz_$target" >/dev/null
      rm -rf $copy/corpus && mkdir $copy/corpus && cp fuzz/corpus/"$target"/seed-* $copy/corpus
      search $copy/build "$target" 600 $copy/corpus | tee $copy/answer
      ! grep -q ': nothing' $copy/answer || missed=1
      cp "$file" "$copy/$file"
    done
    exit $missed
    ;;
  *)
    cmake --preset fuzz >/dev/null && cmake --build --preset fuzz
    printf '%s\n' "$@" | xargs -P "$(nproc)" -I TARGET bash -c \
      "search build/fuzz TARGET $what build/fuzz/corpus/TARGET fuzz/corpus/TARGET"
    [ -z "$(ls build/fuzz/found)" ]
    ;;
esac
