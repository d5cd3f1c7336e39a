#!/bin/sh
# Installs what the training pipeline needs on Debian 12. Run as root; quick when nothing is missing.
#
# libopenblas0-pthread matters: without it Debian's torch falls back to a reference library that is
# about fifteen times slower.
set -eu

packages="python3-torch python3-numpy python3-scipy python3-soundfile python3-matplotlib
          libopenblas0-pthread ffmpeg
          cmake g++ libkissfft-dev libsimde-dev pkg-config"

missing=""
for package in $packages; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q "ok installed" ||
        missing="$missing $package"
done
[ -z "$missing" ] && exit 0

if [ "$(id -u)" != 0 ]; then
    echo "training/setup.sh: run as root to install:$missing" >&2
    exit 1
fi
# An index of another architecture may fail to download while the ones that matter are there.
apt-get update || echo "training/setup.sh: apt-get update was incomplete, going on" >&2
apt-get install -y --no-install-recommends $missing
