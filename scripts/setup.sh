#!/bin/bash
# Installs the Debian packages that a task needs and that are missing.
#
#   scripts/setup.sh TASK...        TASK: build demo deb test bench models quality lint fuzz
#   scripts/setup.sh --list TASK... print the packages instead
#
# Nothing is asked of the network, and nothing needs root, when every package is there already.
set -uf

# What compiles the library.
BUILD="cmake g++ libkissfft-dev libsimde-dev ninja-build pkg-config"
# The host program reads recordings through libsndfile and converts rates with libsoxr.
DEMO="$BUILD libsndfile1-dev libsoxr-dev libasound2-dev libcli11-dev nlohmann-json3-dev zlib1g-dev"
LINT="$DEMO libgtest-dev libbenchmark-dev clang clang-tidy clang-format"
FUZZ="$DEMO libgtest-dev clang libclang-rt-dev llvm"
# 32-bit ARM under the emulator. libc6-dev of a foreign architecture is not wanted: it conflicts with
# the cross compiler's own. Native packages that must be of the same version as their foreign twins
# are named with them, so that apt raises both together.
# (zlib1g-dev is for one architecture only: its headers serve all, the library is named in the presets)
ARMHF_APP="libsndfile1-dev:armhf libsoxr-dev:armhf libasound2-dev:armhf zlib1g zlib1g:armhf"
ARMHF="qemu-user g++-arm-linux-gnueabihf libne10-dev:armhf
       libc6 libstdc++6 libgcc-s1 libc6:armhf libstdc++6:armhf libgcc-s1:armhf"
BENCH="$BUILD $ARMHF libbenchmark-dev"
# Training. Without libopenblas0-pthread Debian's torch falls back to a reference library that is about
# fifteen times slower.
MODELS="$BUILD python3-torch python3-numpy python3-scipy python3-soundfile python3-matplotlib
        libopenblas0-pthread ffmpeg"
# Measuring beside other detectors, which run on node; one from elsewhere will do.
QUALITY="$MODELS"
{ command -v node && command -v npm; } >/dev/null || QUALITY="$QUALITY nodejs npm"
# Packages for this machine and for 32-bit ARM, and the program that looks for faults in them.
DEB="$DEMO $ARMHF $ARMHF_APP lintian"
# The suite runs natively and on both emulated ARM targets, and a small training natively.
TEST="$DEB $MODELS abigail-tools chromium-driver python3-selenium util-linux
      libgtest-dev libgtest-dev:armhf g++-aarch64-linux-gnu libne10-dev:arm64 libgtest-dev:arm64
      libc6:arm64 libstdc++6:arm64 libgcc-s1:arm64"

list_only=no
if [ "${1-}" = --list ]; then
  list_only=yes
  shift
fi
packages=
for task in "$@"; do
  case $task in
    build) packages="$packages $BUILD" ;;
    demo) packages="$packages $DEMO" ;;
    deb) packages="$packages $DEB" ;;
    test) packages="$packages $TEST" ;;
    bench) packages="$packages $BENCH" ;;
    models) packages="$packages $MODELS" ;;
    quality) packages="$packages $QUALITY" ;;
    lint) packages="$packages $LINT" ;;
    fuzz) packages="$packages $FUZZ" ;;
    *) echo "setup: unknown task '$task' (build demo deb test bench models quality lint fuzz)" >&2
       exit 2 ;;
  esac
done
packages=$(printf '%s\n' $packages | sort -u)
if [ $list_only = yes ]; then
  echo $packages
  exit 0
fi

# Prints the packages of "$@" that are not installed. A name without an architecture means ours.
missing_of() {
  local native installed name
  native=$(dpkg --print-architecture)
  installed=$(dpkg-query -W -f='${db:Status-Abbrev}${Package}:${Architecture}\n' 2>/dev/null |
                sed -n "s/^.i //; s/:\($native\|all\)\$//p; /:/p")
  for name; do
    printf '%s\n' "$installed" | grep -qxF -e "$name" || echo "$name"
  done
}

say() { echo "setup: $*"; }

give_up() {
  say "$1" >&2
  echo "Install what these Debian 12 packages hold, then run the command again:" >&2
  echo $missing | fold -s -w 90 | sed 's/^/    /' >&2
  exit 1
}

missing=$packages
command -v dpkg-query >/dev/null && missing=$(missing_of $packages)
[ -n "$missing" ] || exit 0

{ command -v apt-get && command -v dpkg; } >/dev/null || give_up "this system has no apt-get, so nothing can be installed here."
[ "$(id -u)" = 0 ] || give_up "packages are missing and only root may install them."

export DEBIAN_FRONTEND=noninteractive
native=$(dpkg --print-architecture)
for arch in $(printf '%s\n' $missing | sed -n 's/.*://p' | sort -u); do
  [ "$arch" = "$native" ] || dpkg --print-foreign-architectures | grep -qx "$arch" ||
    { say "adding the architecture $arch"; dpkg --add-architecture "$arch" || exit 1; }
done

say "installing" $missing
apt="apt-get -q -y -o DPkg::Lock::Timeout=300 -o Acquire::Retries=3"
# libne10-dev of two architectures disagree about their documentation files, and about nothing else.
install="$apt install --no-install-recommends -o DPkg::Options::=--path-exclude=/usr/share/doc/libne10-dev/*"
codename=$(. /etc/os-release && echo "${VERSION_CODENAME-}")
attempts=4
release=
for attempt in $(seq $attempts); do
  # One index that cannot be had makes the update fail as a whole although the lists that matter
  # are there. So its result does not count: what counts is that apt knows every package.
  $apt -o Acquire::AllowReleaseInfoChange::Suite=true update >/dev/null ||
    say "not every package list could be refreshed"
  unknown=
  for name in $missing; do
    # (grep reads to the end: apt-cache must not see its pipe closed)
    apt-cache show --no-all-versions "$name" 2>/dev/null | grep '^Package:' >/dev/null || unknown="$unknown $name"
  done
  if [ -n "$unknown" ]; then
    say "attempt $attempt of $attempts: apt does not know$unknown"
  elif $install $release $missing; then
    missing=$(missing_of $packages)
    [ -n "$missing" ] || exit 0
    say "attempt $attempt of $attempts: still missing:" $missing
  else
    say "attempt $attempt of $attempts: the installation failed"
  fi
  # A security list that came for one architecture only makes the versions of libc6 differ; every
  # second attempt therefore prefers the release itself.
  if [ -n "$release" ]; then release=; else release=${codename:+-t $codename}; fi
  [ "$attempt" = $attempts ] || sleep $((attempt * 5))
done
give_up "the packages could not be installed (messages above)."
