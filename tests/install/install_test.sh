#!/bin/bash
# Tests what `cmake --install` leaves behind, as a host would meet it.
#
#   install_test.sh install|headers|find_package|pkg_config|exports|program RECORDING
#
# The environment (set in CMakeLists.txt) names CMAKE, GENERATOR, BUILD_DIR, CXX, CXX_FLAGS, NM,
# TOOLCHAIN_FILE, EMULATOR and LIBDIR. The first test installs; the others look at what is there.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$BUILD_DIR/tests/install
tree=$work/moved

die() { echo "install_test: $*" >&2; exit 1; }

# run LIBRARY_PATH PROGRAM: under the emulator when there is one.
run() { env LD_LIBRARY_PATH="$1" $EMULATOR "$2" || die "$2 failed"; }

case $1 in
  install)
    # Moved after the installation: nothing in the tree may know where it was put.
    rm -rf "$work/prefix" "$tree"
    "$CMAKE" --install "$BUILD_DIR" --prefix "$work/prefix" >/dev/null
    mv "$work/prefix" "$tree"
    ;;
  headers)
    # Each public header on its own, with nothing but the installed tree to include from.
    mapfile -t headers < <(cd "$tree/include" && find . -name '*.h' -printf '%P\n' | sort)
    [ ${#headers[@]} -ge 11 ] || die "only ${#headers[@]} headers are installed"
    for header in "${headers[@]}"; do
      echo "#include \"$header\"" |
        $CXX -std=c++17 -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$tree/include" -x c++ -
    done
    ;;
  find_package)
    rm -rf "$work/host"
    "$CMAKE" -S "$here" -B "$work/host" -G "$GENERATOR" -DCMAKE_PREFIX_PATH="$tree" -DCMAKE_CXX_COMPILER="$CXX" \
      -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN_FILE" -DCMAKE_CXX_FLAGS="$CXX_FLAGS" >/dev/null
    "$CMAKE" --build "$work/host" >/dev/null
    run "" "$work/host/host_shared"
    run "" "$work/host/host_static"
    ;;
  pkg_config)
    export PKG_CONFIG_LIBDIR=$tree/$LIBDIR/pkgconfig
    flags=$(pkg-config --cflags --libs dnnvad)
    $CXX -std=c++17 "$here/host.cpp" $flags -o "$work/pc_shared"
    static=$(pkg-config --static --cflags --libs dnnvad)
    $CXX -std=c++17 "$here/host.cpp" ${static/-ldnnvad/-l:libdnnvad.a} -o "$work/pc_static"
    run "$tree/$LIBDIR" "$work/pc_shared"
    run "" "$work/pc_static"
    ! env LD_LIBRARY_PATH= $EMULATOR "$work/pc_shared" 2>/dev/null || die "pc_shared does not use the library"
    ;;
  exports)
    # The exported names, each once: no signatures, no compiler's own parts of a class.
    "$NM" -DC --defined-only "$tree/$LIBDIR/libdnnvad.so" |
      sed -E 's/^[0-9a-f]* *[A-Za-z] //; s/\(.*//; /^(vtable|typeinfo|typeinfo name) for /d' |
      LC_ALL=C sort -u > "$work/exported.txt"
    missing=$(LC_ALL=C comm -23 "$here/exports.txt" "$work/exported.txt")
    [ -z "$missing" ] || die "not exported:" $missing
    # Whatever else is exported can only be a member of a public class, so a header must have it.
    cat "$tree"/include/dnnvad/*.h "$tree"/include/dnnvad/feat/*.h > "$work/headers.txt"
    for name in $(LC_ALL=C comm -13 "$here/exports.txt" "$work/exported.txt"); do
      [[ $name == tz_*::*::* ]] && grep -qw -- "${name##*::}" "$work/headers.txt" ||
        die "exported, but not part of the interface: $name"
      ! grep -qE "DNNVAD_LOCAL .*[^A-Za-z0-9_]${name##*::}\\(" "$work/headers.txt" ||
        die "a private step is exported: $name"
    done
    ;;
  program)
    # The installed program works with the model installed beside it, and with no other.
    model=$tree/share/dnnvad/vad8k.bin
    lines=$($EMULATOR "$tree/bin/dnnvad" detect "$2" | wc -l) || die "the program failed"
    [ "$lines" -gt 1 ] || die "no speech was found"
    mv "$model" "$model.away"
    : > "$model"
    status=0
    $EMULATOR "$tree/bin/dnnvad" detect "$2" >/dev/null 2>&1 || status=$?
    mv "$model.away" "$model"
    [ $status = 1 ] || die "the program does not read the installed model"
    ;;
  *) die "unknown test '$1'" ;;
esac
