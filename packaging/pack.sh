#!/bin/sh
# Packs a build folder of the program into Debian packages in another folder.
#
#   packaging/pack.sh BUILD OUT
set -eu
out=$(mkdir -p "$2" && cd "$2" && pwd)
cd "$1"
architecture=$(sed -n 's/.*CPACK_DEBIAN_PACKAGE_ARCHITECTURE "\(.*\)").*/\1/p' CPackConfig.cmake)
rm -f "$out"/*_"$architecture".deb
# dpkg-shlibdeps reads foreign programs only when it is told that they are foreign.
log=$(DEB_HOST_ARCH=$architecture cpack -G DEB -B "$out/pack-$architecture" 2>&1) ||
  { printf '%s\n' "$log" >&2; exit 1; }
mv "$out/pack-$architecture"/*.deb "$out"
rm -rf "$out/pack-$architecture"
# Those of several architectures can be installed side by side, which this CPack cannot say.
for package in "$out"/lib*_"$architecture".deb; do
  dpkg-deb -R "$package" "$out/unpacked"
  sed -i "s/^Architecture:.*/&\nMulti-Arch: same/" "$out/unpacked/DEBIAN/control"
  dpkg-deb --root-owner-group -b "$out/unpacked" "$package" >/dev/null
  rm -r "$out/unpacked"
done
