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
work=$packages/check
rm -rf "$work"
mkdir "$work"
for architecture in "${architectures[@]}" all; do
  cp "$packages"/*_"$architecture".deb "$work"
done
cp "$source_dir/examples/readme/readme.cpp" "$source_dir/examples/readme/expected.txt" \
  "$source_dir/tests/install/event_loop.cpp" "$source_dir/tests/install/tables.cpp" \
  "$source_dir/tests/install/etcd.cpp" "$here/inside.sh" "$here/CMakeLists.txt" "$work"
cp -r "$here/tool" "$work"
# As in the README.
grep -q '^find_package(KorvoAPI REQUIRED)$' "$source_dir/README.md"
grep -qF "c++ -std=c++20 agent.cpp \$(pkg-config --cflags --libs KorvoAPI)" "$source_dir/README.md"

if [ "${KORVO_SPOIL:-}" = header ]; then
  spoilt=$(echo "$work"/libkorvoapi-dev_*_"${architectures[-1]}".deb)
  dpkg-deb -R "$spoilt" "$work/spoilt"
  echo '// Canary' >>"$work/spoilt/usr/include/Korvo/version.h"
  dpkg-deb -b "$work/spoilt" "$spoilt"
fi

"$source_dir/scripts/in-root.sh" "$packages/bare.tar" "$work" bash /mnt/inside.sh "${architectures[@]}"
