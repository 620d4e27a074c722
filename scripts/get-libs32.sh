#!/bin/bash
# Unpacks the 32-bit libcrypto, libuv and libmnl with their headers into build/libs32, for the m32 preset;
# --force does so again. Nothing is installed, and no architecture is added to the machine.
set -euo pipefail
cd "$(dirname "$0")/.."

target=build/libs32
complete() {
  test -e $target/usr/lib/i386-linux-gnu/libcrypto.so &&
    test -e $target/usr/lib/i386-linux-gnu/libmnl.so &&
    test -e $target/usr/lib/i386-linux-gnu/libuv.so
}
if [ "${1:-}" != --force ] && complete; then
  exit 0
fi
rm -rf build/libs32
scripts/apt-unpack.sh --arch i386 $target 'libssl3t64|libssl3' libssl-dev 'libuv1t64|libuv1' \
  libuv1-dev libmnl0 libmnl-dev

# The headers of the word size stand in a folder that only a 32-bit compiler searches by itself.
if [ -d $target/usr/include/i386-linux-gnu/openssl ]; then
  cp -r $target/usr/include/i386-linux-gnu/openssl $target/usr/include/
fi
complete
echo "32-bit libraries: $target"
