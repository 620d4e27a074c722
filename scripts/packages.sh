#!/bin/bash
# Builds the Debian packages into build/packages, in a copy of the sources:
#
#   scripts/packages.sh                for the machine's architecture, with the documentation
#   scripts/packages.sh ARCHITECTURE   for another, in a root of its own (needs root rights)
set -euo pipefail
cd "$(dirname "$0")/.."

out=$PWD/build/packages
architecture=${1:-}
build_dependencies=(build-essential cmake debhelper libarchive-dev libcli11-dev libgrpc++-dev
  libprotobuf-dev libssl-dev libuv1-dev pkgconf protobuf-compiler)

# copy_sources FOLDER: what was built beside it before is gone.
copy_sources() {
  rm -rf "$(dirname "$1")"
  mkdir -p "$1"
  git ls-files -co --exclude-standard -z '*.md' CMakeLists.txt cmake components debian docs gdb scripts src src-includes tool |
    xargs -0 cp --parents -t "$1"
}

if [ -z "$architecture" ]; then
  scripts/install-deps.sh "${build_dependencies[@]}" doxygen doxygen-awesome-css python3
  copy_sources "$out/own/source"
  (cd "$out/own/source" && dpkg-buildpackage -b -us -uc -j"$(nproc)")
  cp "$out"/own/*.* "$out"
else
  root=$out/root-$architecture.tar
  scripts/bare-root.sh "$root" "$architecture" "${build_dependencies[@]}"
  copy_sources "$out/$architecture/source"
  scripts/in-root.sh "$root" "$out/$architecture" \
    sh -ec "cd /mnt/source && dpkg-buildpackage -B -us -uc -j$(nproc)"
  cp "$out/$architecture"/*.* "$out"
fi
