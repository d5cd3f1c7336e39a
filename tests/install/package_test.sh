#!/bin/bash
# Tests the Debian packages of a build: packs them, unpacks them into an empty root, runs the program
# from there and has lintian look for errors.
#
#   package_test.sh BUILD PACK_SCRIPT RECORDING [EMULATOR...]
set -euo pipefail
build=$1 pack=$2 recording=$3
shift 3
work=$build/tests/package
rm -rf "$work"
mkdir -p "$work/root"

die() { echo "package_test: $*" >&2; exit 1; }

"$pack" "$build" "$work"
for package in libdnnvad1 libdnnvad-dev dnnvad; do
  deb=$(echo "$work/${package}"_*.deb)
  [ -f "$deb" ] || die "there is no package $package"
  dpkg-deb -x "$deb" "$work/root"
  [ $package = dnnvad ] || [ "$(dpkg-deb -f "$deb" Multi-Arch)" = same ] || die "$deb replaces its twin"
done
root=$work/root
expected=$("$@" "$build/app/dnnvad" detect "$recording")
[ "$(echo "$expected" | wc -l)" -gt 1 ] || die "no speech is found in $recording"
printed=$("$@" "$root/usr/bin/dnnvad" detect "$recording") || die "the program failed"
[ "$printed" = "$expected" ] || die "the unpacked program prints"$'\n'"$printed"
# It must be the packaged model that it used.
: > "$root/usr/share/dnnvad/vad8k.bin"
! "$@" "$root/usr/bin/dnnvad" detect "$recording" >/dev/null 2>&1 || die "another model than the packaged one is used"

man=$(zcat "$root/usr/share/man/man1/dnnvad.1.gz")
for command in $("$@" "$root/usr/bin/dnnvad" --help | sed -n '/^Subcommands:/,$ s/^  \([a-z-]*\) .*/\1/p'); do
  grep -qF "dnnvad $command" <<<"${man//\\/}" || die "the man page does not know '$command'"
done
# What the completion offers for a command and for an option.
complete() {
  PATH=$root/usr/bin:$PATH bash -c '. "$1"; shift; emulator=$1; shift
    dnnvad() { $emulator "$(type -P dnnvad)" "$@"; }
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); compopt() { :; }; _dnnvad; echo "${COMPREPLY[@]}"' \
    bash "$root/usr/share/bash-completion/completions/dnnvad" "$emulator" dnnvad "$@"
}
emulator=$*
[[ " $(complete "de") " == *" detect "* ]] || die "completion of a command: $(complete "de")"
[[ " $(complete detect --form) " == *" --format "* ]] || die "completion of an option: $(complete detect --form)"
[[ " $(complete detect --set max_sp) " == *" max_sp_pause= "* ]] || die "completion of a parameter: $(complete detect --set max_sp)"
[[ " $(complete detect -f "") " == *" rttm "* ]] || die "completion of a format: $(complete detect -f "")"

faults=$(lintian --allow-root --fail-on error --tag-display-limit 0 "$work"/*.deb) || die "$faults"
