#!/bin/bash
# Builds the Debian packages into build/packages, in a copy of the sources:
#
#   scripts/packages.sh                for the machine's architecture, with the documentation
#   scripts/packages.sh ARCHITECTURE   for another, in a root of its own (needs root rights)
set -euo pipefail
cd "$(dirname "$0")/.."

out=$PWD/build/packages
architecture=${1:-}
build_dependencies=(build-essential cmake debhelper libssl-dev libuv1-dev pkgconf)

# copy_sources FOLDER
copy_sources() {
  rm -rf "$1"
  mkdir -p "$1"
  git ls-files -co --exclude-standard -z CMakeLists.txt README.md cmake debian docs src src-includes |
    xargs -0 cp --parents -t "$1"
}

mkdir -p "$out"
if [ -z "$architecture" ]; then
  scripts/install-deps.sh "${build_dependencies[@]}" doxygen
  copy_sources "$out/source"
  cd "$out/source"
  dpkg-buildpackage -b -us -uc -j"$(nproc)"
else
  root=$out/root-$architecture
  scripts/bare-root.sh "$root" "$architecture" "${build_dependencies[@]}"
  rm -f "$root"/build/*.*
  copy_sources "$root/build/source"
  scripts/in-root.sh "$root" sh -ec "cd /build/source && dpkg-buildpackage -B -us -uc -j$(nproc)"
  cp "$root"/build/*.deb "$root"/build/*.changes "$root"/build/*.buildinfo "$out"
fi
