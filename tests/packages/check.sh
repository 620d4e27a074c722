#!/bin/bash
# Installs the Debian packages in a bare root, uses them there and removes them again. Needs root
# rights.
#
#   tests/packages/check.sh PACKAGES_DIR ARCHITECTURE...
#
# KORVO_SPOIL=header changes a header in the package of the last architecture first, to show that the
# check would see it.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
packages=$(cd "$1" && pwd)
shift
architectures=("$@")

# What a user has: compilers, and no header or library but theirs.
"$source_dir/scripts/bare-root.sh" "$packages/bare.tar" "$(IFS=,; echo "${architectures[*]}")" \
  cmake g++-multilib make pkgconf
root=$packages/bare
rm -rf "$root"
mkdir "$root"
tar -C "$root" -xf "$packages/bare.tar"

mkdir "$root/check"
for architecture in "${architectures[@]}" all; do
  cp "$packages"/*_"$architecture".deb "$root/check"
done
cp "$source_dir/examples/readme/readme.cpp" "$source_dir/examples/readme/expected.txt" \
  "$source_dir/tests/install/event_loop.cpp" "$here/inside.sh" "$here/CMakeLists.txt" "$root/check"
# As in the README.
grep -q '^find_package(KorvoAPI REQUIRED)$' "$source_dir/README.md"
grep -qF "c++ -std=c++20 agent.cpp \$(pkg-config --cflags --libs KorvoAPI)" "$source_dir/README.md"

if [ "${KORVO_SPOIL:-}" = header ]; then
  spoilt=$(echo "$root"/check/libkorvoapi-dev_*_"${architectures[-1]}".deb)
  dpkg-deb -R "$spoilt" "$root/check/spoilt"
  echo '// Canary' >>"$root/check/spoilt/usr/include/Korvo/version.h"
  dpkg-deb -b "$root/check/spoilt" "$spoilt"
fi

"$source_dir/scripts/in-root.sh" "$root" bash /check/inside.sh "${architectures[@]}"
